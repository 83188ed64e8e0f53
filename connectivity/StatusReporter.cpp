#include "connectivity/StatusReporter.hpp"

#include <array>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "connectivity/qor_plugin.h"

namespace connectivity {

namespace {

std::string decimal(std::int64_t value) {
  std::array<char, 25> text{};
  std::snprintf(text.data(), text.size(), "%lld", static_cast<long long>(value));
  return text.data();
}

}  // namespace

std::unique_ptr<StatusReporter::StatusItem> StatusReporter::createStatusItem(const std::string& key,
                                                                             std::int64_t initial) {
  return std::make_unique<StatusItem>(_statusHandle, key, initial, decimal(initial));
}

std::unique_ptr<StatusReporter::StatusItem> StatusReporter::createStatusItem(
    const std::string& key, const std::string& initial) {
  return std::make_unique<StatusItem>(_statusHandle, key, 0, initial);
}

StatusReporter::StatusItem::StatusItem(void* statusHandle, const std::string& key,
                                       std::int64_t value, std::string text)
    : _value(value),
      _lastText(std::move(text)),
      _hostItem(qor_create_user_status_item(statusHandle, key.c_str(), _lastText.c_str())) {
  if (_hostItem == nullptr)
    throw std::runtime_error(
        "Failed to create status item '" + key +
        "' (ensure the key is unique and that this plug-in has not been shutdown already)");
}

StatusReporter::StatusItem::~StatusItem() { qor_delete_user_status_item(_hostItem); }

void StatusReporter::StatusItem::setStatus(std::int64_t value) {
  const std::lock_guard lock(_mutex);
  setNumberLocked(value);
}

void StatusReporter::StatusItem::setStatus(const std::string& text) {
  const std::lock_guard lock(_mutex);
  setStatusLocked(text);
}

// The sum is taken on unsigned numbers: a counter that overflows wraps.
void StatusReporter::StatusItem::increment(std::int64_t delta) {
  const std::lock_guard lock(_mutex);
  setNumberLocked(static_cast<std::int64_t>(static_cast<std::uint64_t>(_value) +
                                            static_cast<std::uint64_t>(delta)));
}

void StatusReporter::StatusItem::setNumberLocked(std::int64_t value) {
  _value = value;
  setStatusLocked(decimal(value));
}

void StatusReporter::StatusItem::setStatusLocked(const std::string& text) {
  if (text == _lastText) return;
  _lastText = text;
  qor_set_user_status_item(_hostItem, _lastText.c_str());
}

}  // namespace connectivity
