// The hash of texts: XXH3 (64 bits, github.com/Cyan4973/xxHash) with a secret that each process
// draws at random, so that nobody outside can choose texts whose hashes collide.
//
// All of the secret is random bytes. A seed would not do as well: it only adds itself to, or
// subtracts itself from, each word of a published secret.
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <sys/auxv.h>
#include <sys/random.h>
#include <system_error>
#include <xxhash.h>

#include "connectivity/qor_plugin.h"
#include "orrery/runtime/Blocks.hpp"

namespace runtime {

namespace {

class TextHash {
 public:
  TextHash() noexcept {
    const char* const given = std::getenv("ORRERY_HASH_SEED");
    const bool isGiven = given != nullptr && *given != '\0';
    const std::optional<long long> seed = isGiven ? integerIn(given) : std::nullopt;
    // Not through the log: whoever takes its lines may hash texts, and would wait for this.
    if (isGiven && !seed) {
      reportOnStandardError(QOR_LOG_WARN, "ORRERY_HASH_SEED is not an integer and is ignored");
    }
    if (!seed) {
      draw();
    } else {
      _isKeyed = *seed != 0;
      fillFrom(&*seed, sizeof(*seed));
    }
  }

  std::uint64_t of(const char* text) const noexcept {
    const std::size_t length = std::strlen(text);
    return _isKeyed ? XXH3_64bits_withSecret(text, length, _secret.data(), sizeof(_secret))
                    : XXH3_64bits(text, length);
  }

 private:
  static std::optional<long long> integerIn(std::string_view text) noexcept {
    long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
  }

  void draw() noexcept {
    ssize_t drawn = 0;
    do {
      drawn = ::getrandom(_secret.data(), sizeof(_secret), 0);
    } while (drawn < 0 && errno == EINTR);
    if (drawn == static_cast<ssize_t>(sizeof(_secret))) return;
    // A sandbox may forbid the call. The kernel also gives each program that it starts 16 bytes.
    constexpr std::size_t bytesAtStart = 16;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): that is how the kernel hands it over
    fillFrom(reinterpret_cast<const void*>(::getauxval(AT_RANDOM)), bytesAtStart);
  }
  void fillFrom(const void* bytes, std::size_t size) noexcept {
    std::uint64_t number = 0;
    for (std::uint64_t& word : _secret) word = XXH3_64bits_withSeed(bytes, size, ++number);
  }

  bool _isKeyed = true;
  std::array<std::uint64_t, 24> _secret{};  // as long as the published one
};

}  // namespace

}  // namespace runtime

uint64_t qor_hash_string(const char* text) {
  static const runtime::TextHash hash;
  return hash.of(text);
}
