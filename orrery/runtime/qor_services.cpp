// The host's services: the log, status items, and questions to the host.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <string>
#include <string_view>
#include <unistd.h>

#include "connectivity/qor_plugin.h"
#include "orrery/Platform.hpp"
#include "orrery/runtime/Blocks.hpp"
#include "orrery/runtime/Escaping.hpp"

namespace runtime {

namespace {

constexpr const char* ownCategory = "orrery";

constinit std::atomic<const qor_log_services_t*> logServices{nullptr};

// --- Lines ---------------------------------------------------------------------------------------

QOR_PRINTF(1, 0) std::string formatted(const char* format, std::va_list arguments) {
  std::array<char, 512> shortText{};
  std::va_list first;
  va_copy(first, arguments);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer does not follow va_copy
  const int length = std::vsnprintf(shortText.data(), shortText.size(), format, first);
  va_end(first);
  std::string text;
  if (length < 0) {
    text = format;
  } else if (static_cast<std::size_t>(length) < shortText.size()) {
    text.assign(shortText.data(), static_cast<std::size_t>(length));
  } else {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  }
  return text;
}

// --- Standard error, where no host takes the lines
// -------------------------------------------------

const char* levelName(int level) {
  if (level <= QOR_LOG_ERROR) return "ERROR";
  if (level == QOR_LOG_WARN) return "WARN ";
  if (level == QOR_LOG_INFO) return "INFO ";
  return level == QOR_LOG_DEBUG ? "DEBUG" : "TRACE";
}

// 2026-01-31T12:00:00.123Z
std::string timestamp(std::int64_t milliseconds) {
  constexpr std::int64_t perSecond = 1000;
  const std::int64_t fraction = ((milliseconds % perSecond) + perSecond) % perSecond;
  const auto seconds = static_cast<std::time_t>((milliseconds - fraction) / perSecond);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 48> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text.data() + length, text.size() - length, ".%03dZ", static_cast<int>(fraction));
  return text.data();
}

void writeToStandardError(const char* category, int level, const std::string& text) {
  const std::string line = timestamp(orrery::Platform::sysTime()) + " " + levelName(level) + " [" +
                           runtime::escaped(category) + "] " + text + "\n";
  // One call for the line, so that lines of several threads do not mix. Where standard error takes
  // none of it there is nowhere left to tell.
  ssize_t written = 0;
  do {
    written = ::write(STDERR_FILENO, line.data(), line.size());
  } while (written < 0 && errno == EINTR);
}

QOR_PRINTF(3, 0)
void logLine(const char* category, int level, const char* format, std::va_list arguments) noexcept {
  const int savedErrno = errno;
  try {
    const qor_log_services_t* services = logServices.load(std::memory_order_acquire);
    const bool hasSink = services != nullptr && services->write != nullptr;
    if (hasSink || level <= QOR_LOG_INFO) {
      const std::string text = runtime::escaped(formatted(format, arguments));
      if (hasSink) {
        services->write(services->context, category, level, text.c_str());
      } else {
        writeToStandardError(category, level, text);
      }
    }
  } catch (const std::exception&) {
    // Most likely out of memory: the line is lost, and nothing else.
    std::fputs("A log line was lost\n", stderr);
  }
  errno = savedErrno;
}

// --- Status items --------------------------------------------------------------------------------

// What a plug-in holds for an item. Without services nobody sees it.
struct StatusItem {
  const qor_status_services_t* services;
  void* hostItem;
};
static_assert(sizeof(StatusItem) == statusItemShape.elementSize, "a status item is two pointers");

StatusItem* newItem(const qor_status_services_t* services, void* hostItem) {
  auto* item = static_cast<StatusItem*>(allocateBlock(statusItemShape, 1));
  if (item == nullptr) return nullptr;
  item->services = services;
  item->hostItem = hostItem;
  return item;
}

}  // namespace

void reportError(const char* format, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, format);
  logLine(ownCategory, QOR_LOG_ERROR, format, arguments);
  va_end(arguments);
}

void reportOnStandardError(int level, const char* text) noexcept {
  try {
    writeToStandardError(ownCategory, level, escaped(text));
  } catch (const std::exception&) {
    std::fputs("A log line was lost\n", stderr);
  }
}

}  // namespace runtime

using runtime::StatusItem;

// --- Logging -------------------------------------------------------------------------------------

int qor_get_log_level(const char* category) {
  const qor_log_services_t* services = runtime::logServices.load(std::memory_order_acquire);
  if (services == nullptr || services->level == nullptr) return QOR_LOG_INFO;
  return services->level(services->context, category);
}

void qor_log_at(const char* category, int level, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  runtime::logLine(category, level, format, arguments);
  va_end(arguments);
}

void qor_set_log_services(const qor_log_services_t* services) {
  runtime::logServices.store(services, std::memory_order_release);
}

// --- Status items --------------------------------------------------------------------------------

void* qor_create_user_status_item(void* status_handle, const char* key, const char* text) {
  const auto* services = static_cast<const qor_status_services_t*>(status_handle);
  if (services == nullptr) return runtime::newItem(nullptr, nullptr);
  void* hostItem = services->create(services->context, key, text);
  if (hostItem == nullptr) return nullptr;
  StatusItem* item = runtime::newItem(services, hostItem);
  if (item == nullptr) services->remove(services->context, hostItem);
  return item;
}

void qor_set_user_status_item(void* item, const char* text) {
  const auto* status = static_cast<const StatusItem*>(item);
  if (status == nullptr || status->services == nullptr) return;
  status->services->set(status->services->context, status->hostItem, text);
}

void qor_delete_user_status_item(void* item) {
  const auto* status = static_cast<const StatusItem*>(item);
  if (status != nullptr && status->services != nullptr) {
    status->services->remove(status->services->context, status->hostItem);
  }
  std::free(item);
}

// --- Questions to the host -----------------------------------------------------------------------

int qor_enable_queue_flush_messages(void* host_handle) {
  const auto* host = static_cast<const qor_host_services_t*>(host_handle);
  if (host == nullptr || host->enable_queue_flush_messages == nullptr) return 0;
  return host->enable_queue_flush_messages(host->context);
}

int qor_is_host_shutting_down(void* host_handle, bool* shutting_down) {
  const auto* host = static_cast<const qor_host_services_t*>(host_handle);
  bool answer = false;
  if (host != nullptr && host->is_shutting_down != nullptr) {
    const int result = host->is_shutting_down(host->context, &answer);
    if (result != 0) return result;
  }
  *shutting_down = answer;
  return 0;
}

void qor_report_batch_waits(void* host_handle, bool waiting) {
  const auto* host = static_cast<const qor_host_services_t*>(host_handle);
  if (host == nullptr || host->batch_waits == nullptr) return;
  host->batch_waits(host->context, waiting);
}
