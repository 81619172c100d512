#include "watchdog/qorlnx.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmdlnx.h"

namespace {

QorCmdLinux* manager() { return static_cast<QorCmdLinux*>(GetCmdManager()); }

// The fields of a classic stat line (41 fields, 34 of them read), numbered so
// that each field can be told apart.
std::string classicStatLine() {
  return "123 (agentd) S 1 123 123 0 -1 4194560 100 7 3 1 11 22 33 44 20 0 1 0 5000 1000000 250 "
         "18446744073709551615 26 27 28 29 30 0 0 0 0 35 36 37 17 1 0 0";
}

// A script under a shell of our own name: its process shows that name as its
// executable and the script's path in its command line.
struct ShellAgent {
  qortest::TempDir dir;
  std::string exe;
  std::string script;
  std::unique_ptr<proctest::Process> process;

  ShellAgent(const std::string& name, const std::string& body) {
    exe = proctest::copyProgram("/bin/sh", dir.file(name));
    script = dir.file(name + ".sh");
    qortest::writeFile(script, body);
    process.reset(new proctest::Process({exe, script}));
  }
  int pid() const { return process->pid(); }
};

// Waits until `parent` has `count` children whose command lines begin with
// `prefix`: a shell's children show the shell's until they exec.
bool waitForChildren(int parent, size_t count, const std::string& prefix = "") {
  return qortest::waitFor(
      [&] {
        std::vector<int> children = proctest::childrenOf(parent);
        if (children.size() != count) return false;
        for (int child : children) {
          std::string line =
              JoinCommandLine(qortest::readFile("/proc/" + std::to_string(child) + "/cmdline"));
          if (line.empty() || line.compare(0, prefix.size(), prefix) != 0) return false;
        }
        return true;
      },
      5000);
}

std::wstring realUserName() {
  struct passwd* entry = getpwuid(getuid());
  return entry == nullptr ? std::wstring() : qor_mbstowcs(entry->pw_name);
}

}  // namespace

TEST(ProcStat, AClassicLineAssigns34ItemsAndTheCPUFieldsStay) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("stat"), classicStatLine() + "\n");
  qor_proc_stat record;
  EXPECT_EQ(34, ReadStatFile(dir.file("stat").c_str(), record, false));
  EXPECT_EQ(123, record.pid);
  EXPECT_STREQ("agentd)", record.comm);
  EXPECT_EQ('S', record.state);
  EXPECT_EQ(1, record.ppid);
  EXPECT_EQ(100u, record.minflt);
  EXPECT_EQ(3u, record.majflt);
  EXPECT_EQ(11u, record.utime);
  EXPECT_EQ(22u, record.stime);
  EXPECT_EQ(33, record.cutime);
  EXPECT_EQ(44, record.cstime);
  EXPECT_EQ(5000u, record.starttime);
  EXPECT_EQ(250, record.rss);
  EXPECT_EQ(18446744073709551615ull, record.rlim);
  EXPECT_EQ(30u, record.kstkeip);
  EXPECT_EQ(35u, record.wchan);
  EXPECT_EQ(37u, record.cnswap);
  EXPECT_EQ(1, record.processor);
}

TEST(ProcStat, FourMoreNumbersMake38ItemsAndTakeTheCPUFields) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("stat"), classicStatLine() + " 61 62 63 64\n");
  qor_proc_stat record;
  EXPECT_EQ(38, ReadStatFile(dir.file("stat").c_str(), record, false));
  EXPECT_EQ(61u, record.utime);
  EXPECT_EQ(62u, record.stime);
  EXPECT_EQ(63, record.cutime);
  EXPECT_EQ(64, record.cstime);
  EXPECT_EQ(5000u, record.starttime);
}

// Linux goes on after the classic fields with block I/O delay, guest times,
// memory addresses and more: those are no CPU times, and the real ones stay.
TEST(ProcStat, ALineOfLinuxThatGoesOnPastFourMoreNumbersKeepsItsCPUFields) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("stat"),
                     classicStatLine() + " 0 0 0 94492037266992 94492037300000 0 0 0 0 0 0 0 0\n");
  qor_proc_stat record;
  EXPECT_EQ(38, ReadStatFile(dir.file("stat").c_str(), record, false));
  EXPECT_EQ(11u, record.utime);
  EXPECT_EQ(22u, record.stime);
  EXPECT_EQ(33, record.cutime);
  EXPECT_EQ(44, record.cstime);
}

