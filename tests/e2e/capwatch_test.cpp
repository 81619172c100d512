// The CAP directory watcher with the whole service running: files are added,
// removed, renamed and edited in a real directory, and the host's log
// listener tells what the service saw. Each test waits for the watcher's own
// poll before it changes the directory, so that a change falls within one
// poll; the interval is the shortest there is, 5 seconds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "cap/capfiles.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

class CollectingLog : public QOR_LogListener {
 public:
  // The watcher's messages only. The directory holds no OS agent's file, so
  // the service comes up disarmed and takes the agents of these files out of
  // management, which its listeners hear too; that is not the watcher's.
  void AlertMe() override {
    std::lock_guard<std::mutex> lock(mutex);
    char* text = QOR_wcstombs(logData.logMessage);
    if (std::string(text).find(" CAP File Event: ") != std::string::npos) messages.push_back(text);
    delete[] text;
  }
  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return messages;
  }
  // startQueryService returns once the command handler has taken the files of
  // the initial scan in; the message handler delivers their events on its own
  // thread, maybe just after. Waits for `count` messages, then takes them.
  std::vector<std::string> snapshotOf(size_t count) {
    qortest::waitFor([&] { return snapshot().size() >= count; }, 5000);
    return snapshot();
  }

 private:
  std::mutex mutex;
  std::vector<std::string> messages;
};

const char kAdded[] = " CAP File Event: Agent added to system - CAP file found.";
const char kRemoved[] = " CAP File Event: Agent removed from system - CAP file removed.";
const char kPoll[] = "Size of currentFileList = ";

class CapWatch : public ::testing::Test {
 protected:
  void TearDown() override {
    if (service != nullptr) {
      service->deregisterLogListener(&log);
      service->releaseQueryService(false);
    }
  }

  void start() {
    setenv("QOR_CAP_DIR", caps.path().c_str(), 1);
    qortest::traceTo(traces.file("trace"), 146);
    service = QOR_QueryService::initQueryService();
    service->registerLogListener(&log);
    service->startQueryService();
  }

  std::string capFile(const std::string& name) { return caps.file(name); }

  void writeCap(const std::string& name, const std::string& id) {
    captest::Subagent agent;
    agent.id = id;
    qortest::writeFile(capFile(name), captest::document(agent));
  }

  int polls() { return qortest::countOccurrences(qortest::readFile(traces.file("trace")), kPoll); }

  // Returns right after the watcher has listed the directories once more.
  void waitForNextPoll() {
    int seen = polls();
    ASSERT_TRUE(qortest::waitFor([&] { return polls() > seen; }, 8000)) << "no poll of the watcher";
  }

  int count(const std::string& text) {
    int found = 0;
    for (const std::string& message : log.snapshot()) found += message == text ? 1 : 0;
    return found;
  }
  int countWith(const std::string& part) {
    int found = 0;
    for (const std::string& message : log.snapshot())
      found += message.find(part) != std::string::npos ? 1 : 0;
    return found;
  }
  bool waitForMessage(const std::string& text, int timeoutMs) {
    return qortest::waitFor([&] { return count(text) > 0; }, timeoutMs);
  }

  qortest::TempDir caps;
  qortest::TempDir traces;
  CollectingLog log;
  QOR_QueryService* service = nullptr;
};

}  // namespace

TEST_F(CapWatch, FilesFoundAtStartupAreReportedOnceEachInOrder) {
  writeCap("b.xml", "agent.b");
  writeCap("a.xml", "agent.a");
  start();
  EXPECT_EQ(std::vector<std::string>({capFile("a.xml") + kAdded, capFile("b.xml") + kAdded}),
            log.snapshotOf(2));
  waitForNextPoll();
  waitForNextPoll();
  EXPECT_EQ(2u, log.snapshot().size());
}

TEST_F(CapWatch, ANewFileIsOneAddedEventWithinOneInterval) {
  start();
  waitForNextPoll();
  long long written = qortest::nowMs();
  writeCap("new.xml", "agent.new");
  ASSERT_TRUE(waitForMessage(capFile("new.xml") + kAdded, 6000));
  EXPECT_LE(qortest::nowMs() - written, 6000);
  waitForNextPoll();
  EXPECT_EQ(1, count(capFile("new.xml") + kAdded));
  EXPECT_EQ(1u, log.snapshot().size());
}

