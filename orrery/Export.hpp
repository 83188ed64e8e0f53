// Marks what liborrery.so exports. Exceptions among it, so that a type thrown in one library is the
// type caught in another.
#pragma once

#define ORRERY_API __attribute__((visibility("default")))
