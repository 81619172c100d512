// The whole collection of cached events over real sockets, with two
// processes: a forked child runs the watchdog service, the test's own process
// embeds the service, and both share one sockets directory. What the
// watchdog side saw reaches the embedded side's log listener in order, with
// the times at which it happened, once each.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "e2e/forkedwatchdog.h"
#include "include/qorapi.h"
#include "interfaces/qormsgcache.h"
#include "interfaces/qorsockclient.h"
#include "interfaces/socktest.h"
#include "support/qortest.h"

namespace {

const char kMarker[] = "cachechain: ";

struct Heard {
  time_t when;
  int id;
  std::string text;
};

// The events whose log text carries the test's marker.
class MarkedEvents : public QOR_LogListener {
 public:
  void AlertMe() override {
    char* text = QOR_wcstombs(logData.logMessage);
    const std::string line = text != nullptr ? text : "";
    delete[] text;
    if (line.rfind(kMarker, 0) != 0) return;
    std::lock_guard<std::mutex> lock(mutex_);
    heard_.push_back({logData.eventTime, logData.eventID, line.substr(sizeof kMarker - 1)});
  }
  std::vector<Heard> heard() {
    std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
  }

 private:
  std::mutex mutex_;
  std::vector<Heard> heard_;
};

void raiseEvent(time_t when, int id, const std::wstring& message, const std::string& log) {
  EventData data;
  data.eventTime = when;
  data.eventID = id;
  data.agentName = L"OS Monitoring Agent";
  data.userMessage = message;
  RawEvent event(data);
  event.setLogMessage(qor_mbstowcs((kMarker + log).c_str()));
  event.logMessage();
}

// The watchdog side: caches three events (and an id 0 that it must drop),
// says "ready", raises an id 7 on "go7", and ends on "done".
[[noreturn]] void watchdogChild(const std::string& caps, time_t now, e2e::ForkedWatchdog& test) {
  setenv("QOR_CAP_DIR", caps.c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initWatchdogService();
  service->startQueryService();
  raiseEvent(now - 300, 8, L"first", "first");
  raiseEvent(now - 250, 0, L"added", "added");
  raiseEvent(now - 200, 24, L"a|b", "second|with bar");
  raiseEvent(now - 100, 12, L"", "third");
  if (!e2e::ForkedWatchdog::cached(3, 10000) || !test.say("ready")) _exit(2);
  if (test.readLine() != "go7") _exit(3);
  raiseEvent(now - 50, 7, L"started", "started");
  if (test.readLine() != "done") _exit(4);
  service->releaseQueryService(false);
  _exit(0);
}

TEST(CachedEventsChain, EventsCachedByTheWatchdogReachTheEmbeddedListenersInOrderWithTheirTimesOnce) {
  qortest::TempDir caps;
  qortest::TempDir wdCaps;
  qortest::TempDir work;
  setenv("QOR_IP_DIR", work.path().c_str(), 1);
  setenv("QOR_SOCKET_ANSWER_WAIT", "100", 1);
  unsetenv("QOR_CACHE_LIMIT");
  const time_t now = time(nullptr);
  e2e::ForkedWatchdog child([&](e2e::ForkedWatchdog& test) { watchdogChild(wdCaps.path(), now, test); });
  ASSERT_GT(child.pid(), 0);
  ASSERT_EQ("ready", child.readLine());

  setenv("QOR_CAP_DIR", caps.path().c_str(), 1);
  qortest::traceTo(work.file("trace"), 146);
  MarkedEvents marked;
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  service->registerLogListener(&marked);
  service->startQueryService();  // collects what the watchdog cached
  ASSERT_TRUE(qortest::waitFor([&] { return marked.heard().size() >= 3; }, 10000));
  ASSERT_TRUE(qortest::waitFor([&] { return socktest::listening(work.file(".teo_sock")) == 1; }, 10000));

  // The id 7 makes the watchdog side tell this one to collect again.
  ASSERT_TRUE(child.say("go7"));
  ASSERT_TRUE(qortest::waitFor([&] { return marked.heard().size() >= 4; }, 10000));
  std::string answer;
  EXPECT_EQ(0, sendWDQuery("622 QUERY EVENT_DATA", answer));
  EXPECT_EQ("$$NODATA", answer);

  ASSERT_TRUE(child.say("done"));
  EXPECT_EQ(0, child.wait());

  const std::vector<Heard> heard = marked.heard();
  ASSERT_EQ(4u, heard.size());
  const std::vector<int> ids = {heard[0].id, heard[1].id, heard[2].id, heard[3].id};
  EXPECT_EQ(std::vector<int>({8, 24, 12, 7}), ids);
  const std::vector<time_t> times = {heard[0].when, heard[1].when, heard[2].when, heard[3].when};
  EXPECT_EQ(std::vector<time_t>({now - 300, now - 200, now - 100, now - 50}), times);
  // The "|" inside a text arrived as "/", and the fields behind it kept their places.
  EXPECT_EQ("first", heard[0].text);
  EXPECT_EQ("second/with bar", heard[1].text);
  EXPECT_EQ("third", heard[2].text);
  EXPECT_EQ("started", heard[3].text);
  const std::string trace = qortest::readFile(work.file("trace"));
  EXPECT_EQ(2, qortest::countOccurrences(trace, "no more events in cache to receive."));

  service->deregisterLogListener(&marked);
  service->releaseQueryService(false);
}

}  // namespace
