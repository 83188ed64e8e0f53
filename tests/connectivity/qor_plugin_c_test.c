/*
 * A host in C that includes qor_plugin.h and the C library, and nothing else: it builds messages of
 * every kind of value, copies, renders and frees them, and answers a plug-in's questions.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "connectivity/qor_plugin.h"

static int failures = 0;

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                             \
    }                                                                         \
  } while (0)

/* --- A small vocabulary ----------------------------------------------------------------------- */

static qor_data_t of_tag(qor_tag_t tag) {
  qor_data_t value;
  memset(&value, 0, sizeof value);
  value.tag = (uint32_t)tag;
  return value;
}

static qor_data_t of_int64(int64_t number) {
  qor_data_t value = of_tag(QOR_INT64);
  value.value.int64 = number;
  return value;
}

static qor_data_t of_double(double number) {
  qor_data_t value = of_tag(QOR_DOUBLE);
  value.value.float64 = number;
  return value;
}

static qor_data_t of_bool(bool truth) {
  qor_data_t value = of_tag(QOR_BOOL);
  value.value.boolean = truth;
  return value;
}

static qor_data_t of_string(const char* text) {
  qor_data_t value = of_tag(QOR_STRING);
  value.value.string = qor_copy_string(text);
  return value;
}

static qor_data_t of_buffer(const char* bytes, size_t length) {
  qor_data_t value = of_tag(QOR_BUFFER);
  value.value.buffer = qor_allocate_buffer(length);
  memcpy(qor_buffer_bytes(value.value.buffer), bytes, length);
  return value;
}

static bool renders_as(qor_data_t value, const char* expected) {
  char* text = qor_data_to_string(value);
  const bool same = strcmp(text, expected) == 0;
  if (!same) fprintf(stderr, "rendered as: %s\n", text);
  qor_free_string(text);
  return same;
}

/* --- Layouts: the bytes that a host in any language writes and reads ----------------------------
 */

static uint64_t word_at(const void* block, size_t offset) {
  uint64_t word = 0;
  memcpy(&word, (const char*)block + offset, sizeof word);
  return word;
}

static void a_value_is_its_payload_and_then_its_tag(void) {
  const qor_data_t value = of_int64(-2);
  uint32_t tag = 0;
  memcpy(&tag, (const char*)&value + 8, sizeof tag);
  CHECK(word_at(&value, 0) == (uint64_t)-2);
  CHECK(tag == 3);
  CHECK(sizeof value == 16);
}

static void a_list_is_count_and_capacity_and_elements(void) {
  qor_underlying_list_t* list = qor_allocate_list(2);
  qor_list_elements(list)[0] = of_int64(7);
  list->count = 1;
  CHECK(word_at(list, 0) == 1);
  CHECK(word_at(list, 8) == 2);
  CHECK(word_at(list, 16) == 7);
  qor_free_vector(list);
}

static void a_buffer_is_its_length_and_its_bytes(void) {
  const qor_data_t buffer = of_buffer("12345678", 8);
  CHECK(word_at(buffer.value.buffer, 0) == 8);
  CHECK(memcmp((const char*)buffer.value.buffer + 8, "12345678", 8) == 0);
  qor_free_data(buffer);
}

static void a_table_is_its_head_and_its_slots(void) {
  qor_underlying_map_table_t* table = NULL;
  const uint64_t hash = qor_hash_string("key");
  const size_t slot = 32 + 40 * (size_t)(hash % 8);
  CHECK(qor_map_put(&table, "key", of_int64(9)) == 0);
  CHECK(word_at(table, 0) == 0);  /* header text */
  CHECK(word_at(table, 8) == 1);  /* size */
  CHECK(word_at(table, 16) == 8); /* capacity */
  CHECK(word_at(table, 24) == 0); /* tombstones */
  CHECK(word_at(table, slot) == hash);
  CHECK(word_at(table, slot + 24) == 9);
  qor_free_map(table);
}

/* --- Values --------------------------------------------------------------------------------------
 */

