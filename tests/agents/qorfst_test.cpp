#include "agents/qorfst.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "agents/qorproclist.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "support/qortest.h"

namespace {

// The fields of one record, in file order; `version` chooses the layout the
// text follows.
struct Record {
  std::string version = "6.2.2.2";
  std::string id = "qa.agent";
  std::string instanceProcName = "qaproc";
  std::string instanceName = "inst1";
  std::string serviceInstanceName = "svc1";
  std::string managedState = "1";
  std::string name = "QA agent";
  std::string operatingState = "4";
  std::string procName = "qaproc";
  std::string procID = "4321";
  std::string dailyRestartCount = "2";
  std::string path = "/opt/qa";
  std::string type = "1";
  std::string agentVersion = "7.1";
  std::string agentBuildNumber = "b42";
  std::string savedState = "2";

  // The lines the layout of `version` holds; an unknown version gets all of them.
  std::string text() const {
    bool old = version == "6.2.1.0";
    bool noSaved = old || version == "6.2.2.0";
    std::string out = "*\n" + version + "\n" + id + "\n" + instanceProcName + "\n";
    if (!old) out += instanceName + "\n";
    out += serviceInstanceName + "\n" + managedState + "\n" + name + "\n" + operatingState + "\n" + procName +
           "\n" + procID + "\n" + dailyRestartCount + "\n" + path + "\n" + type + "\n";
    if (!old) out += agentVersion + "\n" + agentBuildNumber + "\n";
    if (!noSaved) out += savedState + "\n";
    return out + "*\n";
  }
};

Record recordWith(const std::string& version, const std::string& id = "qa.agent") {
  Record record;
  record.version = version;
  record.id = id;
  return record;
}

// Every test runs in its own process: the state file's path, fixed at first
// use, lies in this test's own directory.
class StateFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Controller::getController()->setTEODirPath(qor_mbstowcs((dir.path() + "/").c_str()));
    ASSERT_EQ(dir.path() + "//teo.dat", GetTeoDatPath());
    policy.setSubagentID(L"qa.agent");
  }
  void TearDown() override { clear(); }

  void writeStateFile(const std::string& content) { qortest::writeFile(GetTeoDatPath(), content); }
  std::string stateFile() { return qortest::readFile(GetTeoDatPath()); }

  std::vector<Agent*> read() {
    clear();
    Controller::getController()->ReadAgent(list, &policy);
    return std::vector<Agent*>(list.begin(), list.end());
  }
  void clear() {
    for (Agent* agent : list) delete agent;
    list.clear();
  }
  std::string trace() { return qortest::readFile(dir.file("trace")); }

  qortest::TempDir dir;
  Policy policy;
  ManagedProcessList list;
};

// Two agents that fill every field of a record with known values.
void fillAgent(Agent& agent, const std::wstring& id, int managed, int operating) {
  agent.setID(id);
  agent.setInstanceProcName(L"ip-" + id);
  agent.setInstanceName(L"in-" + id);
  agent.setServiceInstanceName(L"sv-" + id);
  agent.setManagedState(managed);
  agent.setName(L"Name " + id);
  agent.setOperatingState(operating);
  agent.setProcName(L"pn-" + id);
  agent.setProcID(77);
  agent.setDailyRestartCount(3);
  agent.setPath(L"/p/" + id);
  agent.setType(2);
  agent.setAgentVersion(L"v-" + id);
  agent.setAgentBuildNumber(L"b-" + id);
  agent.setSavedState(1);
}

}  // namespace

