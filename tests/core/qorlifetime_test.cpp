#include "core/qorlifetime.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>

#include "agents/qoragt.h"
#include "agents/qorfst.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

using Paths = std::vector<std::wstring>;

std::wstring wide(const std::string& text) { return qor_mbstowcs(text.c_str()); }

// Each test runs in its own process, so the environment and the Controller
// start fresh in every one of them.
void initializeWith(const char* capDir) {
  if (capDir == nullptr) {
    unsetenv("QOR_CAP_DIR");
  } else {
    setenv("QOR_CAP_DIR", capDir, 1);
  }
  InitializeTEO();
}

}  // namespace

TEST(CapDirectories, UnsetGivesDotCapAndNoStateDirectory) {
  initializeWith(nullptr);
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({L"./CAP"}), controller->getCAPDirPaths());
  EXPECT_EQ(L"", controller->getTEODirPath());
  EXPECT_EQ("/teo.dat", GetTeoDatPath());
}

TEST(CapDirectories, OneExistingDirectoryIsListAndStateDirectory) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({wide(a.path() + "/")}), controller->getCAPDirPaths());
  EXPECT_EQ(wide(a.path() + "/"), controller->getTEODirPath());
  // The joined path keeps the directory's own slash and adds one.
  EXPECT_EQ(a.path() + "//teo.dat", GetTeoDatPath());
}

TEST(CapDirectories, MissingThenExistingKeepsBothAndTakesTheExistingForState) {
  qortest::TempDir a;
  std::string missing = a.path() + "-missing";
  std::string value = missing + ":" + a.path();
  initializeWith(value.c_str());
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({wide(missing + "/"), wide(a.path() + "/")}), controller->getCAPDirPaths());
  EXPECT_EQ(wide(a.path() + "/"), controller->getTEODirPath());
}

TEST(CapDirectories, MissingAloneFallsBackToDotCap) {
  qortest::TempDir a;
  std::string missing = a.path() + "/missing";
  initializeWith(missing.c_str());
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({wide(missing + "/"), L"./CAP"}), controller->getCAPDirPaths());
  EXPECT_EQ(L"./CAP", controller->getTEODirPath());
}

TEST(CapDirectories, TrailingColonAddsTheRootEntry) {
  qortest::TempDir a;
  std::string value = a.path() + ":";
  initializeWith(value.c_str());
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({wide(a.path() + "/"), L"/"}), controller->getCAPDirPaths());
  EXPECT_EQ(wide(a.path() + "/"), controller->getTEODirPath());
}

TEST(CapDirectories, TheValueIsReadOnceAndNotAgain) {
  qortest::TempDir a;
  qortest::TempDir b;
  initializeWith(a.path().c_str());
  setenv("QOR_CAP_DIR", b.path().c_str(), 1);
  EXPECT_EQ(wide(a.path()), QOR_GetEnvironment(L"QOR_CAP_DIR"));
}

TEST(StateFile, PersistWritesTheCountLine) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  PersistTEO();
  EXPECT_EQ("0\n", qortest::readFile(a.file("teo.dat")));
}

namespace {

// An agent with every field of its record set from `id` and `count`.
Agent* makeAgent(const std::wstring& id, int count) {
  Agent* agent = new Agent();
  agent->setID(id);
  agent->setInstanceProcName(L"ip-" + id);
  agent->setInstanceName(L"in-" + id);
  agent->setServiceInstanceName(L"sv-" + id);
  agent->setManagedState(Managed);
  agent->setName(L"Name " + id);
  agent->setOperatingState(OpRunning);
  agent->setProcName(L"pn-" + id);
  agent->setProcID(100);
  agent->setDailyRestartCount(count);
  agent->setPath(L"/p/" + id);
  agent->setType(1);
  agent->setAgentVersion(L"v1");
  agent->setAgentBuildNumber(L"b2");
  agent->setSavedState(WatchdogManaged);
  return agent;
}

// The record makeAgent's agent is written as.
std::string recordOf(const std::string& id, int count) {
  return "*\n6.2.2.2\n" + id + "\nip-" + id + "\nin-" + id + "\nsv-" + id + "\n1\nName " + id + "\n4\npn-" +
         id + "\n100\n" + std::to_string(count) + "\n/p/" + id + "\n1\nv1\nb2\n2\n*\n";
}

// Empties both lists of the Controller and deletes their agents.
void clearLists() {
  for (ManagedProcessList* list : {Controller::getController()->getManagedEndpointProcesses(),
                                   Controller::getController()->getWatchdogList()}) {
    for (Agent* agent : *list) delete agent;
    list->clear();
  }
}

}  // namespace