// The same for a real process: the CPU times are those of fields 14 and 15.
TEST(ProcStat, TheCPUTimesOfARealProcessAreItsUtimeAndStime) {
  // Some CPU time of its own, so that the figures are not all 0.
  volatile unsigned long spin = 0;
  for (unsigned long i = 0; i < 100000000UL; ++i) spin = spin + i;
  const std::string path = "/proc/" + std::to_string(getpid()) + "/stat";
  qor_proc_stat record;
  ASSERT_GE(ReadStatFile(path.c_str(), record, false), 34) << qortest::readFile(path);
  const std::string line = qortest::readFile(path);
  std::istringstream fields(line.substr(line.rfind(')') + 2));
  std::string field;
  std::vector<std::string> after;
  while (fields >> field) after.push_back(field);
  ASSERT_GT(after.size(), 13u);
  // Fields 14 and 15 of the line, the 12th and 13th after the name.
  const unsigned long long utime = std::stoull(after[11]);
  const unsigned long long stime = std::stoull(after[12]);
  EXPECT_GT(utime, 0u);
  EXPECT_LE(record.utime, utime);
  EXPECT_GE(record.utime + 2, utime);
  EXPECT_LE(record.stime, stime);
}

TEST(ProcStat, TheBriefScanReadsFourItems) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("stat"), classicStatLine() + "\n");
  qor_proc_stat record;
  record.utime = 99;
  EXPECT_EQ(4, ReadStatFile(dir.file("stat").c_str(), record, true));
  EXPECT_EQ(123, record.pid);
  EXPECT_EQ(1, record.ppid);
  EXPECT_EQ(99u, record.utime);
}

TEST(ProcStat, ANameWithABlankStopsTheScanAndLeavesTheRestAsItWas) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("stat"), "123 (my agent) S 1 123 123 0 -1 4194560 100 7 3 1 11 22\n");
  qor_proc_stat record;
  record.ppid = 77;
  EXPECT_EQ(3, ReadStatFile(dir.file("stat").c_str(), record, false));
  EXPECT_STREQ("my", record.comm);
  EXPECT_EQ('a', record.state);
  EXPECT_EQ(77, record.ppid);
}

TEST(ProcStat, AMissingFileLeavesTheRecordWithATrace) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR);
  qor_proc_stat record;
  record.ppid = 77;
  EXPECT_EQ(-1, ReadStatFile(dir.file("none").c_str(), record, false));
  EXPECT_EQ(77, record.ppid);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Error: file open failed " + dir.file("none") + ", errno = 2"));
}

TEST(ProcStat, TheLiveStatOfThisProcess) {
  qor_proc_stat record;
  GetStatData(getpid(), record, false);
  EXPECT_EQ(getpid(), record.pid);
  EXPECT_EQ(getppid(), record.ppid);
  EXPECT_GT(record.starttime, 0u);
}

TEST(ProcStatm, TheSevenNumbers) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("statm"), "100 50 20 10 0 30 0\n");
  qor_memory_stat record;
  EXPECT_EQ(7, ReadStatMFile(dir.file("statm").c_str(), record));
  EXPECT_EQ(100, record.size);
  EXPECT_EQ(50, record.resident);
  EXPECT_EQ(30, record.data);
}

TEST(ProcStatus, AStatusWithoutThreadsHasTheUidAndNoThreadCount) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("status"),
                     "Name:\tagentd\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t123\nPid:\t123\nPPid:\t1\n"
                     "Groups:\t" +
                         std::string(150, '7') +
                         "\nUid:\t1000\t1001\t1002\t1003\nGid:\t5\t5\t5\t5\n"
                         "VmSize:\t  1000 kB\n");
  qor_status_stat record;
  record.threads = 9;
  record.threadsFound = true;
  ReadStatusFile(dir.file("status").c_str(), record);
  EXPECT_EQ(1000, record.uid);
  EXPECT_FALSE(record.threadsFound);
  EXPECT_EQ(0, record.threads);
}

TEST(ProcStatus, AStatusWithThreads) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("status"), "Name:\tagentd\nUid:\t0\t0\t0\t0\nThreads:\t7\nSigQ:\t0/1\n");
  qor_status_stat record;
  ReadStatusFile(dir.file("status").c_str(), record);
  EXPECT_EQ(0, record.uid);
  EXPECT_TRUE(record.threadsFound);
  EXPECT_EQ(7, record.threads);
}

TEST(ProcCommandLine, TwoArgumentsEachFollowedByANulJoinWithOneBlank) {
  EXPECT_EQ("agentd -c", JoinCommandLine(std::string("agentd\0-c\0", 10)));
  EXPECT_EQ("", JoinCommandLine(std::string("\0\0", 2)));
  EXPECT_EQ("", JoinCommandLine(""));
}

