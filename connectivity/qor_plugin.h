/*
 * The C interface between an event-processing host and its transport plug-ins.
 *
 * This header alone is enough to write a host that loads a transport, or a transport that a host
 * loads. It compiles as C11 and as C++20. Everything declared here is implemented by liborrery.so,
 * which a host and its plug-ins both link, so that a block allocated on one side can be freed on
 * the other.
 *
 * Conventions:
 *  - Values have one layout on every platform, whatever the size of a pointer.
 *  - "Owned" means: whoever holds the value frees it, with the function named at its tag.
 *    "Borrowed" means: somebody else frees it, and it outlives the call; a borrowed string in a
 *    message outlives the delivery of its answer.
 *  - Query functions return 0 for success and give their answer through a pointer; every other
 *    result means that the answer is unknown and the pointer's target is untouched.
 *  - Text is NUL-terminated UTF-8, and never null unless a comment says so.
 *  - Where memory does not suffice, a function that makes something gives null (qor_copy_data: the
 *    empty value) after one line at error level, "Failed to allocate a list of 7 elements". No
 *    function of this header throws.
 *  - Functions may be called from any thread, at the same time, unless their comment says
 *    otherwise. One value, block or message must not be used by two threads at once.
 */
#ifndef CONNECTIVITY_QOR_PLUGIN_H
#define CONNECTIVITY_QOR_PLUGIN_H

/* The C headers, not their C++ twins: this file is read by C compilers too. */
#include <stdbool.h> /* NOLINT(modernize-deprecated-headers) */
#include <stddef.h>  /* NOLINT(modernize-deprecated-headers) */
#include <stdint.h>  /* NOLINT(modernize-deprecated-headers) */

/* NOLINTBEGIN(modernize-use-using, modernize-redundant-void-arg) : C has neither */

