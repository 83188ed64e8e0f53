// What an exchange keeps of its buffer. This program counts its large blocks: it has an operator
// new of its own.
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <malloc.h>
#include <new>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "plugins/http_client/exchange/Exchange.hpp"
#include "tests/plugins/http_client/unit/exchange/ExchangeParts.hpp"
#include "tests/support/Sanitizers.hpp"
#include "tests/support/ScriptedServer.hpp"

#ifndef BUILT_WITH_A_SANITIZER

namespace {

constexpr std::size_t large = std::size_t{1} << 20U;
std::atomic<int> largeBlocks{0};

}  // namespace

void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  if (malloc_usable_size(block) > large) ++largeBlocks;
  return block;
}
void operator delete(void* block) noexcept {
  if (block != nullptr && malloc_usable_size(block) > large) --largeBlocks;
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

namespace connectivity::plugins {
namespace {

using test_support::Config;
using test_support::Connection;
using test_support::Request;
using test_support::ScriptedServer;

// How many large blocks are there more than before once a response of this size has been performed,
// and its outcome is gone.
int keptAfter(std::size_t size, bool trims) {
  ScriptedServer server([size](Connection& connection) {
    while (connection.readRequest()) connection.sendResponse(200, {}, std::string(size, 'x'));
  });
  ExchangeParts parts{Config(server.port())};
  Exchange exchange(parts.options, parts.cookies, parts.home, parts.log);
  request req = parts.read(Request("GET", "/x"));
  const int before = largeBlocks;
  {
    const Outcome outcome = exchange.handleRequest(req);
    EXPECT_TRUE(outcome.response && outcome.response->payload.size() == size);
  }
  server.stop();
  if (trims) exchange.trim();
  return largeBlocks - before;
}

TEST(ExchangeBuffer, OfALargeResponseIsGivenBackWhenItIsTrimmed) {
  EXPECT_EQ(keptAfter(8 * large, true), 0);
}

TEST(ExchangeBuffer, IsKeptUntilThen) { EXPECT_EQ(keptAfter(8 * large, false), 1); }

TEST(ExchangeBuffer, OfASmallResponseIsNeverLarge) { EXPECT_EQ(keptAfter(1000, false), 0); }

}  // namespace
}  // namespace connectivity::plugins

#endif
