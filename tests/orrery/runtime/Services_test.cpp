// Logging, status items and questions to the host through the C interface.
#include <array>
#include <cerrno>
#include <map>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connectivity/qor_plugin.h"
#include "orrery/Platform.hpp"
#include "tests/orrery/RecordingLog.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

// --- The log -------------------------------------------------------------------------------------

TEST(RuntimeLog, HandsFormattedLinesToTheHost) {
  const RecordingLog log;
  qor_log_at("category", QOR_LOG_WARN, "%s is %d%%", "load", 97);
  EXPECT_THAT(log.lines(),
              ElementsAre(RecordingLog::Line{"category", QOR_LOG_WARN, "load is 97%"}));
}

TEST(RuntimeLog, AsksTheHostForTheLevelOfACategory) {
  const RecordingLog log;
  EXPECT_EQ(qor_get_log_level("quiet"), QOR_LOG_ERROR);
  EXPECT_EQ(qor_get_log_level("other"), QOR_LOG_TRACE);
}

TEST(RuntimeLog, HandsOverLinesOfEveryLevel) {
  const RecordingLog log;
  qor_log_at("quiet", QOR_LOG_TRACE, "%s", "said all the same");
  EXPECT_EQ(log.onlyText(), "said all the same");
}

TEST(RuntimeLog, ALineStaysALineWhateverItsTextHolds) {
  const RecordingLog log;
  qor_log_at("category", QOR_LOG_INFO, "%s", "one\r\ntwo\tthree\x1B[2J\x01\x7F end\n");
  EXPECT_EQ(log.onlyText(), "one\\r\\ntwo\\tthree\\x1b[2J\\x01\\x7f end\\n");
}

TEST(RuntimeLog, TextBeyondAsciiIsLeftAlone) {
  const RecordingLog log;
  qor_log_at("category", QOR_LOG_INFO, "%s", "gr\xC3\xBC\xC3\x9F");
  EXPECT_EQ(log.onlyText(), "gr\xC3\xBC\xC3\x9F");
}

TEST(RuntimeLog, LinesOfAnyLengthAreWhole) {
  for (const std::size_t length : {511U, 512U, 513U, 100'000U}) {
    const RecordingLog log;
    const std::string text(length, 'x');
    qor_log_at("category", QOR_LOG_INFO, "%s", text.c_str());
    EXPECT_EQ(log.onlyText(), text);
  }
}

TEST(RuntimeLog, LeavesErrnoAsItWas) {
  const qor_log_services_t services{nullptr, nullptr,
                                    [](void*, const char*, int, const char*) { errno = ERANGE; }};
  qor_set_log_services(&services);
  errno = ENOENT;
  qor_log_at("category", QOR_LOG_INFO, "line");
  const int after = errno;
  qor_set_log_services(nullptr);
  EXPECT_EQ(after, ENOENT);
}

TEST(RuntimeLog, TakesLinesFromSeveralThreads) {
  const RecordingLog log;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int line = 0; line < 50; ++line) qor_log_at("category", QOR_LOG_INFO, "%d", line);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(log.lines().size(), 200U);
}

// Standard error as a socket that keeps writes apart: one packet for each.
class StandardErrorPackets {
 public:
  StandardErrorPackets() : _saved(dup(STDERR_FILENO)) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()) != 0) return;
    _reader = ends[0];
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
  }
  ~StandardErrorPackets() {
    restore();
    close(_reader);
    close(_saved);
  }
  StandardErrorPackets(const StandardErrorPackets&) = delete;
  StandardErrorPackets& operator=(const StandardErrorPackets&) = delete;

  // Everything written, one string for each write; standard error is itself again afterwards.
  std::vector<std::string> take() {
    restore();
    std::vector<std::string> packets;
    std::array<char, 4096> packet{};
    for (;;) {
      const ssize_t length = recv(_reader, packet.data(), packet.size(), MSG_DONTWAIT);
      if (length <= 0) return packets;
      packets.emplace_back(packet.data(), static_cast<std::size_t>(length));
    }
  }

 private:
  void restore() { dup2(_saved, STDERR_FILENO); }
  const int _saved;
  int _reader = -1;
};