#ifdef __cplusplus
extern "C" {
#define QOR_ALIGN8 alignas(8)
#define QOR_STATIC_ASSERT(condition, reason) static_assert(condition, reason)
#else
#define QOR_ALIGN8 _Alignas(8)
#define QOR_STATIC_ASSERT(condition, reason) _Static_assert(condition, reason)
#endif

#if defined(__GNUC__)
#define QOR_API __attribute__((visibility("default")))
#define QOR_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define QOR_API
#define QOR_PRINTF(text, first)
#endif

/* --- Values ---------------------------------------------------------------------------------- */

/* The alternative that a value holds. The numbers are part of the layout. */
typedef enum qor_tag_t {
  QOR_EMPTY = 0,   /* nothing; the payload is zero */
  QOR_BOOL = 1,    /* boolean */
  QOR_DOUBLE = 2,  /* float64 */
  QOR_INT64 = 3,   /* int64 */
  QOR_DECIMAL = 4, /* decimal: IEEE 754-2008 decimal64, binary integer encoding */
  QOR_STRING = 5,  /* string, owned: qor_free_string */
  QOR_LIST = 6,    /* list, owned: qor_free_vector; null is the empty list */
  QOR_MAP = 7,     /* map, owned: qor_free_map; null is the empty map */
  QOR_BUFFER = 8,  /* buffer, owned: qor_free_buffer; null is the empty buffer */
  QOR_CUSTOM = 9,  /* custom, owned: qor_free_custom */
  /* borrowed: a text that the value does not own. In a message it must live, unchanged, until that
   * message's answer has been delivered, not only until the call that hands the message over. */
  QOR_BORROWED_STRING = 10
} qor_tag_t;

typedef uint64_t qor_underlying_decimal_t;
typedef struct qor_underlying_list_t qor_underlying_list_t;
typedef struct qor_underlying_map_table_t qor_underlying_map_table_t;
typedef struct qor_underlying_buffer_t qor_underlying_buffer_t;
typedef struct qor_underlying_custom_t qor_underlying_custom_t;

/* One tagged value: 16 bytes, passed by value. */
typedef struct qor_data_t {
  union {
    QOR_ALIGN8 uint64_t bits;
    bool boolean;
    double float64;
    int64_t int64;
    qor_underlying_decimal_t decimal;
    char* string;
    const char* borrowed;
    qor_underlying_list_t* list;
    qor_underlying_map_table_t* map;
    qor_underlying_buffer_t* buffer;
    qor_underlying_custom_t* custom;
  } value;
  uint32_t tag;      /* a qor_tag_t */
  uint32_t reserved; /* zero */
} qor_data_t;

/* A list block: this head, then `capacity` values of which the first `count` are live. */
struct qor_underlying_list_t {
  QOR_ALIGN8 uint64_t count;
  uint64_t capacity;
};

/* A buffer block: this head, then `length` bytes. The low 32 bits of the length are used. */
struct qor_underlying_buffer_t {
  QOR_ALIGN8 uint64_t length;
};

/*
 * A map table: this head, then `capacity` slots. An open-addressing hash table with linear probing:
 * a key is looked for from slot (hash mod capacity) on. A slot is empty when its hash is 0 and its
 * key is empty, a tombstone when its hash is 1 and its key is empty, and live otherwise.
 */
struct qor_underlying_map_table_t {
  QOR_ALIGN8 char* header_string; /* owned, may be null: a text that travels with the table */
  QOR_ALIGN8 uint64_t size;       /* live slots */
  uint64_t capacity;              /* all slots */
  uint64_t tombstones;            /* erased slots counted against the load limit */
};

typedef struct qor_underlying_map_table_entry_t {
  QOR_ALIGN8 uint64_t hash;
  qor_data_t key;
  qor_data_t value;
} qor_underlying_map_table_entry_t;

/* What a custom value can do. `object` is the pointer given to qor_allocate_custom. */
typedef struct qor_custom_operations_t {
  void* (*copy)(void* object);       /* a new object, owned by the copy */
  void (*free)(void* object);        /* the end of the object; called once */
  const char* (*text)(void* object); /* borrowed from the object; null: "(custom)" */
} qor_custom_operations_t;

/* A custom block. A host object with operations of its own; plug-ins move and free it. */
struct qor_underlying_custom_t {
  QOR_ALIGN8 void* object;
  QOR_ALIGN8 const qor_custom_operations_t* operations; /* borrowed; outlives the block */
};

/*
 * One message: the payload, then the metadata table (null: no metadata). A message owns both.
 * Whoever is handed a batch may move them out of a message and must then leave it empty (tag 0 and
 * a null table); what is left in the batch afterwards stays with the caller, who frees it.
 */
typedef struct qor_message_t {
  qor_data_t payload;
  QOR_ALIGN8 qor_underlying_map_table_t* metadata;
} qor_message_t;

QOR_STATIC_ASSERT(sizeof(qor_data_t) == 16, "a value is 16 bytes");
QOR_STATIC_ASSERT(offsetof(qor_data_t, tag) == 8, "the tag follows the 8-byte payload");
QOR_STATIC_ASSERT(sizeof(qor_underlying_list_t) == 16, "list elements start at offset 16");
QOR_STATIC_ASSERT(sizeof(qor_underlying_buffer_t) == 8, "buffer bytes start at offset 8");
QOR_STATIC_ASSERT(sizeof(qor_underlying_map_table_t) == 32, "map slots start at offset 32");
QOR_STATIC_ASSERT(offsetof(qor_underlying_map_table_t, size) == 8, "header text is padded to 8");
QOR_STATIC_ASSERT(offsetof(qor_underlying_map_table_t, capacity) == 16, "capacity at offset 16");
QOR_STATIC_ASSERT(offsetof(qor_underlying_map_table_t, tombstones) == 24, "tombstones at 24");
QOR_STATIC_ASSERT(sizeof(qor_underlying_map_table_entry_t) == 40, "a slot is 40 bytes");
QOR_STATIC_ASSERT(offsetof(qor_underlying_map_table_entry_t, key) == 8, "the key follows the hash");
QOR_STATIC_ASSERT(offsetof(qor_underlying_map_table_entry_t, value) == 24, "then the value");
QOR_STATIC_ASSERT(sizeof(qor_underlying_custom_t) == 16, "a custom block is two padded pointers");
QOR_STATIC_ASSERT(sizeof(qor_message_t) == 24, "a message is a payload and a padded pointer");
QOR_STATIC_ASSERT(offsetof(qor_message_t, metadata) == 16, "the metadata follows the payload");

/* --- Making, copying and freeing values ------------------------------------------------------- */

/* An owned copy of the text; null for null. */
QOR_API char* qor_copy_string(const char* text);
/* Frees a text from qor_copy_string; null is allowed. */
QOR_API void qor_free_string(char* text);

/* A list block with room for `capacity` values and a count of 0; owned by the caller. Values beyond
 * the count are empty. */
QOR_API qor_underlying_list_t* qor_allocate_list(uint64_t capacity);
/* The block (null: a new one) with room for `capacity` values, its elements kept; the old block is
 * released. `capacity` below the count is a failure, as is a lack of memory: null, one line at
 * error level, and the old block stays as it was. */
QOR_API qor_underlying_list_t* qor_reallocate_list(qor_underlying_list_t* list, uint64_t capacity);
/* Frees the block and every element in it; null is allowed. */
QOR_API void qor_free_vector(qor_underlying_list_t* list);
/* The first element, or where it would stand. `list` must not be null. */
static inline qor_data_t* qor_list_elements(qor_underlying_list_t* list);

/* A buffer block of `length` zero bytes, at most 4294967295; owned by the caller. */
QOR_API qor_underlying_buffer_t* qor_allocate_buffer(uint64_t length);
QOR_API void qor_free_buffer(qor_underlying_buffer_t* buffer); /* null is allowed */
/* The first byte. `buffer` must not be null. */
static inline char* qor_buffer_bytes(qor_underlying_buffer_t* buffer);

/* A table of `capacity` empty slots; owned by the caller. */
QOR_API qor_underlying_map_table_t* qor_allocate_map(uint64_t capacity);
/* A table of `capacity` slots with every live slot of `table`, placed by its stored hash, and its
 * header text; no tombstones. `table` is released. Where `capacity` cannot hold them, or memory
 * cannot hold it: null, a line at error level, and `table` stays as it was. */
QOR_API qor_underlying_map_table_t* qor_reallocate_map(qor_underlying_map_table_t* table,
                                                       uint64_t capacity);
/* Frees keys, values, header text and table; null is allowed. */
QOR_API void qor_free_map(qor_underlying_map_table_t* table);
/* The first slot. `table` must not be null. */
static inline qor_underlying_map_table_entry_t* qor_map_entries(qor_underlying_map_table_t* table);

/* A custom block around `object`; owned by the caller. `operations` is borrowed for its life. Where
 * the result is null, `object` stays with the caller. */
QOR_API qor_underlying_custom_t* qor_allocate_custom(void* object,
                                                     const qor_custom_operations_t* operations);
/* Ends the object and frees the block; null is allowed. */
QOR_API void qor_free_custom(qor_underlying_custom_t* custom);

/* A deep copy of the whole value, owned by the caller. A borrowed string becomes an owned one. A
 * map keeps its slots, and so its order. Values may be nested as deep as memory allows, here and in
 * qor_free_data and qor_data_to_string. */
QOR_API qor_data_t qor_copy_data(qor_data_t value);
/* Frees whatever the value owns. */
QOR_API void qor_free_data(qor_data_t value);
/*
 * An owned rendering of the value for people: "(null)" for an empty value, "true" or "false",
 * integers as %lld, doubles as %g (with a point in every locale), decimals as 1.50, strings bare,
 * [a, b], {key=value, key=value} in slot order, a custom value's own text. A buffer is its bytes
 * where they are UTF-8 without control characters other than tab, line feed and carriage return;
 * else "<5 bytes>".
 */
QOR_API char* qor_data_to_string(qor_data_t value);
/*
 * XXH3 (64 bits) of the text's bytes, with a secret that each process draws at random, so that
 * nobody outside can choose texts that collide: no process can use what another one stored, and the
 * order of a map's slots changes from run to run. The environment variable ORRERY_HASH_SEED (an
 * integer; 0: no secret) fixes it.
 */
QOR_API uint64_t qor_hash_string(const char* text);

/*
 * Puts `value` under a text key, in place of what stood there. Takes `value` over; copies `key`.
 * `*table` may be null and is replaced when the table grows: before a new key, when 0.75 * capacity
 * is less than size + tombstones, to 2 * size + 2 slots, 8 at least. Returns 0, or 1 (a line at
 * error level tells why) and then frees `value`.
 */
QOR_API int qor_map_put(qor_underlying_map_table_t** table, const char* key, qor_data_t value);
/* The value under a text key, be it an owned or a borrowed string; borrowed from the table, valid
 * until the table changes; or null. `table` may be null. */
QOR_API const qor_data_t* qor_map_find(const qor_underlying_map_table_t* table, const char* key);

/* --- Logging -----------------------------------------------------------------------------------
 */

enum {
  QOR_LOG_ERROR = 2,
  QOR_LOG_WARN = 3,
  QOR_LOG_INFO = 4,
  QOR_LOG_DEBUG = 5,
  QOR_LOG_TRACE = 6
};

/* The level of a category: lines up to this level are wanted. */
QOR_API int qor_get_log_level(const char* category);
/* Writes one line; the text is formatted as by printf. Before it goes anywhere, control characters
 * in it are escaped as \n, \r, \t, \x1b or (U+0080 to U+009F) \u0085, and bytes that are not UTF-8
 * as \xff. Leaves errno as it was. */
QOR_API void qor_log_at(const char* category, int level, const char* format, ...) QOR_PRINTF(3, 4);

/*
 * Where log lines go. Set by the host, for the whole process, before it loads a plug-in, and
 * borrowed until it is replaced. Without one (null) lines up to information level go to standard
 * error, as "2026-01-31T12:00:00.123Z INFO  [category] text" with the time in UTC. Both functions
 * are called from any thread, also at the same time. `write` is handed every line, whatever its
 * level.
 */
typedef struct qor_log_services_t {
  void* context;
  int (*level)(void* context, const char* category);
  void (*write)(void* context, const char* category, int level, const char* text);
} qor_log_services_t;
QOR_API void qor_set_log_services(const qor_log_services_t* services);

/* --- Status items ------------------------------------------------------------------------------
 */

/*
 * Creates a named item on the host's status pages. `status_handle` is the one given to the
 * plug-in's create function. Null where the key is taken or the host refuses.
 */
QOR_API void* qor_create_user_status_item(void* status_handle, const char* key, const char* text);
/* Sets the item's text. Calls for one item come one at a time. */
QOR_API void qor_set_user_status_item(void* item, const char* text);
/* Removes the item; null is allowed. */
QOR_API void qor_delete_user_status_item(void* item);

/*
 * How a host keeps status items: a status handle is a pointer to this structure, borrowed until the
 * plug-in is destroyed; all three functions are there, and called from any thread. A null handle
 * keeps items that nobody sees.
 */
typedef struct qor_status_services_t {
  void* context;
  void* (*create)(void* context, const char* key, const char* text); /* null: refused */
  void (*set)(void* context, void* item, const char* text);
  void (*remove)(void* context, void* item);
} qor_status_services_t;

/* --- Questions to the host ---------------------------------------------------------------------
 */

/* Asks the host to send queue-flush control messages to this plug-in. 0 for success. */
QOR_API int qor_enable_queue_flush_messages(void* host_handle);
/* Whether the host itself is shutting down. 0 for success, the answer in `*shutting_down`. */
QOR_API int qor_is_host_shutting_down(void* host_handle, bool* shutting_down);
/* Tells the host that a batch towards the transport begins (true) or ends (false) to wait for space
 * in the transport's queue; see batch_waits below. A transport that tells nothing works as well. */
QOR_API void qor_report_batch_waits(void* host_handle, bool waiting);

/*
 * How a host answers: a host handle is a pointer to this structure, borrowed until the plug-in is
 * destroyed. The functions are called from any thread; a null function, or a null handle, succeeds
 * (and the host is not shutting down). What a host does not use it sets to null.
 */
typedef struct qor_host_services_t {
  void* context;
  int (*enable_queue_flush_messages)(void* context);
  int (*is_shutting_down)(void* context, bool* shutting_down);
  /*
   * Called by the thread that sends a batch towards the transport, inside that call: with true when
   * it begins to wait for space, with false when it has space or gives up, as at shutdown. Once
   * each for one wait; a batch may wait several times. Batches of several threads wait, and tell
   * it, at the same time. The function must not wait, call the plug-in or touch the batch: others
   * may want the space meanwhile.
   */
  void (*batch_waits)(void* context, bool waiting);
} qor_host_services_t;

QOR_STATIC_ASSERT(offsetof(qor_host_services_t, batch_waits) == 3 * sizeof(void*),
                  "functions are added at the end");

/* --- The plug-in's entry points ------------------------------------------------------------------
 *
 * A plug-in library lib<NAME>.so exports ten functions whose names end in _<NAME>, here with their
 * types. The host calls create, setNextTowardsHost, start, hostReady, any number of batches, then
 * shutdown and destroy. Except for batches, it calls them from one thread at a time.
 * Results: 0 for success, 1 for failure (told in the log), unless stated.
 */

/* qor_plugin_api_version_<NAME>: always 4. */
typedef uint64_t (*qor_plugin_api_version_t)(void);
#define QOR_PLUGIN_API_VERSION 4
/* qor_plugin_product_version_<NAME>: a constant text. */
typedef const char* (*qor_plugin_product_version_t)(void);

/*
 * qor_create_plugin_with_params_<NAME>: a new plug-in, or null. The texts and the configuration (a
 * value that holds a map) stay the host's and are copied. The handles are borrowed until destroy.
 */
typedef void* (*qor_create_plugin_with_params_t)(const char* plugin_name, const char* chain_id,
                                                 qor_data_t configuration, void* status_handle,
                                                 void* host_handle);

/* qor_plugin_start_<NAME>, qor_plugin_hostReady_<NAME>, qor_plugin_shutdown_<NAME>. After shutdown
 * has returned, every accepted message has been answered, unless the host said that it is shutting
 * down itself. */
typedef int (*qor_plugin_start_t)(void* plugin);
typedef int (*qor_plugin_host_ready_t)(void* plugin);
typedef int (*qor_plugin_shutdown_t)(void* plugin);

/*
 * Takes the messages from `start` up to and not including `end`: towards the host or, with the
 * same shape, towards the transport. What the callee takes it moves out (see qor_message_t). The
 * host's function is called on the plug-in's own threads, one call at a time for each plug-in, and
 * may send new batches to the plug-in from inside the call. A non-zero result is logged.
 */
typedef int (*qor_send_batch_towards_host_t)(void* chain_handle, qor_message_t* start,
                                             qor_message_t* end);
/* qor_plugin_setNextTowardsHost_<NAME>: `chain_handle` is borrowed until destroy or until the next
 * call. */
typedef int (*qor_plugin_set_next_towards_host_t)(void* plugin, void* chain_handle,
                                                  qor_send_batch_towards_host_t send_batch);
/* qor_plugin_sendBatchTowardsTransport_<NAME>: may be called from several threads, and may wait
 * while the transport's queue is full (qor_report_batch_waits tells the host). After a failure,
 * messages that were taken are empty and the others are as they were. */
typedef int (*qor_plugin_send_batch_towards_transport_t)(void* plugin, qor_message_t* start,
                                                         qor_message_t* end);

/* qor_destroy_plugin_<NAME>: stops the plug-in's threads and frees it; null is allowed. Always 0.
 */
typedef int (*qor_destroy_plugin_t)(void* plugin);
/* _qor_plugin_checkIsTransport_<NAME>: marks a transport; gives its argument back. */
typedef uintptr_t (*qor_plugin_check_is_transport_t)(uintptr_t word);

/* --- Inline accessors ----------------------------------------------------------------------------
 */

/* NOLINTBEGIN(cppcoreguidelines-pro-type-cstyle-cast, google-readability-casting) : read by C too
 */
#if defined(__GNUC__)
#pragma GCC diagnostic push
#ifdef __cplusplus
#pragma GCC diagnostic ignored "-Wold-style-cast"
#endif
#endif

static inline qor_data_t* qor_list_elements(qor_underlying_list_t* list) {
  return (qor_data_t*)(void*)(list + 1);
}

static inline char* qor_buffer_bytes(qor_underlying_buffer_t* buffer) {
  return (char*)(void*)(buffer + 1);
}

static inline qor_underlying_map_table_entry_t* qor_map_entries(qor_underlying_map_table_t* table) {
  return (qor_underlying_map_table_entry_t*)(void*)(table + 1);
}

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
/* NOLINTEND(cppcoreguidelines-pro-type-cstyle-cast, google-readability-casting) */

#ifdef __cplusplus
}
#endif

/* NOLINTEND(modernize-use-using, modernize-redundant-void-arg) */

#endif /* CONNECTIVITY_QOR_PLUGIN_H */
