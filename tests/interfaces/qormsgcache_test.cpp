// The watchdog process's event cache on its own: what it keeps, for how long,
// the record it hands out, and what it never hands out. Events go in through
// the listener as the message handler would give them.
#include "interfaces/qormsgcache.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "interfaces/qorsockclient.h"
#include "interfaces/qorsockserv.h"
#include "interfaces/socktest.h"
#include "support/controlleraccess.h"
#include "support/qortest.h"

namespace {

RawEvent* eventAt(time_t when, int id, const std::wstring& message = L"msg",
                  const std::wstring& log = L"log text") {
  EventData data;
  data.eventTime = when;
  data.eventID = id;
  data.agentName = L"OS Monitoring Agent";
  data.operatingState = 4;
  data.managedState = 1;
  data.instanceProcName = L"qbagent";
  data.agentType = 0;
  data.osType = 2;
  data.procID = 4711;
  data.userMessage = message;
  RawEvent* event = new RawEvent(data);
  event->setLogMessage(log);
  return event;
}

// The record's fields, split at each "|".
std::vector<std::string> fieldsOf(const std::string& record) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t bar = record.find('|'); bar != std::string::npos; bar = record.find('|', start)) {
    fields.push_back(record.substr(start, bar - start));
    start = bar + 1;
  }
  return fields;
}

// The start of a fresh second, so that a test's few steps see one `now`.
time_t freshSecond() {
  const time_t start = time(nullptr);
  time_t now = start;
  while (now == start) now = time(nullptr);
  return now;
}

// A cache the listener fills, on a sockets dir where nobody listens.
class MessageCache : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("QOR_CACHE_LIMIT");
    setenv("QOR_IP_DIR", work.path().c_str(), 1);
    SOCKET_ANSWER_CYCLES = 2;
    SOCKET_ANSWER_CYCLE_MS = 10;
    ControllerTestAccess::setWDCache(&cache);
  }
  void TearDown() override { ControllerTestAccess::setWDCache(nullptr); }
  size_t cleanedCount() {
    EXPECT_TRUE(cache.lockCache());
    cache.CleanupExpiredEvents();
    cache.unlockCache();
    return cache.cachedCount();
  }
  std::vector<int> poppedIds() {
    std::vector<int> ids;
    std::string record;
    while (cache.popCachedEvent(record)) ids.push_back(atoi(fieldsOf(record).at(10).c_str()));
    return ids;
  }
  qortest::TempDir work;
  Message_Cache cache;
};

TEST_F(MessageCache, AnUnsetCacheLimitKeepsEventsForTwentyFourHours) {
  EXPECT_EQ(86400, Message_Cache::ageLimitSeconds());
  const time_t now = freshSecond();
  Message_Cache::Listener(eventAt(now - 86400, 8));
  EXPECT_EQ(1u, cleanedCount());
  poppedIds();
  Message_Cache::Listener(eventAt(now - 86401, 8));
  EXPECT_EQ(0u, cleanedCount());
}

TEST_F(MessageCache, ALimitOfOneHourExpiresOlderThan3600SecondsButNotExactly3600) {
  setenv("QOR_CACHE_LIMIT", "1", 1);
  EXPECT_EQ(3600, Message_Cache::ageLimitSeconds());
  const time_t now = freshSecond();
  Message_Cache::Listener(eventAt(now - 3600, 8));
  EXPECT_EQ(1u, cleanedCount());
  EXPECT_EQ(std::vector<int>({8}), poppedIds());
  Message_Cache::Listener(eventAt(now - 3601, 9));
  EXPECT_EQ(0u, cleanedCount());
}

TEST_F(MessageCache, ALimitOfZeroExpiresAnythingOlderThanThePresentSecond) {
  setenv("QOR_CACHE_LIMIT", "0", 1);
  EXPECT_EQ(0, Message_Cache::ageLimitSeconds());
  const time_t now = freshSecond();
  Message_Cache::Listener(eventAt(now, 8));
  EXPECT_EQ(1u, cleanedCount());
  poppedIds();
  Message_Cache::Listener(eventAt(now - 1, 8));
  EXPECT_EQ(0u, cleanedCount());
}

TEST_F(MessageCache, ACacheLimitWithAnythingButDigitsLeavesTwentyFourHours) {
  for (const char* value : {"1h", "abc", "-1", " 2"}) {
    setenv("QOR_CACHE_LIMIT", value, 1);
    EXPECT_EQ(86400, Message_Cache::ageLimitSeconds()) << value;
  }
  setenv("QOR_CACHE_LIMIT", "x1", 1);
  const time_t now = freshSecond();
  Message_Cache::Listener(eventAt(now - 7200, 8));
  EXPECT_EQ(1u, cleanedCount());
}