static void a_list_grows_and_keeps_its_elements(void) {
  qor_underlying_list_t* list = NULL;
  for (int64_t i = 0; i < 20; ++i) {
    if (list == NULL || list->count == list->capacity) {
      list = qor_reallocate_list(list, list == NULL ? 1 : 2 * list->capacity);
    }
    qor_list_elements(list)[list->count++] = of_int64(i);
  }
  CHECK(list->count == 20);
  CHECK(qor_list_elements(list)[19].value.int64 == 19);
  qor_free_vector(list);
}

static void a_map_finds_what_was_put(void) {
  qor_underlying_map_table_t* table = NULL;
  char key[16];
  for (int i = 0; i < 100; ++i) {
    snprintf(key, sizeof key, "key %d", i);
    CHECK(qor_map_put(&table, key, of_int64(i)) == 0);
  }
  CHECK(table->size == 100);
  for (int i = 0; i < 100; ++i) {
    snprintf(key, sizeof key, "key %d", i);
    const qor_data_t* found = qor_map_find(table, key);
    CHECK(found != NULL && found->value.int64 == i);
  }
  CHECK(qor_map_find(table, "absent") == NULL);
  table = qor_reallocate_map(table, 1000);
  CHECK(table != NULL && table->capacity == 1000);
  CHECK(qor_map_find(table, "key 99") != NULL);
  qor_free_map(table);
}

static int copies_of_custom = 0;
static int ends_of_custom = 0;

static void* copy_counter(void* object) {
  ++copies_of_custom;
  return object;
}
static void free_counter(void* object) {
  (void)object;
  ++ends_of_custom;
}
static const char* text_of_counter(void* object) { return (const char*)object; }

static const qor_custom_operations_t counter_operations = {copy_counter, free_counter,
                                                           text_of_counter};

static void a_custom_value_is_copied_and_ended_by_its_operations(void) {
  char name[] = "<counter>";
  qor_data_t custom = of_tag(QOR_CUSTOM);
  custom.value.custom = qor_allocate_custom(name, &counter_operations);
  const qor_data_t copy = qor_copy_data(custom);
  CHECK(renders_as(copy, "<counter>"));
  qor_free_data(custom);
  qor_free_data(copy);
  CHECK(copies_of_custom == 1);
  CHECK(ends_of_custom == 2);
}

/* --- A message, as a host builds one and a plug-in takes it
 * --------------------------------------- */

static qor_message_t a_request(void) {
  qor_message_t message;
  qor_data_t headers = of_tag(QOR_MAP);
  memset(&message, 0, sizeof message);
  message.payload = of_buffer("body", 4);
  qor_map_put(&headers.value.map, "accept", of_string("text/plain"));
  qor_map_put(&message.metadata, "http.method", of_string("PUT"));
  qor_map_put(&message.metadata, "http.headers", headers);
  qor_map_put(&message.metadata, "requestId", of_int64(1));
  return message;
}

static void a_message_is_built_moved_and_freed(void) {
  qor_message_t message = a_request();
  const qor_data_t payload = message.payload;
  qor_underlying_map_table_t* metadata = message.metadata;
  message.payload = of_tag(QOR_EMPTY);
  message.metadata = NULL;

  CHECK(sizeof message == 24);
  CHECK(renders_as(payload, "body"));
  CHECK(renders_as(*qor_map_find(metadata, "http.headers"), "{accept=text/plain}"));
  qor_free_data(payload);
  qor_free_map(metadata);
}

static void a_copy_outlives_its_original(void) {
  qor_data_t original = of_tag(QOR_LIST);
  original.value.list = qor_allocate_list(5);
  qor_data_t* elements = qor_list_elements(original.value.list);
  elements[0] = of_bool(true);
  elements[1] = of_double(1.5);
  elements[2] = of_string("text");
  elements[3] = of_tag(QOR_BORROWED_STRING);
  elements[3].value.borrowed = "borrowed";
  elements[4] = of_tag(QOR_EMPTY);
  original.value.list->count = 5;
  const qor_data_t copy = qor_copy_data(original);
  qor_free_data(original);
  CHECK(renders_as(copy, "[true, 1.5, text, borrowed, (null)]"));
  qor_free_data(copy);
}