TEST(StateFile, TwoListsEachHoldingAnAgentGiveACountOfTwoWithTheManagedListFirst) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  qortest::traceTo(a.file("trace"), 146);
  Controller::getController()->getWatchdogList()->push_back(makeAgent(L"qorwd", 1));
  Controller::getController()->getManagedEndpointProcesses()->push_back(makeAgent(L"qa.one", 0));
  Controller::getController()->getManagedEndpointProcesses()->push_back(makeAgent(L"qa.two", 5));
  PersistTEO();
  EXPECT_EQ("3\n" + recordOf("qa.one", 0) + recordOf("qa.two", 5) + recordOf("qorwd", 1),
            qortest::readFile(a.file("teo.dat")));
  EXPECT_FALSE(qortest::fileExists(a.file("teo.dat.tmp")));
  std::string trace = qortest::readFile(a.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Agent state being persisted to disk.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "os agent being persisted to disk.\n"));
  clearLists();
}

TEST(StateFile, AnEmptyListPairGivesTheSingleLineZeroAndNoStoryOfAgents) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  qortest::writeFile(a.file("teo.dat"), "1\n" + recordOf("old", 1));
  qortest::traceTo(a.file("trace"), 146);
  PersistTEO();
  EXPECT_EQ("0\n", qortest::readFile(a.file("teo.dat")));
  EXPECT_FALSE(qortest::fileExists(a.file("teo.dat.tmp")));
  std::string trace = qortest::readFile(a.file("trace"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "persisted to disk"));
}

TEST(StateFile, WhatIsPersistedReadsBackAsTheSameRecords) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  Controller* controller = Controller::getController();
  controller->getManagedEndpointProcesses()->push_back(makeAgent(L"qa.one", 4));
  controller->getWatchdogList()->push_back(makeAgent(L"qa.one", 2));
  PersistTEO();
  Policy policy;
  policy.setSubagentID(L"qa.one");
  ManagedProcessList read;
  controller->ReadAgent(read, &policy);
  ASSERT_EQ(2u, read.size());
  EXPECT_EQ(4, read.front()->getDailyRestartCount());
  EXPECT_EQ(2, read.back()->getDailyRestartCount());
  EXPECT_EQ(L"sv-qa.one", read.front()->getServiceInstanceName());
  EXPECT_EQ(WatchdogManaged, read.back()->getSavedState());
  for (Agent* agent : read) delete agent;
  read.clear();
  clearLists();
}

// Each failure below is one that root meets as well: the suite runs as root.
TEST(StateFile, WhenTheTemporaryCannotBeOpenedTheOldFileStaysAndTheErrorNamesIt) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  std::string old = "1\n" + recordOf("old", 1);
  qortest::writeFile(a.file("teo.dat"), old);
  ASSERT_EQ(0, mkdir(a.file("teo.dat.tmp").c_str(), 0755));
  qortest::traceTo(a.file("trace"), 128);
  Controller::getController()->getManagedEndpointProcesses()->push_back(makeAgent(L"qa.new", 0));
  PersistTEO();
  EXPECT_EQ(old, qortest::readFile(a.file("teo.dat")));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(a.file("trace")),
                                         "Cannot open " + a.path() +
                                             "//teo.dat.tmp to write the state file: Is a directory\n"));
  // The lists are free again: a later persist can take them.
  EXPECT_FALSE(Controller::getController()->getManagedEndpointProcesses()->isLockedByCaller());
  EXPECT_TRUE(Controller::getController()->getWatchdogList()->lockList());
  EXPECT_TRUE(Controller::getController()->getWatchdogList()->unlockList());
  ASSERT_EQ(0, rmdir(a.file("teo.dat.tmp").c_str()));
  PersistTEO();
  EXPECT_EQ("1\n" + recordOf("qa.new", 0), qortest::readFile(a.file("teo.dat")));
  clearLists();
}

