#include "host/chain/FlushMessage.hpp"

#include <memory>
#include <utility>

#include "connectivity/value_access.hpp"

namespace host {

using connectivity::custom_t;
using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

namespace {

constexpr const char* objectKey = "qor.controlObject";

// What all copies of one flush object share.
class Flush {
 public:
  explicit Flush(OnFlushReleased onReleased) : _onReleased(std::move(onReleased)) {}
  ~Flush() {
    if (_onReleased) _onReleased();
  }
  Flush(const Flush&) = delete;
  Flush& operator=(const Flush&) = delete;

  void withdraw() { _onReleased = nullptr; }

 private:
  OnFlushReleased _onReleased;
};

// The object of the custom value.
using FlushReference = std::shared_ptr<Flush>;

FlushReference* referenceAt(void* object) { return static_cast<FlushReference*>(object); }

void* copyReference(void* object) {
  return std::make_unique<FlushReference>(*referenceAt(object)).release();
}

void freeReference(void* object) {
  const std::unique_ptr<FlushReference> owned(referenceAt(object));
}

const char* textOfReference(void*) { return "queue flush"; }

constexpr qor_custom_operations_t operations{&copyReference, &freeReference, &textOfReference};

}  // namespace

Message makeFlushMessage(OnFlushReleased onReleased) {
  auto reference = std::make_unique<FlushReference>(std::make_shared<Flush>(std::move(onReleased)));
  custom_t object(qor_allocate_custom(reference.release(), &operations));
  map_t metadata;
  metadata.insert(data_t("qor.control.type"), data_t("QueueFlush"));
  metadata.insert(data_t(objectKey), data_t(std::move(object)));
  return {data_t(), std::move(metadata)};
}

bool holdsFlushObject(const Message& message) {
  const data_t* object = message.metadata.findText(objectKey);
  return object != nullptr && object->tag() == QOR_CUSTOM;
}

void withdrawFlushMessage(Message& message) {
  if (!holdsFlushObject(message)) return;
  const auto& object = connectivity::get<custom_t>(*message.metadata.findText(objectKey));
  (*referenceAt(object.block()->object))->withdraw();
}

}  // namespace host
