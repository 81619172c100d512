#include "watchdog/qorcmdunx.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qordeadline.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "watchdog/qorusr.h"
#include "watchdog/qorwdproc.h"

QOR_TRACE_UNIT();

const char* SH_PATH = "/bin/sh";

FILE* qor_popen(const char* command, int& pid) {
  int fds[2];
  // Close-on-exec keeps this pipe out of the children that other threads
  // start meanwhile: one of them living on would otherwise hold it open.
  if (pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  pid = fork();
  if (pid < 0) return nullptr;
  if (pid == 0) {
    // The child is a copy of this thread, with any cancellation request that
    // the shutdown made of it. Acted on at the next cancellation point, it
    // would unwind the parent's frames in the copy instead of running the
    // command; the child only ever execs or leaves.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    close(fds[0]);
    if (fds[1] != 1) {
      dup2(fds[1], 1);  // the copy does not inherit close-on-exec
      close(fds[1]);
    } else {
      fcntl(1, F_SETFD, 0);
    }
    UnblockSignals();
    execl(SH_PATH, "sh", "-c", command, static_cast<char*>(nullptr));
    // Kept: a shell that cannot be run reads as success with no output.
    // _exit, not exit: the child must not run this process's exit handlers nor
    // flush the stdio buffers it inherited.
    _exit(0);
  }
  close(fds[1]);
  return fdopen(fds[0], "r");
}

int qor_pclose(FILE* stream, int pid) {
  if (fclose(stream) != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) == -1) {
    if (errno != EINTR && errno != EAGAIN) return -1;
  }
  return status;
}

QorCmdUNIX::QorCmdUNIX() = default;

QorCmdUNIX::~QorCmdUNIX() = default;

struct QorCmdUNIX::PollOutcome {
  int remaining = 0;  // the whole seconds of the budget left at the last pass
  bool timedOut = false;
  bool appStarted = false;
  bool outputEnded = false;  // the last read found the end of the script's output
  bool shutdown = false;
  int readError = 0;
  int childStatus = -1;  // -1: the child was not reaped in the loop

  bool normalEnd() const { return !timedOut && readError == 0 && !appStarted && !shutdown; }
};

int QorCmdUNIX::executeCmd(const std::wstring& command, std::string& output, QorScript* script,
                           Agent* agent) {
  QOR_TRACE_FUNCTION();
  std::string narrow = qor_narrow(command);
  int pid = -1;
  FILE* stream = qor_popen(narrow.c_str(), pid);
  if (stream == nullptr) {
    QOR_TRACE_ERROR("Error: qor_popen failed, errno = %d", errno);
    return QOR_TRACE_RETURN(-1);
  }
  PollOutcome end;
  end.remaining = timeout;
  if (agent != nullptr && agent->availCheckRetryEnabled()) end.remaining *= 2;
  pollCommand(stream, pid, script, agent, output, end);
  int result =
      end.normalEnd() ? finishCommand(stream, pid, end) : abandonCommand(stream, pid, script, agent, end);
  if (result == -1 && !end.normalEnd() && !end.shutdown) {
    result = QOR_CMD_TIMED_OUT;
    QOR_TRACE_ERROR("Command did not finish within timeout - cmd = %s", narrow.c_str());
  }
  return QOR_TRACE_RETURN(result);
}

void QorCmdUNIX::pollCommand(FILE* stream, int pid, QorScript* script, Agent* agent, std::string& output,
                             PollOutcome& end) {
  QOR_TRACE_FUNCTION();
  const bool noMaps = script->emptyRCs();
  auto shuttingDown = [&] {
    if (!controller->isShuttingDown()) return false;
    QOR_TRACE_DETAIL("Shutdown -- before sleep.\n");
    end.shutdown = true;
    return true;
  };
  int descriptor = fileno(stream);
  fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
  // Unbuffered, so that all output read is in `output` and none hides in the
  // stream's buffer while the next pass waits on the pipe for more.
  setvbuf(stream, nullptr, _IONBF, 0);

  // Each pass waits up to a second on the pipe and goes on as soon as output
  // or its end arrives; the budget is a deadline, not a count of passes.
  const QorDeadline deadline{std::chrono::seconds(end.remaining)};
  bool firstPass = true;
  char buffer[1024];
  while (!feof(stream)) {
    end.remaining = deadline.wholeSecondsLeft();
    if (end.remaining == 0) {
      end.timedOut = true;
      return;
    }
    QOR_TRACE_DETAIL("Waiting for command to complete for %d seconds.\n", end.remaining);
    if (shuttingDown()) return;
    if (!firstPass) QOR_WaitReadable(descriptor, deadline.nextWaitMs(1000));
    if (shuttingDown()) return;
    firstPass = false;

    // The error and end-of-file flags are sticky: clear them so that they
    // tell of this read only.
    clearerr(stream);
    errno = 0;
    size_t bytes = fread(buffer, 1, sizeof buffer, stream);
    if (bytes > 0) {
      QOR_TRACE_DETAIL("Command bytes read without error. %d\n", static_cast<int>(bytes));
      output.append(buffer, bytes);
      continue;
    }
    end.outputEnded = feof(stream) != 0;
    if (ferror(stream)) {
      int error = errno;
      QOR_TRACE_DETAIL("There is an error returned from reading buffer. %d\n", error);
      if (error != EAGAIN && error != EINTR) {
        end.readError = error;
        return;
      }
      // A script that has ended while a process it started still holds the
      // pipe never reaches end-of-file: ask for the script itself.
      int status = 0;
      if (!output.empty() && waitpid(pid, &status, WNOHANG) == pid) {
        QOR_TRACE_DETAIL("Child pid %d is no longer running, rc = %d", pid, status);
        end.childStatus = status;
        return;
      }
    }
    // The start script of a daemon may never end: it is done once the
    // application runs.
    if (script->isStartCommand() && noMaps && isAppRunning(agent)) {
      end.appStarted = true;
      return;
    }
  }
}

