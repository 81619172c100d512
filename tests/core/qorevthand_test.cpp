#include "core/qorevthand.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "core/qorcmdhand.h"
#include "core/qormsghand.h"
#include "support/qortest.h"

namespace {

std::mutex recordMutex;
std::vector<int> processed;   // ids, in the order doCommandProcessing saw them
std::vector<int> delivered;   // ids, in the order the first listener saw them
std::vector<Event*> copiesA;  // what listener A received
std::vector<Event*> copiesB;  // what listener B received
MessageHandler* messages = nullptr;

// An event that records its processing and passes a copy on, as the event
// classes of the service do.
class RecordingEvent : public Event {
 public:
  explicit RecordingEvent(int id) { setEventTypeID(id); }
  void doCommandProcessing() override {
    {
      std::lock_guard<std::mutex> lock(recordMutex);
      processed.push_back(getEventTypeID());
    }
    if (messages != nullptr && !messagesSuppressed()) messages->pushEvent(new RecordingEvent(*this));
  }
  Event* makeCopy(bool /*shallow*/) override { return new RecordingEvent(*this); }
};

void listenerA(Event* event) {
  std::lock_guard<std::mutex> lock(recordMutex);
  delivered.push_back(event->getEventTypeID());
  copiesA.push_back(event);
}

void listenerB(Event* event) {
  std::lock_guard<std::mutex> lock(recordMutex);
  copiesB.push_back(event);
}

size_t countOf(const std::vector<int>& ids) {
  std::lock_guard<std::mutex> lock(recordMutex);
  return ids.size();
}

// Deletes what a test left queued, so that nothing leaks past the test.
void drainQueue(EventHandler& handler) {
  handler.lockEventQueue();
  while (Event* event = handler.popEvent()) delete event;
  handler.unlockEventQueue();
}

}  // namespace

TEST(EventQueues, EventsAreProcessedAndDeliveredInOrderOfArrival) {
  processed.clear();
  delivered.clear();
  copiesA.clear();
  CommandHandler commands;
  MessageHandler messageQueue;
  messages = &messageQueue;
  messageQueue.registerListener(listenerA);
  std::thread commandThread([&] { commands.runHandler(); });
  std::thread messageThread([&] { messageQueue.runHandler(); });

  commands.pushEvent(new RecordingEvent(7));   // A
  commands.pushEvent(new RecordingEvent(10));  // B
  ASSERT_TRUE(qortest::waitFor([] { return countOf(delivered) == 2; }, 5000));
  EXPECT_EQ(std::vector<int>({7, 10}), processed);
  EXPECT_EQ(std::vector<int>({7, 10}), delivered);

  commands.requestShutdown();
  messageQueue.requestShutdown();
  commandThread.join();
  messageThread.join();
  for (Event* copy : copiesA) delete copy;
  messages = nullptr;
}

TEST(EventQueues, CommandHandlerStampsTheTimeBeforeProcessing) {
  CommandHandler commands;
  std::thread commandThread([&] { commands.runHandler(); });
  std::atomic<time_t> seen{0};
  class Probe : public Event {
   public:
    explicit Probe(std::atomic<time_t>* out) : out_(out) {}
    void doCommandProcessing() override { out_->store(getEventTime()); }
    std::atomic<time_t>* out_;
  };
  time_t before = time(nullptr);
  commands.pushEvent(new Probe(&seen));
  ASSERT_TRUE(qortest::waitFor([&] { return seen.load() != 0; }, 5000));
  EXPECT_GE(seen.load(), before);
  commands.requestShutdown();
  commandThread.join();
}