class StandingClock final : public orrery::Clock {
 public:
  explicit StandingClock(std::int64_t milliseconds) : _milliseconds(milliseconds) {
    orrery::Platform::replaceClock(this);
  }
  ~StandingClock() override { orrery::Platform::replaceClock(nullptr); }
  StandingClock(const StandingClock&) = delete;
  StandingClock& operator=(const StandingClock&) = delete;
  double relativeHighResTimeFloat() const noexcept override { return 0; }
  std::int64_t sysTime() const noexcept override { return _milliseconds; }

 private:
  const std::int64_t _milliseconds;
};

TEST(RuntimeLogWithoutHost, WritesOneLineToStandardErrorInOneCall) {
  const StandingClock clock(1'769'860'800'123);
  StandardErrorPackets written;
  qor_log_at("connectivity.shop.orders", QOR_LOG_INFO, "<%s> Created %d", "name", 4);
  EXPECT_THAT(written.take(), ElementsAre("2026-01-31T12:00:00.123Z INFO  "
                                          "[connectivity.shop.orders] <name> Created 4\n"));
}

TEST(RuntimeLogWithoutHost, NamesTheLevels) {
  const StandingClock clock(0);
  StandardErrorPackets written;
  qor_log_at("c", QOR_LOG_ERROR, "e");
  qor_log_at("c", QOR_LOG_WARN, "w");
  EXPECT_THAT(written.take(), ElementsAre("1970-01-01T00:00:00.000Z ERROR [c] e\n",
                                          "1970-01-01T00:00:00.000Z WARN  [c] w\n"));
}

TEST(RuntimeLogWithoutHost, WantsLinesUpToInformationLevel) {
  StandardErrorPackets written;
  EXPECT_EQ(qor_get_log_level("any"), QOR_LOG_INFO);
  qor_log_at("c", QOR_LOG_DEBUG, "unwanted");
  qor_log_at("c", QOR_LOG_TRACE, "unwanted");
  EXPECT_THAT(written.take(), IsEmpty());
}

TEST(RuntimeLogWithoutHost, EscapesControlCharactersInTextAndCategory) {
  const StandingClock clock(0);
  StandardErrorPackets written;
  qor_log_at("c\nd", QOR_LOG_ERROR, "%s", "a\nb");
  EXPECT_THAT(written.take(), ElementsAre("1970-01-01T00:00:00.000Z ERROR [c\\nd] a\\nb\n"));
}

// --- Status items --------------------------------------------------------------------------------

// A host's status table; a host item is the address of its key.
class StatusTable {
 public:
  StatusTable() : _services{this, create, set, remove} {}
  void* handle() { return &_services; }
  const std::map<std::string, std::string>& items() const { return _items; }

 private:
  static void* create(void* context, const char* key, const char* text) {
    auto* self = static_cast<StatusTable*>(context);
    const auto [item, isNew] = self->_items.emplace(key, text);
    return isNew ? const_cast<std::string*>(&item->first) : nullptr;
  }
  static void set(void* context, void* item, const char* text) {
    static_cast<StatusTable*>(context)->_items[*static_cast<std::string*>(item)] = text;
  }
  static void remove(void* context, void* item) {
    auto& items = static_cast<StatusTable*>(context)->_items;
    items.erase(items.find(*static_cast<std::string*>(item)));
  }

  qor_status_services_t _services;
  std::map<std::string, std::string> _items;
};

TEST(RuntimeStatus, AnItemIsCreatedSetAndRemovedAtTheHost) {
  StatusTable table;
  void* item = qor_create_user_status_item(table.handle(), "key", "0");
  ASSERT_NE(item, nullptr);
  EXPECT_THAT(table.items(), ElementsAre(Pair("key", "0")));
  qor_set_user_status_item(item, "1");
  EXPECT_THAT(table.items(), ElementsAre(Pair("key", "1")));
  qor_delete_user_status_item(item);
  EXPECT_THAT(table.items(), IsEmpty());
}