int QorCmdUNIX::finishCommand(FILE* stream, int pid, const PollOutcome& end) {
  QOR_TRACE_FUNCTION();
  int status = end.childStatus;
  if (status != -1) {
    keepStream(stream);
  } else {
    status = qor_pclose(stream, pid);
  }
  if (status == -1) {
    QOR_TRACE_ERROR("qor_pclose failed - errno %d", errno);
    return QOR_TRACE_RETURN(-1);
  }
  QOR_TRACE_DETAIL("qor_pclose returned %d", status);
  // Kept: a shell killed by a signal has 0 here, and so reads as success.
  return QOR_TRACE_RETURN((status & 0xff00) >> 8);
}

namespace {

bool drainedToEnd(FILE* stream);

// Whether the child `pid` ends within a second; reaped if so.
bool reapedSoon(int pid) {
  const QorDeadline deadline{std::chrono::seconds(1)};
  while (waitpid(pid, nullptr, WNOHANG) != pid) {
    if (deadline.passed()) return false;
    usleep(10000);
  }
  return true;
}

// Whether every writer of `stream` closes it within a second. The script has
// ended, but a child that another thread forked meanwhile holds a copy of the
// pipe until it runs its own program.
bool endsSoon(FILE* stream) {
  const QorDeadline deadline{std::chrono::seconds(1)};
  while (!drainedToEnd(stream)) {
    if (deadline.passed()) return false;
    usleep(10000);
  }
  return true;
}

}  // namespace

int QorCmdUNIX::abandonCommand(FILE* stream, int pid, QorScript* script, Agent* agent,
                               const PollOutcome& end) {
  QOR_TRACE_FUNCTION();
  if (end.appStarted) {
    // The script that started the application has mostly ended by now, or
    // ends in a moment: reaped here, it leaves no zombie behind, and once its
    // output has ended no open pipe either. Only the discovery pass cleans
    // the kept ones, and an embedded service without discovery would gain
    // one of each with every restart, until it could open no pipe and
    // restart nothing more. A script that goes on running is kept as before.
    if (!reapedSoon(pid)) {
      addDefunctProcess(pid, stream);
    } else if (end.outputEnded || endsSoon(stream)) {
      fclose(stream);
    } else {
      keepStream(stream);  // a process the script started still holds the pipe
    }
    return QOR_TRACE_RETURN(0);
  }
  // A start that ran out of time still succeeded if the application runs, a
  // stop if it is gone. Without an agent neither can be known, and the
  // command counts as not finished.
  int result = -1;
  if (script->isStartCommand() && isAppRunning(agent)) {
    result = 0;
  } else if (script->isStopCommand() && agent != nullptr && !isAppRunning(agent)) {
    result = 0;
  }
  if (!end.timedOut) {
    qor_pclose(stream, pid);
  } else {
    addDefunctProcess(pid, stream);
  }
  if (end.shutdown) QOR_TRACE_DETAIL("Shutdown processing.");
  return QOR_TRACE_RETURN(result);
}

void QorCmdUNIX::addDefunctProcess(int pid, FILE* stream) {
  QorMutexLock lock(&defunctMutex);
  defunctProcesses.push_back(pid);
  keptStreams.push_back(stream);
}

void QorCmdUNIX::keepStream(FILE* stream) {
  QorMutexLock lock(&defunctMutex);
  keptStreams.push_back(stream);
}

std::vector<int> QorCmdUNIX::getDefunctProcesses() {
  QorMutexLock lock(&defunctMutex);
  return defunctProcesses;
}