// An event that holds the command handler until the test lets it go.
class HoldingEvent : public Event {
 public:
  HoldingEvent(std::atomic<bool>* began, std::atomic<bool>* release) : began_(began), release_(release) {}
  void doCommandProcessing() override {
    began_->store(true);
    while (!release_->load()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::atomic<bool>* began_;
  std::atomic<bool>* release_;
};

TEST(EventQueues, TheBusyTimeIsZeroWhileWaitingGrowsOnAnEventAndGrowsForGoodOnceTheLoopHasEnded) {
  CommandHandler commands;
  EXPECT_EQ(0, commands.busyMilliseconds());
  std::thread commandThread([&] { commands.runHandler(); });
  std::atomic<bool> began{false};
  std::atomic<bool> release{false};
  commands.pushEvent(new HoldingEvent(&began, &release));
  ASSERT_TRUE(qortest::waitFor([&] { return began.load(); }, 5000));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const long long held = commands.busyMilliseconds();
  EXPECT_GE(held, 300);
  EXPECT_LT(held, 5000);
  release = true;
  // Back to waiting: 0 again.
  ASSERT_TRUE(qortest::waitFor([&] { return commands.busyMilliseconds() == 0; }, 5000));
  commands.requestShutdown();
  commandThread.join();
  // A loop that has ended takes no event: it reads as stuck since its end.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_GE(commands.busyMilliseconds(), 100);
}

TEST(EventQueues, ShutdownOfAnIdleQueueEndsTheThreadWithoutProcessing) {
  processed.clear();
  CommandHandler commands;
  std::atomic<bool> ended{false};
  std::thread commandThread([&] {
    commands.runHandler();
    ended = true;
  });
  // Let the consumer reach its wait.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  commands.requestShutdown();
  EXPECT_TRUE(qortest::waitFor([&] { return ended.load(); }, 2000));
  commandThread.join();
  EXPECT_TRUE(processed.empty());
}

TEST(EventQueues, EventsQueuedAtShutdownAreNeverProcessed) {
  processed.clear();
  CommandHandler commands;
  commands.pushEvent(new RecordingEvent(2));
  commands.pushEvent(new RecordingEvent(3));
  commands.requestShutdown();
  std::thread commandThread([&] { commands.runHandler(); });
  commandThread.join();
  EXPECT_TRUE(processed.empty());
  commands.lockEventQueue();
  EXPECT_FALSE(commands.isQueueEmpty());
  commands.unlockEventQueue();
  drainQueue(commands);
}

TEST(EventQueues, APushAfterShutdownIsAcceptedAndStaysQueued) {
  CommandHandler commands;
  commands.requestShutdown();
  EXPECT_TRUE(commands.pushEvent(new RecordingEvent(4)));
  commands.lockEventQueue();
  EXPECT_FALSE(commands.isQueueEmpty());
  commands.unlockEventQueue();
  drainQueue(commands);
}

TEST(EventQueues, PopOfAnEmptyQueueGivesNull) {
  CommandHandler commands;
  commands.lockEventQueue();
  EXPECT_TRUE(commands.isQueueEmpty());
  EXPECT_EQ(nullptr, commands.popEvent());
  commands.unlockEventQueue();
}

TEST(MessageListeners, DeregisterLeavesEveryEntryInPlace) {
  MessageHandler messageQueue;
  messageQueue.deregisterListener(listenerA);  // empty list: nothing happens
  EXPECT_EQ(0u, messageQueue.listenerCount());
  messageQueue.registerListener(listenerA);
  messageQueue.registerListener(listenerB);
  messageQueue.deregisterListener(listenerA);
  messageQueue.deregisterListener(listenerB);
  EXPECT_EQ(2u, messageQueue.listenerCount());

  copiesA.clear();
  copiesB.clear();
  RecordingEvent event(8);
  messageQueue.notifyListeners(&event);
  EXPECT_EQ(1u, copiesA.size());
  EXPECT_EQ(1u, copiesB.size());
  for (Event* copy : copiesA) delete copy;
  for (Event* copy : copiesB) delete copy;
}

TEST(MessageListeners, TheSameListenerRegisteredTwiceIsCalledTwice) {
  MessageHandler messageQueue;
  messageQueue.registerListener(listenerA);
  messageQueue.registerListener(listenerA);
  copiesA.clear();
  RecordingEvent event(1);
  messageQueue.notifyListeners(&event);
  EXPECT_EQ(2u, copiesA.size());
  for (Event* copy : copiesA) delete copy;
}

TEST(MessageListeners, TwoListenersGetDistinctCopiesTheyMayDeleteAlone) {
  MessageHandler messageQueue;
  messageQueue.registerListener(listenerA);
  messageQueue.registerListener(listenerB);
  copiesA.clear();
  copiesB.clear();
  RecordingEvent event(12);
  event.setUserMessage(L"details");
  messageQueue.notifyListeners(&event);
  ASSERT_EQ(1u, copiesA.size());
  ASSERT_EQ(1u, copiesB.size());
  EXPECT_NE(copiesA[0], copiesB[0]);
  EXPECT_NE(&event, copiesA[0]);
  delete copiesA[0];
  EXPECT_EQ(12, copiesB[0]->getEventTypeID());
  EXPECT_EQ(L"details", copiesB[0]->getUserMessage());
  delete copiesB[0];
  EXPECT_EQ(L"details", event.getUserMessage());
}

TEST(MessageListeners, AnEventWithoutACopyReachesNoListener) {
  MessageHandler messageQueue;
  messageQueue.registerListener(listenerA);
  copiesA.clear();
  Event plain;  // the base class has no copy
  messageQueue.notifyListeners(&plain);
  EXPECT_TRUE(copiesA.empty());
}

TEST(EventBase, DefaultsAndTheUserMessageRule) {
  Event event;
  EXPECT_EQ(0, event.getEventTypeID());
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_EQ(L"N/A", event.getUserMessage());
  event.setUserMessage(L"first");
  event.setUserMessage(L"");
  EXPECT_EQ(L"first", event.getUserMessage());
  EXPECT_EQ(L"", event.getLogMessage());
  EXPECT_EQ(nullptr, event.makeCopy(true));
  event.suppressMessages();
  EXPECT_TRUE(event.messagesSuppressed());
  event.allowMessages();
  EXPECT_FALSE(event.messagesSuppressed());
}

TEST(EventBase, FlatRecordDefaults) {
  Event event;
  event.setEventTypeID(19);
  event.setEventTime(1234);
  EventData data;
  data.agentName = L"stale";
  data.procID = 99;
  event.getEventData(data);
  EXPECT_EQ(1234, data.eventTime);
  EXPECT_EQ(L"", data.agentName);
  EXPECT_EQ(-1, data.operatingState);
  EXPECT_EQ(-1, data.managedState);
  EXPECT_EQ(L"", data.instanceProcName);
  EXPECT_EQ(-1, data.agentType);
  EXPECT_EQ(-1, data.osType);
  EXPECT_EQ(L"", data.osVersion);
  EXPECT_EQ(-1, data.procID);
  EXPECT_EQ(-1, data.spareValue);
  EXPECT_EQ(19, data.eventID);
  EXPECT_EQ(L"N/A", data.userMessage);
}