TEST(StateFile, WhenTheWritingFailsTheOldFileStaysAndTheTemporaryGoes) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  std::string old = "1\n" + recordOf("old", 1);
  qortest::writeFile(a.file("teo.dat"), old);
  // Every write to the full device fails for root too.
  ASSERT_EQ(0, symlink("/dev/full", a.file("teo.dat.tmp").c_str()));
  qortest::traceTo(a.file("trace"), 128);
  Controller::getController()->getManagedEndpointProcesses()->push_back(makeAgent(L"qa.new", 0));
  PersistTEO();
  EXPECT_EQ(old, qortest::readFile(a.file("teo.dat")));
  struct stat status;
  EXPECT_NE(0, lstat(a.file("teo.dat.tmp").c_str(), &status));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(a.file("trace")),
                                         "Cannot write the state file to " + a.path() +
                                             "//teo.dat.tmp: No space left on device\n"));
  clearLists();
}

TEST(StateFile, WhenTheRenameFailsTheOldEntryStaysAndTheTemporaryGoes) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  // A directory in the state file's place cannot be replaced by a file.
  ASSERT_EQ(0, mkdir(a.file("teo.dat").c_str(), 0755));
  qortest::writeFile(a.file("teo.dat") + "/inside", "kept");
  qortest::traceTo(a.file("trace"), 128);
  PersistTEO();
  EXPECT_EQ("kept", qortest::readFile(a.file("teo.dat") + "/inside"));
  EXPECT_FALSE(qortest::fileExists(a.file("teo.dat.tmp")));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(a.file("trace")),
                                         "Cannot rename " + a.path() + "//teo.dat.tmp to the state file " +
                                             a.path() + "//teo.dat: Is a directory\n"));
}

TEST(StateFile, AfterReadingADamagedFileTheNextPersistWritesAWholeOne) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  // A count far beyond the records, a record cut short by bytes that are no
  // text, and an overlong line behind them.
  qortest::writeFile(a.file("teo.dat"), "2147483647\n" + recordOf("qa.one", 3) +
                                            "*\n6.2.2.2\nqa.one\nip\n\xff\xfe\xfd\n" + std::string(400, 'x') +
                                            "\n");
  Controller* controller = Controller::getController();
  Policy policy;
  policy.setSubagentID(L"qa.one");
  controller->ReadAgent(*controller->getManagedEndpointProcesses(), &policy);
  ASSERT_EQ(2u, controller->getManagedEndpointProcesses()->size());
  PersistTEO();
  std::string damaged = "*\n6.2.2.2\nqa.one\nip\n\n\n0\n\n0\n\n0\n0\n\n0\n\n\n0\n*\n";
  EXPECT_EQ("2\n" + recordOf("qa.one", 3) + damaged, qortest::readFile(a.file("teo.dat")));
  clearLists();
}

// A child persists a large list again and again, each time with other
// restart counts, and is killed at random moments: the state file is always
// one whole writing, never a partial one.
TEST(StateFile, AWritingKilledInTheMiddleLeavesAWholeFile) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  constexpr int agents = 1500;
  auto contentFor = [](int count) {
    std::string text = std::to_string(agents) + "\n";
    for (int i = 0; i < agents; ++i) text += recordOf("qa." + std::to_string(i), count);
    return text;
  };
  ManagedProcessList* managed = Controller::getController()->getManagedEndpointProcesses();
  for (int i = 0; i < agents; ++i)
    managed->push_back(makeAgent(qor_mbstowcs(("qa." + std::to_string(i)).c_str()), 0));
  PersistTEO();
  const std::string even = contentFor(0);
  const std::string odd = contentFor(1);
  ASSERT_EQ(even, qortest::readFile(a.file("teo.dat")));

  std::mt19937 random(12345);
  int interrupted = 0;
  long long deadline = qortest::nowMs() + 20000;
  for (int kill = 0; kill < 30 && qortest::nowMs() < deadline; ++kill) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int round = 1;; ++round) {
        for (Agent* agent : *managed) agent->setDailyRestartCount(round % 2);
        PersistTEO();
      }
    }
    usleep(1000 + random() % 60000);
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    if (qortest::fileExists(a.file("teo.dat.tmp"))) ++interrupted;
    std::string now = qortest::readFile(a.file("teo.dat"));
    ASSERT_TRUE(now == even || now == odd) << "kill " << kill << " left " << now.size() << " bytes";
  }
  // The kills did land in the middle of writings, where a file written in
  // place would have been cut short.
  EXPECT_GT(interrupted, 0);
  clearLists();
}

