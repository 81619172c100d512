// The embedded side's collection of what the watchdog process cached, against
// a stand-in for that process's socket: each record becomes a RawEvent on the
// message queue with the fields it carried (the OS version always left out),
// a short record still goes out, and a missing, silent or empty answer ends
// the collection with nothing more asked.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "interfaces/qormsgcache.h"
#include "interfaces/qorsockclient.h"
#include "interfaces/qorsockserv.h"
#include "support/qortest.h"

namespace {

// Stands in for the watchdog process on `.teo_wd_sock`: each connection gets
// the next of `answers` and is closed; an empty answer closes with no byte.
// When they are used up, every connection gets "$$NODATA".
class CachedEventsServer {
 public:
  CachedEventsServer(const std::string& path, const std::vector<std::string>& answers) : answers_(answers) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(0, bind(fd_, reinterpret_cast<struct sockaddr*>(&address), sizeof address)) << path;
    EXPECT_EQ(0, listen(fd_, 4));
    thread_ = std::thread([this] { serve(); });
  }
  ~CachedEventsServer() {
    stopping_ = true;
    thread_.join();
    close(fd_);
  }
  CachedEventsServer(const CachedEventsServer&) = delete;
  CachedEventsServer& operator=(const CachedEventsServer&) = delete;

  std::vector<std::string> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    size_t next = 0;
    while (!stopping_) {
      struct pollfd wait = {fd_, POLLIN, 0};
      if (poll(&wait, 1, 50) <= 0) continue;
      const int client = accept(fd_, nullptr, nullptr);
      if (client < 0) continue;
      char buffer[512];
      const ssize_t got = recv(client, buffer, sizeof buffer, 0);
      {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string());
      }
      const std::string answer = next < answers_.size() ? answers_[next++] : "$$NODATA";
      if (!answer.empty()) send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      close(client);
    }
  }

  int fd_ = -1;
  std::vector<std::string> answers_;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

// The message queue of the process, with nobody reading it: the test takes
// what the collection put there.
std::vector<RawEvent*> queued() {
  std::vector<RawEvent*> events;
  EventHandler* queue = Controller::getController()->getMessageHandler();
  queue->lockEventQueue();
  while (Event* event = queue->popEvent()) {
    RawEvent* raw = dynamic_cast<RawEvent*>(event);
    EXPECT_NE(nullptr, raw) << event->getEventTypeID();
    if (raw != nullptr) {
      events.push_back(raw);
    } else {
      delete event;
    }
  }
  queue->unlockEventQueue();
  return events;
}

void release(const std::vector<RawEvent*>& events) {
  for (RawEvent* event : events) delete event;
}

EventData sample(time_t when) {
  EventData data;
  data.eventTime = when;
  data.agentName = L"Embedding host";
  data.operatingState = 4;
  data.managedState = 2;
  data.instanceProcName = L"qorhost";
  data.agentType = 1;
  data.osType = 2;
  data.osVersion = L"12.5";
  data.procID = 4711;
  data.spareValue = -1;
  data.eventID = 8;
  data.userMessage = L"N/A";
  return data;
}

class CollectedEvents : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QOR_IP_DIR", work.path().c_str(), 1);
    SOCKET_ANSWER_CYCLES = 20;
    SOCKET_ANSWER_CYCLE_MS = 10;
    qortest::traceTo(work.file("trace"), 146 | 128);
    release(queued());
  }
  std::string socket() { return work.file(".teo_wd_sock"); }
  std::string trace() { return qortest::readFile(work.file("trace")); }

  qortest::TempDir work;
};

TEST_F(CollectedEvents, EachRecordBecomesARawEventWithItsFieldsAndTimeButNeverTheOSVersion) {
  const time_t when = time(nullptr) - 3600;
  EventData second = sample(when + 2);
  second.eventID = 24;
  second.operatingState = 3;
  second.procID = 0;
  CachedEventsServer server(socket(),
                            {formatEventRecord(sample(when),
                                               L"Embedding host Operational Event: Agent stopped "
                                               L"abnormally."),
                             formatEventRecord(second,
                                               L"Embedding host Operational Event: Agent start after "
                                               L"failure")});
  Message_Cache::receiveCachedEvents();

  EXPECT_EQ(3u, server.requests().size());
  for (const std::string& request : server.requests())
    EXPECT_NE(std::string::npos, request.find("622 QUERY EVENT_DATA")) << request;
  std::vector<RawEvent*> events = queued();
  ASSERT_EQ(2u, events.size());
  EventData data;
  events[0]->getEventData(data);
  EXPECT_EQ(8, events[0]->getEventTypeID());
  EXPECT_EQ(when, events[0]->getEventTime());
  EXPECT_EQ(when, data.eventTime);
  EXPECT_EQ(L"Embedding host", data.agentName);
  EXPECT_EQ(4, data.operatingState);
  EXPECT_EQ(2, data.managedState);
  EXPECT_EQ(L"qorhost", data.instanceProcName);
  EXPECT_EQ(1, data.agentType);
  EXPECT_EQ(2, data.osType);
  EXPECT_EQ(L"", data.osVersion);
  EXPECT_EQ(4711, data.procID);
  EXPECT_EQ(-1, data.spareValue);
  EXPECT_EQ(8, data.eventID);
  EXPECT_EQ(L"N/A", data.userMessage);
  EXPECT_EQ(L"Embedding host Operational Event: Agent stopped abnormally.", events[0]->getLogMessage());

  events[1]->getEventData(data);
  EXPECT_EQ(24, events[1]->getEventTypeID());
  EXPECT_EQ(when + 2, data.eventTime);
  EXPECT_EQ(3, data.operatingState);
  EXPECT_EQ(0, data.procID);
  EXPECT_EQ(L"", data.osVersion);
  EXPECT_EQ(L"Embedding host Operational Event: Agent start after failure", events[1]->getLogMessage());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "no more events in cache to receive.\n"));
  release(events);
}

