# Proves what libHTTPClient.so exports: the functions by which a host finds a transport, and nothing
# else.
# cmake -DNM=nm -DLIBRARY=libHTTPClient.so -P ExportedSymbols.cmake
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${NM} -D --defined-only --format=just-symbols ${LIBRARY}
  OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "\n" ";" symbols "${listing}")
list(FILTER symbols EXCLUDE REGEX "^$")
list(SORT symbols)

set(expected
  _qor_plugin_checkIsTransport_HTTPClient
  qor_create_plugin_with_params_HTTPClient
  qor_destroy_plugin_HTTPClient
  qor_plugin_api_version_HTTPClient
  qor_plugin_hostReady_HTTPClient
  qor_plugin_product_version_HTTPClient
  qor_plugin_sendBatchTowardsTransport_HTTPClient
  qor_plugin_setNextTowardsHost_HTTPClient
  qor_plugin_shutdown_HTTPClient
  qor_plugin_start_HTTPClient)
list(SORT expected)

if(NOT symbols STREQUAL expected)
  message(FATAL_ERROR "exported: ${symbols}\nexpected: ${expected}")
endif()
