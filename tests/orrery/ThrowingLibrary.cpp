// A library of its own that throws the exceptions of liborrery.so.
#include "orrery/Exception.hpp"

extern "C" {
ORRERY_API void throw_exception(const char* text);
ORRERY_API void throw_stream_exception(const char* text);
}

void throw_exception(const char* text) { throw orrery::Exception(text); }
void throw_stream_exception(const char* text) { throw orrery::StreamException(text); }