TEST(ProcCommandLine, TheCommandLineOfALiveProcessAndOfOneThatHasGone) {
  qortest::TempDir dir;
  std::string exe = proctest::copyProgram("/bin/sleep", dir.file("qorcmdline"));
  int gonePid;
  {
    proctest::Process process({exe, "20"});
    ASSERT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(process.pid(), exe); }, 2000));
    EXPECT_EQ(qor_mbstowcs((exe + " 20").c_str()), GetCommandLine(process.pid()));
    EXPECT_EQ(qor_mbstowcs(exe.c_str()), GetExecutablePath(process.pid(), L""));
    gonePid = process.pid();
  }
  EXPECT_EQ(L"", GetCommandLine(gonePid));
  EXPECT_EQ(L"", GetExecutablePath(gonePid, L""));
}

TEST(ProcCommandLine, AFileThatCannotBeReadGivesNothingAndATrace) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR);
  std::string contents = "old";
  GetFileContents(dir.file("none"), contents);
  EXPECT_EQ("", contents);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Error: file read failed, errno = 2"));
}

TEST(ProcessTable, EveryProcessIsListedByDirectoryAndNameAndAnUnreadableOneWithNeither) {
  qortest::TempDir dir;
  std::string exe = proctest::copyProgram("/bin/sleep", dir.file("qorlisted"));
  proctest::Process listed({exe, "20"});
  ASSERT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(listed.pid(), exe); }, 2000));
  // A process that has ended but was not reaped has no executable link.
  int zombie = fork();
  if (zombie == 0) _exit(0);
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        std::string stat = qortest::readFile("/proc/" + std::to_string(zombie) + "/stat");
        return stat.find(") Z ") != std::string::npos;
      },
      2000));

  std::vector<QorProcess*> processes;
  manager()->getRunningProcesses(processes);
  bool sawListed = false, sawZombie = false;
  for (QorProcess* process : processes) {
    if (process->getProcID() == listed.pid()) {
      sawListed = true;
      EXPECT_EQ(qor_mbstowcs(dir.path().c_str()), process->getPath());
      EXPECT_EQ(L"qorlisted", process->getInstanceProcName());
      EXPECT_EQ(L"", process->getCmdLine());
    }
    if (process->getProcID() == zombie) {
      sawZombie = true;
      EXPECT_EQ(L"", process->getPath());
      EXPECT_EQ(L"", process->getInstanceProcName());
    }
    delete process;
  }
  waitpid(zombie, nullptr, 0);
  EXPECT_TRUE(sawListed);
  EXPECT_TRUE(sawZombie);
}

TEST(ThreadChildren, AProcessWhoseParentIsProcessOneIsNeverAThreadChild) {
  // An orphan is taken over by process 1.
  int orphan = 0;
  int pipeFds[2];
  ASSERT_EQ(0, pipe(pipeFds));
  int middle = fork();
  if (middle == 0) {
    int grandchild = fork();
    if (grandchild == 0) {
      execl("/bin/sleep", "sleep", "20", static_cast<char*>(nullptr));
      _exit(127);
    }
    if (write(pipeFds[1], &grandchild, sizeof grandchild) != sizeof grandchild) _exit(1);
    _exit(0);
  }
  ASSERT_EQ(static_cast<ssize_t>(sizeof orphan), read(pipeFds[0], &orphan, sizeof orphan));
  waitpid(middle, nullptr, 0);
  close(pipeFds[0]);
  close(pipeFds[1]);
  qor_proc_stat record;
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        GetStatData(orphan, record, true);
        return record.ppid != middle;
      },
      2000));
  if (record.ppid != 1) {
    proctest::killProcess(orphan);
    GTEST_SKIP() << "orphans go to a subreaper here, not to process 1";
  }
  // Even the very command line of process 1 does not make it a thread child.
  EXPECT_FALSE(IsThreadChildProcess(orphan, GetCommandLine(1)));
  proctest::killProcess(orphan);
}