TEST(StateFile, PersistInWatchdogModeLeavesTheFileUntouched) {
  qortest::TempDir a;
  qortest::writeFile(a.file("teo.dat"), "3\nkept\n");
  Controller::setWatchDogMode();
  initializeWith(a.path().c_str());
  PersistTEO();
  EXPECT_EQ("3\nkept\n", qortest::readFile(a.file("teo.dat")));
}

// A host that keeps the pointer after its last release reaches the service
// with a count of 0: the lifetime calls only look at the class's own state.
TEST(QueryServiceLifetime, ReleaseWithACountOfZeroReturnsFalseAndChangesNothing) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  EXPECT_TRUE(service->releaseQueryService(true));
  EXPECT_FALSE(service->releaseQueryService(true));
  EXPECT_FALSE(QOR_QueryService::isInitialized());
  EXPECT_FALSE(QOR_QueryService::isStarted());
}

TEST(QueryServiceLifetime, TwoInitsNeedTwoReleasesAndTheThirdIsRefused) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  setenv("QOR_TRACE_LEVEL", "146", 1);
  QOR_QueryService* first = QOR_QueryService::initQueryService();
  QOR_QueryService* second = QOR_QueryService::initQueryService();
  EXPECT_EQ(first, second);
  first->startQueryService();
  EXPECT_TRUE(QOR_QueryService::isStarted());

  EXPECT_TRUE(first->releaseQueryService(false));
  EXPECT_TRUE(QOR_QueryService::isStarted());
  EXPECT_FALSE(Controller::getController()->isShuttingDown());

  EXPECT_TRUE(first->releaseQueryService(false));
  EXPECT_FALSE(QOR_QueryService::isStarted());
  EXPECT_FALSE(QOR_QueryService::isInitialized());
  EXPECT_TRUE(Controller::getController()->isShuttingDown());
  EXPECT_EQ("0\n", qortest::readFile(a.file("teo.dat")));
}

TEST(QueryServiceLifetime, StartingTwiceStartsOnce) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  qortest::traceTo(a.file("trace"), 146);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  service->startQueryService();
  time_t startup = Controller::getController()->getStartup();
  service->startQueryService();
  EXPECT_EQ(startup, Controller::getController()->getStartup());
  service->releaseQueryService(false);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(a.file("trace")), "starting TEO thread."));
}

TEST(QueryServiceLifetime, StartAfterTheLastReleaseDoesNothing) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  EXPECT_TRUE(service->releaseQueryService(true));
  service->startQueryService();
  EXPECT_FALSE(QOR_QueryService::isStarted());
  EXPECT_EQ(0, Controller::getController()->getStartup());
}

TEST(QueryServiceLifetime, PersistOnlyReleaseLeavesTheThreadsRunning) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  service->startQueryService();
  EXPECT_TRUE(service->releaseQueryService(true));
  EXPECT_FALSE(QOR_QueryService::isStarted());
  EXPECT_FALSE(Controller::getController()->isShuttingDown());
  EXPECT_EQ("0\n", qortest::readFile(a.file("teo.dat")));
}

TEST(QueryServiceLifetime, TerminateWithoutStartBlocksForGood) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  InitializeTEO();
  static std::atomic<bool> returned{false};
  std::thread([] {
    TerminateTEO();
    returned = true;
  }).detach();
  // No TEO thread answers the request: the call stays blocked.
  EXPECT_FALSE(qortest::waitFor([] { return returned.load(); }, 1500));
}
