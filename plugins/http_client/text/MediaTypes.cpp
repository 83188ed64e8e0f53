#include "plugins/http_client/text/MediaTypes.hpp"

namespace connectivity::plugins {

const std::map<std::string, SupportedMediaType> mediaTypes = {
    {noContentEncoding, SupportedMediaType::empty},
    {"identity", SupportedMediaType::identity},
    {"gzip", SupportedMediaType::gzip},
    {"deflate", SupportedMediaType::deflate},
};

SupportedMediaType mediaTypeOf(const std::string& name) noexcept {
  const auto found = mediaTypes.find(name);
  return found == mediaTypes.end() ? SupportedMediaType::unsupported : found->second;
}

}  // namespace connectivity::plugins
