// The control message that asks a transport to flush its queue.
//
// It carries a custom value. The transport keeps it until everything queued before the message is
// done; when it frees the value (the last copy, if it copied it), the flush is complete.
#pragma once

#include <functional>

#include "connectivity/data_t.hpp"

namespace host {

// Called on the thread that frees the flush object; must not throw.
using OnFlushReleased = std::function<void()>;

connectivity::Message makeFlushMessage(OnFlushReleased onReleased);

// Whether the message still holds its flush object; a transport that takes the message moves it
// out.
bool holdsFlushObject(const connectivity::Message& message);

// Has the flush object of a message that the transport did not take end in silence.
void withdrawFlushMessage(connectivity::Message& message);

}  // namespace host