namespace {

// Reads what waits in a kept stream, so that its writer never blocks on a
// full pipe; true once every writer has closed it.
bool drainedToEnd(FILE* stream) {
  char buffer[1024];
  clearerr(stream);
  while (fread(buffer, 1, sizeof buffer, stream) > 0) {
  }
  return feof(stream) != 0;
}

}  // namespace

void QorCmdUNIX::cleanUpDefunctProcesses() {
  QOR_TRACE_FUNCTION();
  QorMutexLock lock(&defunctMutex);
  for (auto it = defunctProcesses.begin(); it != defunctProcesses.end();) {
    if (waitpid(*it, nullptr, WNOHANG) == *it) {
      QOR_TRACE_DETAIL("Child pid %d is not running", *it);
      it = defunctProcesses.erase(it);
    } else {
      ++it;
    }
  }
  for (auto it = keptStreams.begin(); it != keptStreams.end();) {
    if (drainedToEnd(*it)) {
      fclose(*it);
      it = keptStreams.erase(it);
    } else {
      ++it;
    }
  }
}

bool QorCmdUNIX::serializeCommand(const std::wstring& command) {
  auto holds = [&command](const std::wstring& marker) { return command.find(marker) != std::wstring::npos; };
  if (holds(ZEL_CMD_STR)) return true;
  return holds(AGENT_INST_CMD_STR) && (holds(AGENT_INST_CMD_START) || holds(AGENT_INST_CMD_STOP));
}

int QorCmdUNIX::appStop(const std::wstring& name, int pid, Policy* policy) {
  QOR_TRACE_FUNCTION();
  // Opening the application again checks, at the moment of the kill, that the
  // process id still belongs to that name.
  std::wstring processName = name;
  std::wstring instance;
  std::wstring commandLine;
  int target = pid;
  QorAppHandle handle = openApplication(processName, L"", instance, target, commandLine, policy);
  if (handle == nullptr) {
    QOR_TRACE_DETAIL("Application %s (pid = %d) not found.\n", QOR_N(name), pid);
    return QOR_TRACE_RETURN(0);
  }
  kill(target, SIGTERM);
  int status = 0;
  errno = 0;
  int reaped = waitpid(target, &status, WNOHANG);
  int error = errno;
  QOR_TRACE_DETAIL("retpid %d - errno %d", reaped, error);
  // A process that is not our child cannot be waited for: SIGTERM is all it
  // gets. Our child that has not died at once gets SIGKILL.
  if (reaped == target || error == ECHILD) {
    QOR_TRACE_DETAIL("Application ended with SIGTERM.");
  } else {
    QOR_TRACE_DETAIL("Application did not end with SIGTERM. Retry using SIGKILL");
    kill(target, SIGKILL);
  }
  closeApplication(handle);
  return QOR_TRACE_RETURN(0);
}

int QorCmdUNIX::getAppOperatingState(std::wstring processName, std::wstring instanceName, std::wstring path,
                                     int& pid, Policy* policy) {
  QOR_TRACE_FUNCTION();
  int state = OpStopped;
  std::wstring commandLine;
  QorAppHandle handle = openApplication(processName, path, instanceName, pid, commandLine, policy);
  if (handle != nullptr) {
    state = OpRunning;
    closeApplication(handle);
  }
  return QOR_TRACE_RETURN(state);
}

namespace {

// Runs a service script for its return code alone.
int runForCode(QorCmd* manager, QorScript& script, Agent* agent) {
  std::wstring output;
  return manager->executeCmd(&script, output, agent);
}

}  // namespace

int QorCmdUNIX::systemStart(const std::wstring& name, Agent* agent) {
  QorScript script = getSystemStartScript(name);
  script.setIsStartCommand();
  return runForCode(this, script, agent);
}

int QorCmdUNIX::systemStop(const std::wstring& name) {
  QorScript script = getSystemStopScript(name);
  script.setIsStopCommand();
  return runForCode(this, script, nullptr);
}

int QorCmdUNIX::getSystemOperatingState(const std::wstring& name) {
  QorScript script = getSystemIsUpScript(name);
  if (script.empty()) return 0;
  return runForCode(this, script, nullptr) == 0 ? OpRunning : OpStopped;
}

namespace {

// Serialises the lookups that miss the cache, so that threads asking at once
// for the same unknown id cause one passwd lookup between them.
QorMutex userLookupMutex(QorMutex::kNeverDestroyed);

}  // namespace

std::wstring QorCmdUNIX::idToUserName(int id) {
  std::wstring name = GetIDUserName(id);
  if (!name.empty()) return name;
  QorMutexLock lock(&userLookupMutex);
  // Another thread may have looked the id up while this one waited.
  name = GetIDUserName(id);
  if (!name.empty()) return name;
  name = GetUserNameFromID(id);
  // Cached like a name, so that an id without a passwd entry is asked for once.
  if (name.empty()) name = L"NOT_AVAILABLE";
  SetIDUserName(id, name);
  return name;
}
