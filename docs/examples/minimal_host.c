/*
 * The smallest host: loads the transport, sends one GET request, prints the answer.
 *
 *   minimal_host build/release/lib/libHTTPClient.so localhost 8080 /index.html
 */
#include <dlfcn.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include "connectivity/qor_plugin.h"

static qor_data_t text(const char* value) {
  return (qor_data_t){.value.string = qor_copy_string(value), .tag = QOR_STRING};
}

static qor_data_t map(qor_underlying_map_table_t* table) {
  return (qor_data_t){.value.map = table, .tag = QOR_MAP};
}

/* Called on the transport's threads, one call at a time. What is not moved out of the message stays
 * the transport's, which frees it when this function has returned. */
static int receive(void* chain, qor_message_t* start, qor_message_t* end) {
  (void)chain;
  for (; start != end; ++start) {
    const qor_data_t* http = qor_map_find(start->metadata, "http");
    const qor_data_t* status = http == NULL ? NULL : qor_map_find(http->value.map, "statusCode");
    if (status != NULL) printf("%" PRId64 "\n", status->value.int64);
    qor_underlying_buffer_t* body = start->payload.value.buffer; /* null: an empty body */
    if (body != NULL) fwrite(qor_buffer_bytes(body), 1, (size_t)body->length, stdout);
  }
  return 0;
}

/* An entry point, or the end of the program. A union, because C has no cast between object and
 * function pointers. */
typedef union entry_point_t {
  void* address;
  qor_create_plugin_with_params_t create;
  qor_plugin_set_next_towards_host_t set_next_towards_host;
  qor_plugin_start_t call; /* start, hostReady and shutdown have one type */
  qor_plugin_send_batch_towards_transport_t send_batch;
  qor_destroy_plugin_t destroy;
} entry_point_t;

static entry_point_t find(void* library, const char* name) {
  const entry_point_t found = {.address = dlsym(library, name)};
  if (found.address == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    exit(1);
  }
  return found;
}

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: %s LIBRARY HOST PORT PATH\n", argv[0]);
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 1;
  }

  /* The configuration stays this host's: the transport copies it. */
  qor_underlying_map_table_t* configuration = NULL;
  qor_map_put(&configuration, "host", text(argv[2]));
  qor_map_put(&configuration, "port", text(argv[3]));
  void* transport = find(library, "qor_create_plugin_with_params_HTTPClient")
                        .create("example", "main", map(configuration), NULL, NULL);
  qor_free_map(configuration);
  if (transport == NULL) return 1; /* the log, here standard error, says why */

  find(library, "qor_plugin_setNextTowardsHost_HTTPClient")
      .set_next_towards_host(transport, NULL, receive);
  find(library, "qor_plugin_start_HTTPClient").call(transport);
  find(library, "qor_plugin_hostReady_HTTPClient").call(transport);

  qor_underlying_map_table_t* http = NULL;
  qor_map_put(&http, "method", text("GET"));
  qor_map_put(&http, "path", text(argv[4]));
  qor_message_t request = {.payload = {.tag = QOR_EMPTY}, .metadata = NULL};
  qor_map_put(&request.metadata, "requestId", text("first"));
  qor_map_put(&request.metadata, "http", map(http));
  find(library, "qor_plugin_sendBatchTowardsTransport_HTTPClient")
      .send_batch(transport, &request, &request + 1);
  /* Taken messages are empty now; one that was refused is still this host's. */
  qor_free_data(request.payload);
  qor_free_map(request.metadata);

  /* Returns when every accepted request has been answered. */
  find(library, "qor_plugin_shutdown_HTTPClient").call(transport);
  find(library, "qor_destroy_plugin_HTTPClient").destroy(transport);
  dlclose(library);
  return 0;
}