TEST_F(StateFileTest, ACurrentLayoutRecordFillsEveryField) {
  writeStateFile("1\n" + Record().text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  Agent* agent = agents[0];
  EXPECT_EQ(L"qa.agent", agent->getID());
  EXPECT_EQ("qa.agent", agent->getshortID());
  EXPECT_EQ(L"qaproc", agent->getInstanceProcName());
  EXPECT_EQ(L"inst1", agent->getInstanceName());
  EXPECT_EQ(L"svc1", agent->getServiceInstanceName());
  EXPECT_EQ(Managed, agent->getManagedState());
  EXPECT_EQ(L"QA agent", agent->getName());
  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(L"qaproc", agent->getProcName());
  EXPECT_EQ(4321, agent->getProcID());
  EXPECT_EQ(2, agent->getDailyRestartCount());
  EXPECT_EQ(L"/opt/qa", agent->getPath());
  EXPECT_EQ(static_cast<AgentType>(1), agent->getType());
  EXPECT_EQ(L"7.1", agent->getAgentVersion());
  EXPECT_EQ(L"b42", agent->getAgentBuildNumber());
  EXPECT_EQ(WatchdogManaged, agent->getSavedState());
  EXPECT_EQ(L"6.2.2.2", agent->getVersion());
  // A record brings no policy and no Watchdog: the caller gives them.
  EXPECT_EQ(nullptr, agent->getPolicy());
  EXPECT_EQ(nullptr, agent->getWatchdog());
}

TEST_F(StateFileTest, TheOldestLayoutHasNoInstanceNameVersionBuildOrSavedState) {
  writeStateFile("1\n" + recordWith("6.2.1.0").text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  Agent* agent = agents[0];
  EXPECT_EQ(L"qa.agent", agent->getID());
  EXPECT_EQ(L"qaproc", agent->getInstanceProcName());
  EXPECT_EQ(L"", agent->getInstanceName());
  EXPECT_EQ(L"svc1", agent->getServiceInstanceName());
  EXPECT_EQ(Managed, agent->getManagedState());
  EXPECT_EQ(L"QA agent", agent->getName());
  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(L"qaproc", agent->getProcName());
  EXPECT_EQ(4321, agent->getProcID());
  EXPECT_EQ(2, agent->getDailyRestartCount());
  EXPECT_EQ(L"/opt/qa", agent->getPath());
  EXPECT_EQ(static_cast<AgentType>(1), agent->getType());
  EXPECT_EQ(L"", agent->getAgentVersion());
  EXPECT_EQ(L"", agent->getAgentBuildNumber());
  EXPECT_EQ(Unmanaged, agent->getSavedState());
  // The reader keeps no version of its own: the record is of the current layout now.
  EXPECT_EQ(L"6.2.2.2", agent->getVersion());
}

TEST_F(StateFileTest, TheMiddleLayoutHasNoSavedState) {
  // The record after it starts right where the shorter layout ends.
  writeStateFile("2\n" + recordWith("6.2.2.0").text() + recordWith("6.2.2.2", "other").text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  Agent* agent = agents[0];
  EXPECT_EQ(L"inst1", agent->getInstanceName());
  EXPECT_EQ(L"7.1", agent->getAgentVersion());
  EXPECT_EQ(L"b42", agent->getAgentBuildNumber());
  EXPECT_EQ(Unmanaged, agent->getSavedState());
  EXPECT_EQ(L"6.2.2.2", agent->getVersion());
}

TEST_F(StateFileTest, RecordsOfAllThreeLayoutsFollowEachOtherInStep) {
  writeStateFile("3\n" + recordWith("6.2.1.0").text() + recordWith("6.2.2.0").text() +
                 recordWith("6.2.2.2").text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(3u, agents.size());
  EXPECT_EQ(L"", agents[0]->getInstanceName());
  EXPECT_EQ(L"inst1", agents[1]->getInstanceName());
  EXPECT_EQ(Unmanaged, agents[1]->getSavedState());
  EXPECT_EQ(WatchdogManaged, agents[2]->getSavedState());
}

TEST_F(StateFileTest, ReadingAndWritingAgainGivesEveryRecordTheCurrentVersion) {
  Record older = recordWith("6.2.1.0");
  Record middle = recordWith("6.2.2.0");
  writeStateFile("2\n" + older.text() + middle.text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(2u, agents.size());
  {
    QorOFStream out;
    out << 2 << std::endl;
    for (Agent* agent : agents) out << *agent;
  }
  // What the older layouts lack is written as empty text and 0.
  Record olderNow = older;
  olderNow.version = "6.2.2.2";
  olderNow.instanceName = "";
  olderNow.agentVersion = "";
  olderNow.agentBuildNumber = "";
  olderNow.savedState = "0";
  Record middleNow = middle;
  middleNow.version = "6.2.2.2";
  middleNow.savedState = "0";
  EXPECT_EQ("2\n" + olderNow.text() + middleNow.text(), stateFile());
}

TEST_F(StateFileTest, WritingARecordGivesItsEighteenLinesInOrder) {
  Agent agent;
  fillAgent(agent, L"w1", Managed, OpRunning);
  {
    QorOFStream out;
    out << agent;
  }
  EXPECT_EQ("*\n6.2.2.2\nw1\nip-w1\nin-w1\nsv-w1\n1\nName w1\n4\npn-w1\n77\n3\n/p/w1\n2\nv-w1\nb-w1\n1\n*\n",
            stateFile());
}

TEST_F(StateFileTest, AStoppedAgentInTheFileKeepsItsProcessIdBecauseTheIdComesAfterTheState) {
  Record record;
  record.operatingState = "2";
  record.procID = "1234";
  writeStateFile("1\n" + record.text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(OpStopped, agents[0]->getOperatingState());
  EXPECT_EQ(1234, agents[0]->getProcID());
}

TEST_F(StateFileTest, TheWatchdogIdIsAnOrdinaryRecord) {
  writeStateFile("2\n" + recordWith("6.2.2.2", "qorwd").text() + recordWith("6.2.2.2").text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(L"qa.agent", agents[0]->getID());
  policy.setSubagentID(L"qorwd");
  agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(L"qorwd", agents[0]->getID());
  EXPECT_TRUE(agents[0]->isWatchDogAgent());
  EXPECT_EQ(L"QA agent", agents[0]->getName());
}

TEST_F(StateFileTest, OnlyRecordsWhoseIdIsTheWholeSubagentIdAreTakenInFileOrder) {
  Record first = recordWith("6.2.2.2");
  first.instanceName = "one";
  Record second = recordWith("6.2.2.2");
  second.instanceName = "two";
  writeStateFile("4\n" + first.text() + recordWith("6.2.2.2", "qa.agent.x").text() +
                 recordWith("6.2.2.2", "qa.agen").text() + second.text());
  qortest::traceTo(dir.file("trace"), 1);
  std::vector<Agent*> agents = read();
  ASSERT_EQ(2u, agents.size());
  EXPECT_EQ(L"one", agents[0]->getInstanceName());
  EXPECT_EQ(L"two", agents[1]->getInstanceName());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Number of agents in dat file = 4\n"));
  EXPECT_EQ(2, qortest::countOccurrences(trace(), "Matched Agent = qa.agent\n"));
}

TEST_F(StateFileTest, EveryRecordReadUsesUpOneGuid) {
  writeStateFile("3\n" + Record().text() + recordWith("6.2.2.2", "x").text() + Record().text());
  int before = Agent().getGUID();
  std::vector<Agent*> agents = read();
  ASSERT_EQ(2u, agents.size());
  EXPECT_EQ(before + 1, agents[0]->getGUID());
  EXPECT_EQ(before + 3, agents[1]->getGUID());
  EXPECT_EQ(before + 4, Agent().getGUID());
}

TEST_F(StateFileTest, ThePathIsExpandedWhenRead) {
  setenv("QOR_FST_TEST_ROOT", "/srv/qa", 1);
  Record record;
  record.path = "$QOR_FST_TEST_ROOT/bin";
  writeStateFile("1\n" + record.text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(L"/srv/qa/bin", agents[0]->getPath());
}

TEST_F(StateFileTest, TextOutsideAsciiIsWrittenAsUtf8AndReadBack) {
  Agent agent;
  fillAgent(agent, L"qa.agent", Managed, OpRunning);
  agent.setName(L"Agent \u00e9\u20ac\U0001F600");
  {
    QorOFStream out;
    out << 1 << std::endl;
    out << agent;
  }
  EXPECT_EQ(1, qortest::countOccurrences(stateFile(), "\nAgent \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\n"));
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(L"Agent \u00e9\u20ac\U0001F600", agents[0]->getName());
  EXPECT_EQ(L"b-qa.agent", agents[0]->getAgentBuildNumber());
}

TEST_F(StateFileTest, AMissingFileReadsAsACountOfZero) {
  qortest::traceTo(dir.file("trace"), 1);
  EXPECT_TRUE(read().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Number of agents in dat file = 0\n"));
  EXPECT_FALSE(qortest::fileExists(GetTeoDatPath()));
}

TEST_F(StateFileTest, AnEmptyFileReadsAsACountOfZero) {
  writeStateFile("");
  qortest::traceTo(dir.file("trace"), 1);
  EXPECT_TRUE(read().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Number of agents in dat file = 0\n"));
}

TEST_F(StateFileTest, RecordsMissingBehindTheCountAreDropped) {
  writeStateFile("5\n" + Record().text() + recordWith("6.2.2.0").text());
  qortest::traceTo(dir.file("trace"), 1);
  std::vector<Agent*> agents = read();
  ASSERT_EQ(2u, agents.size());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Number of agents in dat file = 5\n"));
  EXPECT_EQ(2, qortest::countOccurrences(trace(), "Matched Agent = qa.agent\n"));
}

TEST_F(StateFileTest, RecordsBeyondTheCountAreIgnored) {
  Record second;
  second.instanceName = "beyond";
  writeStateFile("1\n" + Record().text() + second.text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(L"inst1", agents[0]->getInstanceName());
}

TEST_F(StateFileTest, ANegativeCountReadsNothing) {
  writeStateFile("-3\n" + Record().text());
  qortest::traceTo(dir.file("trace"), 1);
  EXPECT_TRUE(read().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Number of agents in dat file = -3\n"));
}

TEST_F(StateFileTest, ACountThatIsNoNumberReadsAsZero) {
  writeStateFile("many\n" + Record().text());
  EXPECT_TRUE(read().empty());
}

TEST_F(StateFileTest, ACountWithTrailingTextReadsItsLeadingDigits) {
  writeStateFile("2 records\n" + Record().text() + Record().text());
  EXPECT_EQ(2u, read().size());
}

TEST_F(StateFileTest, ACountBeyondTheRangeOfIntSaturatesAndReadsTheRecordsThereAreQuickly) {
  writeStateFile("99999999999999999999\n" + Record().text() + recordWith("6.2.1.0").text());
  qortest::traceTo(dir.file("trace"), 1);
  long long start = qortest::nowMs();
  std::vector<Agent*> agents = read();
  EXPECT_LT(qortest::nowMs() - start, 2000);
  ASSERT_EQ(2u, agents.size());
  EXPECT_EQ(L"", agents[1]->getInstanceName());
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Number of agents in dat file = " + std::to_string(INT_MAX) + "\n"));
}

TEST_F(StateFileTest, ACountBelowTheRangeOfIntSaturates) {
  writeStateFile("-99999999999999999999\n" + Record().text());
  qortest::traceTo(dir.file("trace"), 1);
  EXPECT_TRUE(read().empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Number of agents in dat file = " + std::to_string(INT_MIN) + "\n"));
}

TEST_F(StateFileTest, AHugeCountMakesNoRecordsOnceTheFileHasEndedEvenForAnEmptySubagentId) {
  // An empty id would match every record made up past the end of the file;
  // none is made, so only the record that exists comes back.
  Record record;
  record.id = "";
  writeStateFile("100000\n" + record.text());
  policy.setSubagentID(L"");
  int before = Agent().getGUID();
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(L"QA agent", agents[0]->getName());
  EXPECT_EQ(before + 2, Agent().getGUID());
}

TEST_F(StateFileTest, AFileWithoutAFinalLineEndStillGivesItsLastField) {
  std::string text = Record().text();
  text.pop_back();  // the closing star's line end
  writeStateFile("1\n" + text);
  EXPECT_EQ(1u, read().size());
  std::string cut = "1\n*\n6.2.2.2\nqa.agent";
  writeStateFile(cut);
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(L"", agents[0]->getInstanceProcName());
}

TEST_F(StateFileTest, ARecordCutAfterItsIdKeepsTheFieldsReadSoFar) {
  Record record;
  std::string text = record.text();
  // Cut in the middle of the process name, line 10.
  writeStateFile("1\n" + text.substr(0, text.find("qaproc\n4321")) + "qa");
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  Agent* agent = agents[0];
  EXPECT_EQ(L"QA agent", agent->getName());
  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(L"qa", agent->getProcName());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(0, agent->getDailyRestartCount());
  EXPECT_EQ(L"", agent->getPath());
  EXPECT_EQ(L"", agent->getAgentBuildNumber());
}

TEST_F(StateFileTest, ALineOf255CharactersIsReadWholeAndALongerOneFailsTheStream) {
  std::string fits(255, 'a');
  std::string tooLong(256, 'b');
  writeStateFile(fits + "\n" + tooLong + "\nafter\n");
  QorIFStream in;
  EXPECT_EQ(std::wstring(255, L'a'), in.getlineWstring());
  EXPECT_TRUE(in.good());
  EXPECT_EQ(std::wstring(255, L'b'), in.getlineWstring());
  EXPECT_TRUE(in.fail());
  EXPECT_EQ(L"", in.getlineWstring());
  EXPECT_EQ(0, in.getlineInt());
}

TEST_F(StateFileTest, AnOverlongLineAfterTheIdKeepsTheRecordAndEndsTheReading) {
  Record first;
  first.name = std::string(300, 'n');
  writeStateFile("2\n" + first.text() + Record().text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  Agent* agent = agents[0];
  EXPECT_EQ(L"svc1", agent->getServiceInstanceName());
  EXPECT_EQ(Managed, agent->getManagedState());
  EXPECT_EQ(std::wstring(255, L'n'), agent->getName());
  EXPECT_EQ(OpUnknown, agent->getOperatingState());
  EXPECT_EQ(L"", agent->getProcName());
  EXPECT_EQ(L"", agent->getPath());
}

TEST_F(StateFileTest, AnOverlongIdDropsTheRecordAndEveryOneAfterIt) {
  Record first;
  first.id = "qa.agent" + std::string(300, 'x');
  writeStateFile("2\n" + first.text() + Record().text());
  EXPECT_TRUE(read().empty());
}

TEST_F(StateFileTest, AnUnknownVersionIsReadAsTwoLinesAndThrowsTheRestOutOfStep) {
  Record unknown = recordWith("7.0.0.0");
  writeStateFile("2\n" + unknown.text() + Record().text());
  // The second read starts at the unknown record's id line, which is no version either.
  EXPECT_TRUE(read().empty());
}

TEST_F(StateFileTest, ARecordAfterAnUnknownVersionsTwoLinesIsReadInStep) {
  writeStateFile("2\n*\n7.0.0.0\n" + Record().text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(L"QA agent", agents[0]->getName());
  writeStateFile("1\n*\n7.0.0.0\n" + Record().text());
  EXPECT_TRUE(read().empty());
}

TEST_F(StateFileTest, BytesThatAreNoUtf8EndTheReadingWhereTheyStand) {
  Record first;
  first.path = "/opt/\xff\xfe";
  Record second;
  second.instanceName = "second";
  writeStateFile("3\n" + Record().text() + first.text() + second.text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(2u, agents.size());
  EXPECT_EQ(L"/opt/qa", agents[0]->getPath());
  EXPECT_EQ(L"inst1", agents[1]->getInstanceName());
  EXPECT_EQ(2, agents[1]->getDailyRestartCount());
  // The text before the bad bytes comes through; nothing after them does.
  EXPECT_EQ(L"/opt/", agents[1]->getPath());
  EXPECT_EQ(static_cast<AgentType>(0), agents[1]->getType());
}

TEST_F(StateFileTest, StarLinesAreNotChecked) {
  std::string text = Record().text();
  text[0] = '#';
  text[text.size() - 2] = '!';
  writeStateFile("1\n" + text);
  EXPECT_EQ(1u, read().size());
}

TEST_F(StateFileTest, NumbersThatAreNoNumbersReadAsZero) {
  Record record;
  record.managedState = "yes";
  record.procID = "0x10";
  record.dailyRestartCount = " 5";
  writeStateFile("1\n" + record.text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(1u, agents.size());
  EXPECT_EQ(Unmanaged, agents[0]->getManagedState());
  EXPECT_EQ(0, agents[0]->getProcID());
  EXPECT_EQ(5, agents[0]->getDailyRestartCount());
}

TEST_F(StateFileTest, AStateOrTypeNumberOutsideItsValuesReadsAsZero) {
  Record record;
  record.managedState = "3";
  record.operatingState = "4321";
  record.type = "8";
  record.savedState = "-1";
  Record named;
  named.managedState = "2";
  named.operatingState = "7";
  named.type = "7";
  named.savedState = "1";
  writeStateFile("2\n" + record.text() + named.text());
  std::vector<Agent*> agents = read();
  ASSERT_EQ(2u, agents.size());
  EXPECT_EQ(Unmanaged, agents[0]->getManagedState());
  EXPECT_EQ(OpUnknown, agents[0]->getOperatingState());
  EXPECT_EQ(4321, agents[0]->getProcID());
  EXPECT_EQ(ZEL_UNIX, agents[0]->getType());
  EXPECT_EQ(Unmanaged, agents[0]->getSavedState());
  EXPECT_EQ(WatchdogManaged, agents[1]->getManagedState());
  EXPECT_EQ(OpNotConfigured, agents[1]->getOperatingState());
  EXPECT_EQ(ZEL_Windows, agents[1]->getType());
  EXPECT_EQ(Managed, agents[1]->getSavedState());
}

TEST_F(StateFileTest, BinaryGarbageAfterTheCountGivesNoRecordAndEndsQuickly) {
  std::string garbage;
  for (int round = 0; round < 64; ++round) {
    for (int byte = 255; byte >= 0; --byte) garbage.push_back(static_cast<char>(byte));
  }
  writeStateFile("1000000\n" + garbage);
  qortest::traceTo(dir.file("trace"), 1);
  long long start = qortest::nowMs();
  EXPECT_TRUE(read().empty());
  EXPECT_LT(qortest::nowMs() - start, 2000);
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Number of agents in dat file = 1000000\n"));
  EXPECT_EQ(0, qortest::countOccurrences(trace(), "Matched Agent"));
}