TEST(ThreadChildren, AChildWithItsParentsCommandLineIsAThreadChildAndTheParentIsNot) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  ShellAgent agent("qorthreads", "{ sleep 20; :; } &\n{ sleep 20; :; } &\nwait\n");
  ASSERT_TRUE(waitForChildren(agent.pid(), 2));
  std::wstring commandLine = GetCommandLine(agent.pid());
  std::vector<int> threads = proctest::childrenOf(agent.pid());
  ASSERT_EQ(2u, threads.size());
  for (int thread : threads) {
    EXPECT_EQ(commandLine, GetCommandLine(thread));
    EXPECT_TRUE(IsThreadChildProcess(thread, commandLine));
  }
  EXPECT_FALSE(IsThreadChildProcess(agent.pid(), commandLine));
  EXPECT_EQ(2, manager()->getThreadChildProcessCount(agent.pid(), commandLine));
  EXPECT_EQ(1,
            qortest::countOccurrences(qortest::readFile(trace.file("trace")),
                                      "Process pid " + std::to_string(threads[0]) + " is child process\n"));
}

TEST(ChildProcesses, AllDescendantsComeDepthFirst) {
  ShellAgent agent("qorparent", "{ sleep 20; :; } &\n{ sleep 20; :; } &\nwait\n");
  ASSERT_TRUE(waitForChildren(agent.pid(), 2));
  std::vector<int> subshells = proctest::childrenOf(agent.pid());
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return proctest::childrenOf(subshells[0]).size() == 1 &&
               proctest::childrenOf(subshells[1]).size() == 1;
      },
      5000));
  std::vector<int> descendants = manager()->getChildProcesses(agent.pid());
  ASSERT_EQ(4u, descendants.size());
  EXPECT_EQ(proctest::childrenOf(descendants[0]), std::vector<int>{descendants[1]});
  EXPECT_EQ(proctest::childrenOf(descendants[2]), std::vector<int>{descendants[3]});
  std::vector<int> firstLevel{descendants[0], descendants[2]};
  std::sort(firstLevel.begin(), firstLevel.end());
  std::sort(subshells.begin(), subshells.end());
  EXPECT_EQ(subshells, firstLevel);
}

TEST(ChildProcesses, TheWatchdogProcessCollectsNone) {
  qortest::TempDir trace;
  ShellAgent agent("qorwdparent", "sleep 20 &\nsleep 20 &\nwait\n");
  ASSERT_TRUE(waitForChildren(agent.pid(), 2));
  Controller::setWatchDogMode();
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL | QOR_TL_ERROR);
  EXPECT_TRUE(manager()->getChildProcesses(agent.pid()).empty());
  EXPECT_EQ(0, qortest::countOccurrences(qortest::readFile(trace.file("trace")), "Found child process"));
}

TEST(UpTime, TheUpTimeIsReadOnceAndThenKept) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  double seconds = 0;
  ASSERT_EQ(1, sscanf(qortest::readFile("/proc/uptime").c_str(), "%lf", &seconds));
  unsigned long first = manager()->getUpTime();
  EXPECT_LE(std::llabs(static_cast<long long>(first) - static_cast<long long>(seconds) * 100), 100);
  EXPECT_EQ(0u, first % 100);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(first, manager()->getUpTime());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(trace.file("trace")), "up time < "));
}

TEST(ProcessOwner, TheUserOfAProcessIsItsOwnersName) {
  qortest::TempDir dir;
  std::string exe = proctest::copyProgram("/bin/sleep", dir.file("qorowned"));
  proctest::Process process({exe, "20"});
  EXPECT_EQ(realUserName(), manager()->getUserID(process.pid(), nullptr));
}

TEST(RuntimeData, MemorySumsTheMainProcessSizeOnceForItselfAndOnceForEachDescendant) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  ShellAgent shell("qormemory", "sleep 20 &\nsleep 20 &\nwait\n");
  ASSERT_TRUE(waitForChildren(shell.pid(), 2, "sleep"));
  Agent agent;
  Policy* policy = new Policy();
  policy->setCPUThreshold(50);
  agent.setPolicy(policy);
  agent.setProcID(shell.pid());
  agent.setCmdLine(GetCommandLine(shell.pid()));

  qor_memory_stat main;
  GetStatMData(shell.pid(), main);
  qor_memory_stat child;
  GetStatMData(proctest::childrenOf(shell.pid())[0], child);
  ASSERT_NE(main.size, child.size);  // a sleep is not the size of a shell
  const unsigned long page = static_cast<unsigned long>(getpagesize());

  manager()->collectRuntimeData(&agent, nullptr);
  EXPECT_EQ(3 * static_cast<unsigned long>(main.size) * page, agent.getTotalMemSizeBytes());
  EXPECT_EQ(static_cast<unsigned long>(main.size), agent.getMemSizePages());
  EXPECT_EQ(static_cast<unsigned long>(main.size) * page, agent.getMemSizeBytes());
  EXPECT_EQ(1u, agent.getThreadCount());
  EXPECT_EQ(static_cast<long>(getpid()), agent.getParentProcID());
  std::string text = qortest::readFile(trace.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(
                   text, "collectRuntimeData -- input pid=" + std::to_string(shell.pid()) + " \n"));
  EXPECT_EQ(2, qortest::countOccurrences(text, " (child)\n"));
}