TEST_F(CapWatch, ThreeFilesAddedInOnePollTakeThreePollsInSortedOrder) {
  start();
  waitForNextPoll();
  writeCap("c.xml", "agent.c");
  writeCap("a.xml", "agent.a");
  writeCap("b.xml", "agent.b");
  int first = polls();
  ASSERT_TRUE(waitForMessage(capFile("c.xml") + kAdded, 20000));
  EXPECT_EQ(std::vector<std::string>(
                {capFile("a.xml") + kAdded, capFile("b.xml") + kAdded, capFile("c.xml") + kAdded}),
            log.snapshot());
  EXPECT_GE(polls() - first, 3);
}

TEST_F(CapWatch, ARemovedFileIsReported) {
  writeCap("gone.xml", "agent.gone");
  start();
  waitForNextPoll();
  std::remove(capFile("gone.xml").c_str());
  ASSERT_TRUE(waitForMessage(capFile("gone.xml") + kRemoved, 7000));
  EXPECT_EQ(2u, log.snapshot().size());
}

TEST_F(CapWatch, ARenamedFileGivesNoEvent) {
  writeCap("old.xml", "agent.old");
  start();
  waitForNextPoll();
  ASSERT_EQ(0, rename(capFile("old.xml").c_str(), capFile("renamed.xml").c_str()));
  waitForNextPoll();
  waitForNextPoll();
  EXPECT_EQ(std::vector<std::string>({capFile("old.xml") + kAdded}), log.snapshot());
}

TEST_F(CapWatch, AFileDeletedWhileAnotherIsAddedInOnePollGivesNoEvent) {
  writeCap("first.xml", "agent.first");
  start();
  waitForNextPoll();
  std::remove(capFile("first.xml").c_str());
  writeCap("second.xml", "agent.second");
  waitForNextPoll();
  waitForNextPoll();
  EXPECT_EQ(std::vector<std::string>({capFile("first.xml") + kAdded}), log.snapshot());
}

TEST_F(CapWatch, AnEditedFileGivesNoEvent) {
  writeCap("edited.xml", "agent.edited");
  start();
  waitForNextPoll();
  writeCap("edited.xml", "agent.changed");
  waitForNextPoll();
  waitForNextPoll();
  EXPECT_EQ(std::vector<std::string>({capFile("edited.xml") + kAdded}), log.snapshot());
}

TEST_F(CapWatch, OnlyVisibleXmlNamesCount) {
  start();
  waitForNextPoll();
  for (const char* name : {".hidden.xml", "a.XML", "a.xml.bak", "a"}) writeCap(name, "agent.ignored");
  writeCap("b.c.xml", "agent.bc");
  ASSERT_TRUE(waitForMessage(capFile("b.c.xml") + kAdded, 7000));
  waitForNextPoll();
  EXPECT_EQ(std::vector<std::string>({capFile("b.c.xml") + kAdded}), log.snapshot());
}

TEST_F(CapWatch, TheFirstDifferenceDecidesWhenTwoFilesComeAndAKnownOneGoes) {
  writeCap("a.xml", "agent.a");
  writeCap("c.xml", "agent.c");
  start();
  waitForNextPoll();
  // Known: a, c. Now: c, d, e. The lists differ first at the place of a, where
  // the new list holds c: c is reported as added, a second time.
  std::remove(capFile("a.xml").c_str());
  writeCap("d.xml", "agent.d");
  writeCap("e.xml", "agent.e");
  ASSERT_TRUE(qortest::waitFor([&] { return count(capFile("c.xml") + kAdded) == 2; }, 7000));
  waitForNextPoll();
  waitForNextPoll();
  EXPECT_EQ(0, countWith("d.xml"));
  EXPECT_EQ(0, countWith("e.xml"));
  EXPECT_EQ(0, count(capFile("a.xml") + kRemoved));
  EXPECT_EQ(1, count(capFile("a.xml") + kAdded));
}

TEST(CapWatchDirectories, TheInitialScanGoesByDirectoryThenByName) {
  qortest::TempDir second;
  qortest::TempDir first;
  qortest::TempDir traces;
  captest::Subagent agent;
  for (const char* name : {"z.xml", "m.xml"}) {
    agent.id = std::string("first.") + name;
    qortest::writeFile(first.file(name), captest::document(agent));
  }
  agent.id = "second.a";
  qortest::writeFile(second.file("a.xml"), captest::document(agent));
  std::string dirs = first.path() + ":" + second.path();
  setenv("QOR_CAP_DIR", dirs.c_str(), 1);
  qortest::traceTo(traces.file("trace"), 128);
  CollectingLog log;
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  service->registerLogListener(&log);
  service->startQueryService();
  EXPECT_EQ(std::vector<std::string>(
                {first.file("m.xml") + kAdded, first.file("z.xml") + kAdded, second.file("a.xml") + kAdded}),
            log.snapshotOf(3));
  service->deregisterLogListener(&log);
  service->releaseQueryService(false);
}
