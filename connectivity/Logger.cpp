#include "connectivity/Logger.hpp"

#include <cstring>
#include <stdexcept>

namespace connectivity {

Logger::Format::Format(const char* prefix, const char* format) {
  if (format == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  const std::size_t prefixLength = std::strlen(prefix);
  const std::size_t formatSize = std::strlen(format) + 1;
  if (prefixLength + formatSize > _short.size()) {
    _long.append(prefix).append(format);
    return;
  }
  std::memcpy(_short.data(), prefix, prefixLength);
  std::memcpy(_short.data() + prefixLength, format, formatSize);
}

}  // namespace connectivity