TEST(RuntimeStatus, AKeyThatIsTakenGivesNull) {
  StatusTable table;
  void* item = qor_create_user_status_item(table.handle(), "key", "0");
  EXPECT_EQ(qor_create_user_status_item(table.handle(), "key", "1"), nullptr);
  EXPECT_THAT(table.items(), ElementsAre(Pair("key", "0")));
  qor_delete_user_status_item(item);
}

TEST(RuntimeStatus, WithoutAHostItemsAreKeptUnseen) {
  void* item = qor_create_user_status_item(nullptr, "key", "0");
  ASSERT_NE(item, nullptr);
  qor_set_user_status_item(item, "1");
  qor_delete_user_status_item(item);
}

TEST(RuntimeStatus, DeletingNothingDoesNothing) { qor_delete_user_status_item(nullptr); }

// --- Questions to the host -----------------------------------------------------------------------

struct Host {
  int enableResult = 0;
  int shuttingDownResult = 0;
  bool shuttingDown = false;
  int enabled = 0;
  std::vector<bool> batchWaits;
  qor_host_services_t services{this, enable, isShuttingDown, noteBatchWaits};

  static int enable(void* context) {
    ++static_cast<Host*>(context)->enabled;
    return static_cast<Host*>(context)->enableResult;
  }
  static int isShuttingDown(void* context, bool* answer) {
    *answer = static_cast<Host*>(context)->shuttingDown;
    return static_cast<Host*>(context)->shuttingDownResult;
  }
  static void noteBatchWaits(void* context, bool waiting) {
    static_cast<Host*>(context)->batchWaits.push_back(waiting);
  }
};

TEST(RuntimeHost, FlushMessagesAreEnabledAtTheHost) {
  Host host;
  EXPECT_EQ(qor_enable_queue_flush_messages(&host.services), 0);
  EXPECT_EQ(host.enabled, 1);
  host.enableResult = 5;
  EXPECT_EQ(qor_enable_queue_flush_messages(&host.services), 5);
}

TEST(RuntimeHost, AnswersWhetherItIsShuttingDown) {
  Host host;
  bool answer = true;
  EXPECT_EQ(qor_is_host_shutting_down(&host.services, &answer), 0);
  EXPECT_FALSE(answer);
  host.shuttingDown = true;
  EXPECT_EQ(qor_is_host_shutting_down(&host.services, &answer), 0);
  EXPECT_TRUE(answer);
}

TEST(RuntimeHost, AFailedQuestionLeavesTheAnswerUntouched) {
  Host host;
  host.shuttingDown = true;
  host.shuttingDownResult = 3;
  bool answer = false;
  EXPECT_EQ(qor_is_host_shutting_down(&host.services, &answer), 3);
  EXPECT_FALSE(answer);
}

TEST(RuntimeHost, IsToldWhetherABatchWaits) {
  Host host;
  qor_report_batch_waits(&host.services, true);
  EXPECT_EQ(host.batchWaits, std::vector<bool>{true});
  qor_report_batch_waits(&host.services, false);
  EXPECT_EQ(host.batchWaits, (std::vector<bool>{true, false}));
}

TEST(RuntimeHost, ThatIsNotThereSucceedsAndIsNotShuttingDown) {
  for (qor_host_services_t none{};
       void* handle : {static_cast<void*>(nullptr), static_cast<void*>(&none)}) {
    bool answer = true;
    EXPECT_EQ(qor_enable_queue_flush_messages(handle), 0);
    EXPECT_EQ(qor_is_host_shutting_down(handle, &answer), 0);
    EXPECT_FALSE(answer);
    qor_report_batch_waits(handle, true);  // told to nobody
  }
}

}  // namespace
