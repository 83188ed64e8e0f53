/* Proves that the C interface needs nothing but itself, and keeps its layouts for every target that
 * this file is compiled for. */
#include "connectivity/qor_plugin.h"

typedef int qor_plugin_header_stands_alone_t;