TEST_F(MessageCache, AnEmptyCacheAnswersNoDataAndThePopLeavesTheStringAsItWas) {
  std::string record = "untouched";
  EXPECT_FALSE(cache.popCachedEvent(record));
  EXPECT_EQ("untouched", record);
  WatchdogSocketServer server;
  char request[] = "622 QUERY EVENT_DATA";
  EXPECT_EQ("$$NODATA", server.executeQuery(request, Controller::getController()));
  ControllerTestAccess::setWDCache(nullptr);
  char again[] = "622 QUERY EVENT_DATA";
  EXPECT_EQ("$$NODATA", server.executeQuery(again, Controller::getController()));
}

TEST_F(MessageCache, APopThatFindsOnlyExpiredEventsLeavesTheStringAsItWas) {
  Message_Cache::Listener(eventAt(time(nullptr) - 7200, 8));
  setenv("QOR_CACHE_LIMIT", "1", 1);
  std::string record = "untouched";
  EXPECT_FALSE(cache.popCachedEvent(record));
  EXPECT_EQ("untouched", record);
  EXPECT_EQ(0u, cache.cachedCount());
}

TEST_F(MessageCache, EventsComeOutOldestFirstThroughTheWatchdogSocketQuery) {
  const time_t now = time(nullptr);
  Message_Cache::Listener(eventAt(now - 30, 8));
  Message_Cache::Listener(eventAt(now - 20, 24));
  Message_Cache::Listener(eventAt(now - 10, 12));
  WatchdogSocketServer server;
  std::vector<int> ids;
  for (int i = 0; i < 4; ++i) {
    char request[] = "622 QUERY EVENT_DATA";
    const std::string answer = server.executeQuery(request, Controller::getController());
    if (answer == "$$NODATA") break;
    ids.push_back(atoi(fieldsOf(answer).at(10).c_str()));
  }
  EXPECT_EQ(std::vector<int>({8, 24, 12}), ids);
}

TEST_F(MessageCache, ThePoppedRecordHasThirteenFieldsInTheirOrder) {
  const time_t when = time(nullptr) - 5;
  Message_Cache::Listener(eventAt(when, 24, L"Agent down.", L"OS Monitoring Agent Operational Event: down"));
  std::string record;
  ASSERT_TRUE(cache.popCachedEvent(record));
  EXPECT_EQ(formatWireDate(when) +
                "|OS Monitoring Agent|4|1|qbagent|0|2| |4711|-1|24|Agent down.|"
                "OS Monitoring Agent Operational Event: down|",
            record);
}

TEST_F(MessageCache, AnEmptyUserMessageTravelsAsOneBlank) {
  Message_Cache::Listener(eventAt(time(nullptr), 8, L""));
  std::string record;
  ASSERT_TRUE(cache.popCachedEvent(record));
  ASSERT_EQ(13u, fieldsOf(record).size()) << record;
  EXPECT_EQ(" ", fieldsOf(record)[11]);
}

TEST_F(MessageCache, ABarInsideATextIsSentAsASlashSoTheRecordKeepsItsFields) {
  Message_Cache::Listener(eventAt(time(nullptr), 8, L"a|b||c", L"log|text"));
  std::string record;
  ASSERT_TRUE(cache.popCachedEvent(record));
  const std::vector<std::string> fields = fieldsOf(record);
  ASSERT_EQ(13u, fields.size()) << record;
  EXPECT_EQ("a/b//c", fields[11]);
  EXPECT_EQ("log/text", fields[12]);
  EXPECT_EQ("8", fields[10]);
}

TEST_F(MessageCache, AnAgentAddedEventIsNeverCached) {
  Message_Cache::Listener(eventAt(time(nullptr), 0));
  Message_Cache::Listener(eventAt(time(nullptr), 8));
  Message_Cache::Listener(eventAt(time(nullptr), 0));
  EXPECT_EQ(std::vector<int>({8}), poppedIds());
}

