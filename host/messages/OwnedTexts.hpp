// Messages that are kept after the call that brought them.
#pragma once

#include "connectivity/data_t.hpp"

namespace host {

// Makes the message the owner of all its texts. A borrowed text lives only as long as the call that
// a message comes with: where there is one, the message becomes a copy of itself. Any thread.
void ownTexts(connectivity::Message& message);

}  // namespace host
