// The constants are made where they are declared; this makes sure that the header stands alone.
#include "plugins/http_client/DataTConstants.hpp"