TEST_F(MessageCache, AnAgentStartedEventWithTheEmbeddedServiceDownStaysCached) {
  qortest::traceTo(work.file("trace"), 146);
  Message_Cache::Listener(eventAt(time(nullptr), 7));
  EXPECT_EQ(1u, cache.cachedCount());
  // The listener's signal found nobody: the one connect failure in the trace.
  const std::string trace = qortest::readFile(work.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Error executing connect"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "push event onto cache 7"));
  EXPECT_EQ(3, sendTEOCommand("622 EVENT_DATA"));
  EXPECT_EQ(std::vector<int>({7}), poppedIds());
}

TEST_F(MessageCache, FiveThousandEventsHalfExpiredLoseExactlyTheExpiredHalf) {
  const time_t now = time(nullptr);
  for (int i = 0; i < 2500; ++i) Message_Cache::Listener(eventAt(now - 7200, 100 + i % 50));
  for (int i = 0; i < 2500; ++i) Message_Cache::Listener(eventAt(now, 200));
  EXPECT_EQ(5000u, cache.cachedCount());
  setenv("QOR_CACHE_LIMIT", "1", 1);
  EXPECT_EQ(2500u, cleanedCount());
  const std::vector<int> ids = poppedIds();
  EXPECT_EQ(std::vector<int>(2500, 200), ids);
}

TEST_F(MessageCache, AnExpiredEntryTakesItsSuccessorWithIt) {
  const time_t now = time(nullptr);
  for (int id : {101, 102, 103}) Message_Cache::Listener(eventAt(now - 7200, id));
  for (int id : {201, 202, 203}) Message_Cache::Listener(eventAt(now, id));
  setenv("QOR_CACHE_LIMIT", "1", 1);
  // 101 takes 102; 103 takes 201, young as it is.
  EXPECT_EQ(std::vector<int>({202, 203}), poppedIds());
}

TEST_F(MessageCache, AnExpiredLastEntryEndsTheWalk) {
  const time_t now = time(nullptr);
  Message_Cache::Listener(eventAt(now, 201));
  Message_Cache::Listener(eventAt(now - 7200, 101));
  setenv("QOR_CACHE_LIMIT", "1", 1);
  EXPECT_EQ(1u, cleanedCount());
  EXPECT_EQ(1u, cleanedCount());
  EXPECT_EQ(std::vector<int>({201}), poppedIds());
}

TEST_F(MessageCache, ClearingTheCacheDeletesEveryEvent) {
  for (int i = 0; i < 10; ++i) Message_Cache::Listener(eventAt(time(nullptr), 8));
  cache.ClearCache();
  EXPECT_EQ(0u, cache.cachedCount());
}

TEST_F(MessageCache, AnEventTakenAndPutBackComesOutFirstAgainInItsPlace) {
  const time_t now = time(nullptr);
  Message_Cache::Listener(eventAt(now - 30, 8));
  Message_Cache::Listener(eventAt(now - 20, 24));
  Message_Cache::Listener(eventAt(now - 10, 12));
  std::string record;
  Event* taken = cache.takeCachedEvent(record);
  ASSERT_NE(nullptr, taken);
  EXPECT_EQ("8", fieldsOf(record).at(10));
  EXPECT_EQ(2u, cache.cachedCount());
  cache.putBackCachedEvent(taken);
  EXPECT_EQ(std::vector<int>({8, 24, 12}), poppedIds());
  std::string untouched = "untouched";
  EXPECT_EQ(nullptr, cache.takeCachedEvent(untouched));
  EXPECT_EQ("untouched", untouched);
}

// The collector is gone before the answer can be written: the record never
// left this process, so its event must wait for the next collection.
TEST_F(MessageCache, AnEventWhoseAnswerFoundTheCollectorGoneIsPutBackAndDeliveredNext) {
  qortest::traceTo(work.file("trace"), 1 | 2 | 16 | 128);
  const time_t now = time(nullptr);
  Message_Cache::Listener(eventAt(now - 30, 8));
  Message_Cache::Listener(eventAt(now - 20, 24));
  WatchdogSocketServer server;
  socktest::ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  auto trace = [&] { return qortest::readFile(work.file("trace")); };
  // With the cache locked the server holds the request it has read, so the
  // collector can go before the answer exists.
  ASSERT_TRUE(cache.lockCache());
  const int collector = socktest::connectTo(server.getSocketPath());
  ASSERT_GE(collector, 0);
  ASSERT_EQ(20, send(collector, "622 QUERY EVENT_DATA", 20, MSG_NOSIGNAL));
  const bool read = qortest::waitFor(
      [&] {
        return qortest::countOccurrences(trace(), "Socket received command: 622 QUERY EVENT_DATA") == 1;
      },
      5000);
  close(collector);
  cache.unlockCache();
  ASSERT_TRUE(read) << trace();
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return qortest::countOccurrences(trace(),
                                         "Event 8 not delivered: put back at the head of the cache.\n") == 1;
      },
      5000))
      << trace();
  EXPECT_EQ(1,
            qortest::countOccurrences(trace(), "Error executing send response - errno = 32, Broken pipe\n"));
  EXPECT_EQ(2u, cache.cachedCount());
  // The next collector gets it first, and each event once.
  std::vector<int> ids;
  for (int i = 0; i < 3; ++i) {
    const std::string answer = socktest::answerTo(server.getSocketPath(), "622 QUERY EVENT_DATA");
    if (answer == "$$NODATA") break;
    ids.push_back(atoi(fieldsOf(answer).at(10).c_str()));
  }
  EXPECT_EQ(std::vector<int>({8, 24}), ids);
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "not delivered"));
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST(RecordTokens, RunsOfBarsAreOneSeparatorAndEachReaderKeepsItsPlace) {
  char first[] = "a||b|c|";
  char second[] = "|x|";
  RecordTokens one(first);
  RecordTokens two(second);
  EXPECT_STREQ("a", one.next());
  EXPECT_STREQ("x", two.next());
  EXPECT_STREQ("b", one.next());
  EXPECT_EQ(nullptr, two.next());
  EXPECT_STREQ("c", one.next());
  EXPECT_EQ(nullptr, one.next());
}

}  // namespace
