// What a large body needs is given back when its answer has been delivered.
#include <cstddef>
#include <malloc.h>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/plugins/http_client/PlainOrTls.hpp"
#include "tests/support/Sanitizers.hpp"

namespace test_support {
namespace {

#ifdef BUILT_WITH_A_SANITIZER
constexpr bool countsAllocations = false;
#else
constexpr bool countsAllocations = true;
#endif

// Bytes that this process has allocated and not freed.
std::size_t allocated() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

constexpr std::size_t largeBytes = 40'000'000;

// Rejected at its end, so that the answer holds none of it.
TEST(BodyBuffers, OfALargeResponseAreGivenBack) {
  if (!countsAllocations) GTEST_SKIP() << "this build counts no allocations";
  const std::string body(largeBytes, 'x');
  ScriptedServer server([&](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      connection.sendResponse(200, {}, request->target == "/large" ? body : request->target);
    }
  });
  PluginUnderTest plugin(oneClient(server.port()), terse());
  EXPECT_EQ(plugin.request(Request("GET", "/small")).body(), "/small");
  const std::size_t before = allocated();
  Request large("GET", "/large");
  large.limit(largeBytes / 1000);
  EXPECT_EQ(plugin.request(large).status(), 413);
  // The worker has given back what it had when it takes the next request.
  EXPECT_EQ(plugin.request(Request("GET", "/small")).body(), "/small");
  EXPECT_LT(allocated(), before + largeBytes / 4);
  EXPECT_EQ(server.connectionCount(), 1U);
}

}  // namespace
}  // namespace test_support