TEST(RuntimeData, APolicyWithoutThresholdsSkipsTheDescendants) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  ShellAgent shell("qornolimit", "sleep 20 &\nwait\n");
  ASSERT_TRUE(waitForChildren(shell.pid(), 1));
  Agent agent;
  Policy* policy = new Policy();
  policy->setSubagentID(L"nolimit");
  agent.setPolicy(policy);
  agent.setProcID(shell.pid());
  manager()->collectRuntimeData(&agent, nullptr);
  qor_memory_stat main;
  GetStatMData(shell.pid(), main);
  EXPECT_EQ(static_cast<unsigned long>(main.size) * static_cast<unsigned long>(getpagesize()),
            agent.getTotalMemSizeBytes());
  std::string text = qortest::readFile(trace.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(text, "Skipping children data collection for policy nolimit\n"));
  EXPECT_EQ(0, qortest::countOccurrences(text, "(child)"));
}

TEST(RuntimeData, TheWatchdogsOwnPolicySkipsTheDescendants) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  ShellAgent shell("qorwdself", "sleep 20 &\nwait\n");
  ASSERT_TRUE(waitForChildren(shell.pid(), 1));
  Agent agent;
  Policy* policy = new Policy();
  policy->setGeneric(false);
  policy->setProductCode(L"qd");
  policy->setMemoryThreshold(1, MEM_GB);
  agent.setPolicy(policy);
  agent.setProcID(shell.pid());
  long lastChecked = static_cast<long>(time(nullptr)) - 10;
  manager()->collectRuntimeData(&agent, &lastChecked);
  EXPECT_EQ(0, qortest::countOccurrences(qortest::readFile(trace.file("trace")), "(child)"));
}

namespace {

bool listedByTheWalk(int pid) {
  std::vector<int> ids;
  EXPECT_TRUE(ReadProcessIDs(ids));
  return std::find(ids.begin(), ids.end(), pid) != ids.end();
}

}  // namespace

TEST(ProcessIDs, AKnownProcessIsFoundWithoutTheWalkAsTheWalkFindsIt) {
  proctest::Process sleeper({"/bin/sleep", "30"});
  std::vector<int> ids;
  EXPECT_TRUE(ReadProcessID(sleeper.pid(), ids));
  EXPECT_EQ(std::vector<int>{sleeper.pid()}, ids);
  EXPECT_TRUE(listedByTheWalk(sleeper.pid()));
}

TEST(ProcessIDs, AProcessThatHasGoneIsNotFoundAndNotTraced) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR | QOR_TL_DETAIL);
  int pid = 0;
  {
    proctest::Process brief({"/bin/true"});
    pid = brief.pid();
  }
  ASSERT_TRUE(qortest::waitFor([&] { return !listedByTheWalk(pid); }, 5000));
  std::vector<int> ids{7};
  EXPECT_TRUE(ReadProcessID(pid, ids));
  EXPECT_EQ(std::vector<int>{7}, ids);  // appended to, never cleared
  EXPECT_EQ("", qortest::readFile(dir.file("trace")));
}

TEST(ProcessIDs, AThreadOfAProcessIsNotListedEitherWay) {
  std::atomic<int> tid{0};
  std::atomic<bool> done{false};
  std::thread thread([&] {
    tid = static_cast<int>(gettid());
    while (!done) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  });
  ASSERT_TRUE(qortest::waitFor([&] { return tid != 0; }, 5000));
  std::vector<int> ids;
  EXPECT_TRUE(ReadProcessID(tid, ids));
  EXPECT_TRUE(ids.empty());
  EXPECT_FALSE(listedByTheWalk(tid));
  // The process it belongs to is.
  EXPECT_TRUE(ReadProcessID(getpid(), ids));
  EXPECT_EQ(std::vector<int>{getpid()}, ids);
  done = true;
  thread.join();
}

TEST(ProcessIDs, NoughtAndNegativeIdsAreNeverListed) {
  std::vector<int> ids;
  EXPECT_TRUE(ReadProcessID(0, ids));
  EXPECT_TRUE(ReadProcessID(-1, ids));
  EXPECT_TRUE(ids.empty());
}
