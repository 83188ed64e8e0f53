/*
 * The smallest host: loads the transport, sends one GET request, prints the answer.
 *
 *   minimal_host LIBRARY HOST PORT PATH
 *   minimal_host build/release/lib/libHTTPClient.so localhost 8080 /index.html
 *
 * The answer's body goes to standard output, its status to standard error. Exit status: 0 for an
 * answer with a status of 200 to 399, 1 for another answer, or none, 2 for wrong usage.
 *
 * Who frees what, at every step, is said where the step is. The transport logs to standard error:
 * a host that wants it elsewhere calls qor_set_log_services first.
 */
#include <dlfcn.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "connectivity/qor_plugin.h"

/* --- The library ------------------------------------------------------------------------------ */

/* Of the ten entry points those that this host uses. */
typedef struct transport_library_t {
  qor_plugin_api_version_t api_version;
  qor_create_plugin_with_params_t create;
  qor_plugin_set_next_towards_host_t set_next_towards_host;
  qor_plugin_start_t start;
  qor_plugin_host_ready_t host_ready;
  qor_plugin_send_batch_towards_transport_t send_batch;
  qor_plugin_shutdown_t shutdown;
  qor_destroy_plugin_t destroy;
} transport_library_t;

/* Stores the address of a function in a pointer to it. C has no cast between the two kinds of
 * pointer; POSIX lets the bytes be copied. */
static bool find(void* library, const char* name, void* function) {
  void* const address = dlsym(library, name);
  if (address == NULL) {
    fprintf(stderr, "minimal_host: %s\n", dlerror());
    return false;
  }
  memcpy(function, &address, sizeof address);
  return true;
}

/* Every name ends in the library's own, lib<NAME>.so. */
static bool find_entry_points(void* library, transport_library_t* found) {
  return find(library, "qor_plugin_api_version_HTTPClient", &found->api_version) &&
         find(library, "qor_create_plugin_with_params_HTTPClient", &found->create) &&
         find(library, "qor_plugin_setNextTowardsHost_HTTPClient", &found->set_next_towards_host) &&
         find(library, "qor_plugin_start_HTTPClient", &found->start) &&
         find(library, "qor_plugin_hostReady_HTTPClient", &found->host_ready) &&
         find(library, "qor_plugin_sendBatchTowardsTransport_HTTPClient", &found->send_batch) &&
         find(library, "qor_plugin_shutdown_HTTPClient", &found->shutdown) &&
         find(library, "qor_destroy_plugin_HTTPClient", &found->destroy);
}

/* --- Values and messages ---------------------------------------------------------------------- */

/* An owned copy of the text; it is freed with the map that it is put into. */
static qor_data_t text(const char* value) {
  return (qor_data_t){.value.string = qor_copy_string(value), .tag = QOR_STRING};
}

/* The value takes the table over: who owns the value owns the table. */
static qor_data_t map(qor_underlying_map_table_t* table) {
  return (qor_data_t){.value.map = table, .tag = QOR_MAP};
}

/* {requestId: "first", http: {method: "GET", path: PATH}} and no payload; the caller's to free. */
static qor_message_t get_request(const char* path) {
  qor_underlying_map_table_t* http = NULL; /* null is the empty map; qor_map_put makes the table */
  qor_map_put(&http, "method", text("GET"));
  qor_map_put(&http, "path", text(path));
  qor_message_t request = {.payload = {.tag = QOR_EMPTY}, .metadata = NULL};
  qor_map_put(&request.metadata, "requestId", text("first")); /* comes back with the answer */
  qor_map_put(&request.metadata, "http", map(http));
  return request;
}

static void free_message(qor_message_t* message) {
  qor_free_data(message->payload);
  qor_free_map(message->metadata);
}

/* --- The answer ------------------------------------------------------------------------------- */

typedef struct answer_t {
  int64_t status;  /* 0: none came */
  qor_data_t body; /* owned: a buffer, or empty */
} answer_t;

