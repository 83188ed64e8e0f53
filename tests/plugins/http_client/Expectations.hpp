// What tests of the loaded transport ask of error answers, of creations that fail and of servers
// that answer with what they were asked for.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {

inline constexpr const char* retryLine = "processing a request, will retry once: ";

// A script: every request is answered with its target.
inline void answerWithTarget(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {}, request->target);
  }
}

// Throws where there is none.
inline RecordedRequest lastRequest(const ScriptedServer& server) {
  return server.request(server.requestCount() - 1);
}

// An error answer of the transport's own, whatever its text.
inline void expectError(const Answer& answer) {
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.isError()) << "the answer is the server's";
  EXPECT_EQ(answer.body(), answer.reason());
}

inline void expectError(const Answer& answer, const std::string& text) {
  expectError(answer);
  EXPECT_EQ(answer.reason(), text);
}

// Where the rest of the text is the transport's own choice.
inline void expectErrorNaming(const Answer& answer, std::string_view what) {
  expectError(answer);
  EXPECT_NE(answer.reason().find(what), std::string::npos)
      << '"' << answer.reason() << "\" does not name " << what;
}

// How many lines of that level there are.
inline std::size_t linesOfLevel(const LogDouble& log, int level) {
  std::size_t count = 0;
  for (const LogLine& line : log.lines()) count += line.level == level ? 1 : 0;
  return count;
}

// The text behind "Exception from create: ", at level 2, where no transport is made of this
// configuration; none where one is made. `log`, where given, keeps every line.
inline std::optional<std::string> creationFailure(const Config& config, LogDouble& log) {
  constexpr std::string_view start = "Exception from create: ";
  PluginOptions options;
  options.log = &log;
  options.start = false;
  try {
    const PluginUnderTest plugin(config, options);
    return std::nullopt;
  } catch (const std::runtime_error&) {
    const auto line = log.find(start);
    if (!line.has_value() || line->level != QOR_LOG_ERROR) return "no line of level 2";
    return line->text.substr(line->text.find(start) + start.size());
  }
}

inline std::optional<std::string> creationFailure(const Config& config) {
  LogDouble log;
  return creationFailure(config, log);
}

}  // namespace test_support
