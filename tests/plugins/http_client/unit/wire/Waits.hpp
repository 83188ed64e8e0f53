// Waits that are over before they begin: the program that this is part of has a poll() of its own.
#pragma once

namespace test_support {

// The next poll() of this program returns 0 at once, as if its time had passed.
void letNextWaitExpire();
// The time-out, in milliseconds, of the poll() that did so.
int expiredWait();

}  // namespace test_support