TEST_F(CollectedEvents, ATextSentAsOneBlankComesBackAsOneBlank) {
  EventData data = sample(time(nullptr));
  data.instanceProcName = L"";
  data.userMessage = L"";
  CachedEventsServer server(socket(), {formatEventRecord(data, L"")});
  Message_Cache::receiveCachedEvents();

  std::vector<RawEvent*> events = queued();
  ASSERT_EQ(1u, events.size());
  EventData received;
  events[0]->getEventData(received);
  EXPECT_EQ(L" ", received.instanceProcName);
  EXPECT_EQ(L" ", received.userMessage);
  EXPECT_EQ(L" ", events[0]->getUserMessage());
  EXPECT_EQ(L" ", events[0]->getLogMessage());
  release(events);
}

TEST_F(CollectedEvents, ARecordWithTooFewFieldsIsDeliveredWithTheRestAtTheirDefaults) {
  const time_t when = time(nullptr) - 60;
  CachedEventsServer server(socket(), {formatWireDate(when) + "|Short record|4|"});
  Message_Cache::receiveCachedEvents();

  std::vector<RawEvent*> events = queued();
  ASSERT_EQ(1u, events.size());
  EventData data;
  events[0]->getEventData(data);
  EXPECT_EQ(when, data.eventTime);
  EXPECT_EQ(L"Short record", data.agentName);
  EXPECT_EQ(4, data.operatingState);
  EXPECT_EQ(-1, data.managedState);
  EXPECT_EQ(L"", data.instanceProcName);
  EXPECT_EQ(-1, data.agentType);
  EXPECT_EQ(-1, data.osType);
  EXPECT_EQ(-1, data.procID);
  EXPECT_EQ(0, data.eventID);
  EXPECT_EQ(L"", data.userMessage);
  EXPECT_EQ(L"", events[0]->getLogMessage());
  // And the collection went on to the end of the cache.
  EXPECT_EQ(2u, server.requests().size());
  release(events);
}

TEST_F(CollectedEvents, WithNoWatchdogProcessNothingIsCollectedAndTheTraceSaysWhy) {
  Message_Cache::receiveCachedEvents();
  EXPECT_TRUE(queued().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "error retrieving event data: 3 \n")) << trace();
}

TEST_F(CollectedEvents, AnAnswerClosedWithoutAByteEndsTheCollectionWithSix) {
  EventData data = sample(time(nullptr));
  CachedEventsServer server(socket(), {"", formatEventRecord(data, L"never asked for")});
  Message_Cache::receiveCachedEvents();

  EXPECT_TRUE(queued().empty());
  EXPECT_EQ(1u, server.requests().size());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "error retrieving event data: 6 \n")) << trace();
}

TEST_F(CollectedEvents, ARecordWithNoFieldAtAllEndsTheCollection) {
  EventData data = sample(time(nullptr));
  CachedEventsServer server(socket(), {"|||", formatEventRecord(data, L"never asked for")});
  Message_Cache::receiveCachedEvents();

  EXPECT_TRUE(queued().empty());
  EXPECT_EQ(1u, server.requests().size());
  EXPECT_EQ(0, qortest::countOccurrences(trace(), "no more events in cache to receive.")) << trace();
}

// The service collects at its start and again whenever the watchdog process
// says that it cached a start: two collections may overlap, and what they
// put on the message queue must still come in the cache's order.
TEST_F(CollectedEvents, TwoCollectionsAtOnceQueueTheEventsInTheOrderTheCacheHandsThemOut) {
  const time_t when = time(nullptr) - 600;
  std::vector<std::string> records;
  for (int index = 0; index < 300; ++index) {
    EventData data = sample(when);
    data.procID = index;
    records.push_back(formatEventRecord(data, L"record " + std::to_wstring(index)));
  }
  CachedEventsServer server(socket(), records);
  std::thread other([] { Message_Cache::receiveCachedEvents(); });
  Message_Cache::receiveCachedEvents();
  other.join();

  std::vector<RawEvent*> events = queued();
  ASSERT_EQ(300u, events.size());
  std::vector<int> order;
  for (RawEvent* event : events) {
    EventData data;
    event->getEventData(data);
    order.push_back(data.procID);
  }
  std::vector<int> expected(300);
  for (int index = 0; index < 300; ++index) expected[static_cast<size_t>(index)] = index;
  EXPECT_EQ(expected, order);
  release(events);
}

}  // namespace