/* --- The host's services
 * ---------------------------------------------------------------------------- */

typedef struct {
  char category[32];
  char text[64];
  int level;
  int lines;
} log_t;

static int level_of(void* context, const char* category) {
  (void)context;
  return strcmp(category, "quiet") == 0 ? QOR_LOG_ERROR : QOR_LOG_DEBUG;
}

static void write_line(void* context, const char* category, int level, const char* text) {
  log_t* log = (log_t*)context;
  snprintf(log->category, sizeof log->category, "%s", category);
  snprintf(log->text, sizeof log->text, "%s", text);
  log->level = level;
  ++log->lines;
}

static void the_hosts_sink_takes_the_lines(void) {
  log_t log;
  memset(&log, 0, sizeof log);
  const qor_log_services_t services = {&log, level_of, write_line};
  qor_set_log_services(&services);
  CHECK(qor_get_log_level("quiet") == QOR_LOG_ERROR);
  CHECK(qor_get_log_level("other") == QOR_LOG_DEBUG);
  qor_log_at("category", QOR_LOG_WARN, "%d of %s", 3, "many\n");
  qor_set_log_services(NULL);
  CHECK(log.lines == 1);
  CHECK(log.level == QOR_LOG_WARN);
  CHECK(strcmp(log.category, "category") == 0);
  CHECK(strcmp(log.text, "3 of many\\n") == 0);
}

static int yes(void* context, bool* shutting_down) {
  (void)context;
  *shutting_down = true;
  return 0;
}

static void note_wait(void* context, bool waiting) { *(bool*)context = waiting; }

static void the_host_answers(void) {
  bool waits = false;
  qor_host_services_t services = {&waits, NULL, yes, note_wait};
  bool shutting_down = false;
  CHECK(qor_is_host_shutting_down(&services, &shutting_down) == 0);
  CHECK(shutting_down);
  CHECK(qor_is_host_shutting_down(NULL, &shutting_down) == 0);
  CHECK(!shutting_down);
  CHECK(qor_enable_queue_flush_messages(&services) == 0);
  qor_report_batch_waits(&services, true);
  CHECK(waits);
}

static char status_text[32];

static void* create_item(void* context, const char* key, const char* text) {
  (void)context;
  if (strcmp(key, "taken") == 0) return NULL;
  snprintf(status_text, sizeof status_text, "%s", text);
  return status_text;
}
static void set_item(void* context, void* item, const char* text) {
  (void)context;
  snprintf((char*)item, sizeof status_text, "%s", text);
}
static void remove_item(void* context, void* item) {
  (void)context;
  *(char*)item = '\0';
}

static void the_host_keeps_status_items(void) {
  qor_status_services_t services = {NULL, create_item, set_item, remove_item};
  void* item = qor_create_user_status_item(&services, "key", "STARTING");
  CHECK(item != NULL);
  CHECK(strcmp(status_text, "STARTING") == 0);
  qor_set_user_status_item(item, "ONLINE");
  CHECK(strcmp(status_text, "ONLINE") == 0);
  CHECK(qor_create_user_status_item(&services, "taken", "") == NULL);
  qor_delete_user_status_item(item);
  CHECK(status_text[0] == '\0');
}

int main(void) {
  a_value_is_its_payload_and_then_its_tag();
  a_list_is_count_and_capacity_and_elements();
  a_buffer_is_its_length_and_its_bytes();
  a_table_is_its_head_and_its_slots();
  a_list_grows_and_keeps_its_elements();
  a_map_finds_what_was_put();
  a_custom_value_is_copied_and_ended_by_its_operations();
  a_message_is_built_moved_and_freed();
  a_copy_outlives_its_original();
  the_hosts_sink_takes_the_lines();
  the_host_answers();
  the_host_keeps_status_items();
  if (failures == 0) puts("every statement holds");
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
