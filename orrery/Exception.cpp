#include "orrery/Exception.hpp"

namespace orrery {

Exception::Exception(const std::string& message) : std::runtime_error(message) {}
Exception::~Exception() = default;

StreamException::StreamException(const std::string& message) : Exception(message) {}
StreamException::~StreamException() = default;

}  // namespace orrery
