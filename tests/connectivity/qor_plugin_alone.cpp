// Proves that the C interface compiles as C++ with nothing before it.
#include "connectivity/qor_plugin.h"
