#include "host/status/StatusPage.hpp"

#include <array>
#include <string_view>

#include <openssl/sha.h>

#include "host/messages/Base64.hpp"
#include "host/status/page/PageSources.hpp"

namespace host {

namespace {

// A source expression of Content Security Policy Level 3: 'sha256-<Base64>'.
std::string hashSource(std::string_view text) {
  std::array<char, SHA256_DIGEST_LENGTH> digest{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
         reinterpret_cast<unsigned char*>(digest.data()));
  std::string source = "'sha256-";
  appendBase64({digest.data(), digest.size()}, source);
  return source + "'";
}

void replace(std::string& text, std::string_view mark, std::string_view by) {
  text.replace(text.find(mark), mark.size(), by);
}

}  // namespace

StatusPage statusPage() {
  StatusPage page{std::string(page_sources::html), {}};
  replace(page.document, "/* page.css */", page_sources::css);
  replace(page.document, "/* page.js */", page_sources::js);
  page.policy =
      "default-src 'none'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
      "connect-src 'self'; img-src data:; style-src " +
      hashSource(page_sources::css) + "; script-src " + hashSource(page_sources::js);
  return page;
}

}  // namespace host