/* The number at metadata.http.statusCode, or 0. What is found is borrowed from the message. */
static int64_t status_of(const qor_message_t* message) {
  const qor_data_t* http = qor_map_find(message->metadata, "http");
  if (http == NULL || http->tag != QOR_MAP) return 0;
  const qor_data_t* status = qor_map_find(http->value.map, "statusCode");
  return status == NULL || status->tag != QOR_INT64 ? 0 : status->value.int64;
}

/* The host's end of the chain: called on the transport's threads, one call at a time. `chain` is
 * what was given to setNextTowardsHost. What is moved out of a message, here the body, is this
 * host's from now on, and an empty value must stay in its place; the rest stays the transport's,
 * which frees it when the function has returned. */
static int receive(void* chain, qor_message_t* start, qor_message_t* end) {
  answer_t* answer = chain;
  for (qor_message_t* message = start; message != end; ++message) {
    qor_free_data(answer->body); /* this host asked for one answer; a second would replace it */
    answer->status = status_of(message);
    answer->body = message->payload;
    message->payload = (qor_data_t){.tag = QOR_EMPTY};
  }
  return 0;
}

static void print(const answer_t* answer) {
  fprintf(stderr, "minimal_host: status %" PRId64 "\n", answer->status);
  if (answer->body.tag != QOR_BUFFER || answer->body.value.buffer == NULL) return; /* no body */
  qor_underlying_buffer_t* body = answer->body.value.buffer;
  fwrite(qor_buffer_bytes(body), 1, (size_t)body->length, stdout);
}

/* --- One transport's life --------------------------------------------------------------------- */

static void* create(const transport_library_t* library, const char* host, const char* port) {
  qor_underlying_map_table_t* configuration = NULL;
  qor_map_put(&configuration, "host", text(host));
  qor_map_put(&configuration, "port", text(port));
  /* No status services and no host services (the two nulls): nobody looks at status items, and this
   * host is never "shutting down". Names and configuration stay this host's: they are copied. */
  void* transport = library->create("example", "main", map(configuration), NULL, NULL);
  qor_free_map(configuration);
  return transport; /* this host's, until destroy */
}

/* True when the request was handed over and every accepted request has been answered. */
static bool exchange(const transport_library_t* library, void* transport, const char* path,
                     answer_t* answer) {
  /* `answer` is borrowed until destroy. */
  if (library->set_next_towards_host(transport, answer, receive) != 0) return false;
  if (library->start(transport) != 0) return false;
  if (library->host_ready(transport) != 0) return false;

  qor_message_t request = get_request(path);
  const int refused = library->send_batch(transport, &request, &request + 1);
  /* A message that was taken is empty now; one that was refused is still this host's. */
  free_message(&request);

  /* Returns when the answer has been delivered. From here on no other thread touches it. */
  return library->shutdown(transport) == 0 && refused == 0;
}

static int request_once(const transport_library_t* library, char** arguments) {
  void* transport = create(library, arguments[2], arguments[3]);
  if (transport == NULL) {
    fprintf(stderr, "minimal_host: no transport was created (the log above says why)\n");
    return 1;
  }
  answer_t answer = {.status = 0, .body = {.tag = QOR_EMPTY}};
  const bool done = exchange(library, transport, arguments[4], &answer);
  library->destroy(transport); /* also after a failure; its threads are gone now */
  if (done) {
    print(&answer);
  } else {
    fprintf(stderr, "minimal_host: the transport failed (the log above says why)\n");
  }
  qor_free_data(answer.body);
  return done && answer.status >= 200 && answer.status <= 399 ? 0 : 1;
}

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: minimal_host LIBRARY HOST PORT PATH\n");
    return 2;
  }
  void* handle = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (handle == NULL) {
    fprintf(stderr, "minimal_host: %s\n", dlerror());
    return 1;
  }
  int result = 1;
  transport_library_t library;
  if (find_entry_points(handle, &library)) {
    if (library.api_version() == QOR_PLUGIN_API_VERSION) {
      result = request_once(&library, argv);
    } else {
      fprintf(stderr, "minimal_host: %s has another version of the interface\n", argv[1]);
    }
  }
  dlclose(handle); /* after destroy: no thread runs its code any more */
  return result;
}
