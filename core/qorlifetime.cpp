#include "core/qorlifetime.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "agents/qorfst.h"
#include "core/qorctrl.h"
#include "core/qormsghand.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "watchdog/qorunx.h"
#include "watchdog/qorwdproc.h"

QOR_TRACE_UNIT();

QOR_QueryService* QOR_QueryService::m_pQSInstance = nullptr;
int QOR_QueryService::m_referenceCount = 0;
std::atomic<bool> QOR_QueryService::m_bIsStarted(false);
std::atomic<bool> QOR_QueryService::m_bIsInitialized(false);

namespace {

// Splits at each ":" and appends "/" to each piece.
// Kept: an empty piece, from a leading, trailing or doubled ":", gives the entry "/", which stays.
std::vector<std::wstring> splitCapDirs(const std::wstring& value) {
  std::vector<std::wstring> entries;
  size_t start = 0;
  for (;;) {
    size_t colon = value.find(L':', start);
    std::wstring piece =
        value.substr(start, colon == std::wstring::npos ? std::wstring::npos : colon - start);
    entries.push_back(piece + L"/");
    if (colon == std::wstring::npos) break;
    start = colon + 1;
  }
  return entries;
}

// The directory of an entry: the text before its last "/".
std::wstring beforeLastSlashOrWhole(const std::wstring& entry) {
  size_t slash = entry.rfind(L'/');
  return slash == std::wstring::npos ? entry : entry.substr(0, slash);
}

// The reason of the last failed call, for an error trace. A stream that
// failed without a failing system call reads as an I/O error.
const char* failureText() { return strerror(errno != 0 ? errno : EIO); }

// The count line, then the records of both lists in list order. Gives up each
// list lock as soon as that list is written.
// Requires: both list locks held by the caller.
void writeStateRecords(QorOFStream& out, ManagedProcessList* managed, ManagedProcessList* watched) {
  QOR_TRACE_FUNCTION();
  out << (managed->size() + watched->size()) << std::endl;
  if (!managed->empty()) {
    QOR_TRACE_STORY("Agent state being persisted to disk.\n");
    for (Agent* agent : *managed) out << *agent;
  }
  managed->unlockList();
  if (!watched->empty()) {
    QOR_TRACE_STORY("os agent being persisted to disk.\n");
    for (Agent* agent : *watched) out << *agent;
  }
  watched->unlockList();
}

// Forces a file's data to disk through a descriptor of its own: the stream
// that wrote it gives none.
bool syncPath(const std::string& path, int flags) {
  int fd = open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return false;
  int rc = fsync(fd);
  int error = errno;
  close(fd);
  errno = error;
  return rc == 0;
}

// The directory part of a path: "." when it has no slash, "/" for a file at the root.
std::string directoryOrDot(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Syncs the written temporary and renames it over the state file; on a
// failure the temporary goes and the old state file stays.
void replaceStateFile(const std::string& temporary, const std::string& target) {
  QOR_TRACE_FUNCTION();
  if (!syncPath(temporary, O_WRONLY)) {
    QOR_TRACE_ERROR("Cannot sync the state file %s: %s\n", temporary.c_str(), failureText());
    unlink(temporary.c_str());
    return;
  }
  if (rename(temporary.c_str(), target.c_str()) != 0) {
    QOR_TRACE_ERROR("Cannot rename %s to the state file %s: %s\n", temporary.c_str(), target.c_str(),
                    failureText());
    unlink(temporary.c_str());
    return;
  }
  // The rename itself lasts a power loss only once the directory is synced.
  if (!syncPath(directoryOrDot(target), O_RDONLY | O_DIRECTORY)) {
    QOR_TRACE_ERROR("Cannot sync the directory of the state file %s: %s\n", target.c_str(), failureText());
  }
}

}  // namespace

void InitializeTEO() {
  QOR_TRACE_FUNCTION();
  Controller* controller = Controller::getController();
  if (Controller::isWatchDogMode()) InitializeWatchdog();

  std::wstring raw = QOR_GetEnvironment(L"QOR_CAP_DIR");
  std::wstring expanded = ReplaceEnvVariables(raw);
  std::vector<std::wstring> entries;

  if (raw.empty()) {
    // Kept: the TEO directory stays empty on this path, so the state file lies at "/teo.dat".
    QOR_TRACE_STORY("No QOR_CAP_DIR. Using .%sCAP\n", "/");
    entries.push_back(L"./CAP");
  } else {
    QOR_TRACE_STORY("QOR_CAP_DIR = %s.\n", QOR_N(expanded));
    entries = splitCapDirs(expanded);
    bool found = false;
    for (const std::wstring& entry : entries) {
      if (FileExists(beforeLastSlashOrWhole(entry))) {
        controller->setTEODirPath(entry);
        QOR_TRACE_STORY("TEO directory = %s.\n", QOR_N(entry));
        found = true;
        break;
      }
    }
    if (!found) {
      QOR_TRACE_STORY("None of the paths defined in QOR_CAP_DIR exist on the system. Using .%sCAP\n", "/");
      entries.push_back(L"./CAP");
      controller->setTEODirPath(L"./CAP");
    }
  }
  controller->setCAPDirPaths(entries);
}

void StartTEO() { Controller::getController()->startTEOThread(); }

void PersistTEO() {
  QOR_TRACE_FUNCTION();
  if (Controller::isWatchDogMode()) return;  // the watchdog process never writes the state file
  Controller* controller = Controller::getController();
  ManagedProcessList* managed = controller->getManagedEndpointProcesses();
  ManagedProcessList* watched = controller->getWatchdogList();
  if (!managed->lockList()) return;
  if (!watched->lockList()) {
    managed->unlockList();
    return;
  }
  // The records go to a temporary beside the state file, which replaces the
  // state file only once it is whole and on disk: a crash, a kill or a full
  // disk in the middle of the writing leaves the old file as it was.
  const std::string target = GetTeoDatPath();
  const std::string temporary = target + ".tmp";
  errno = 0;
  QorOFStream out(temporary);
  if (!out.is_open()) {
    QOR_TRACE_ERROR("Cannot open %s to write the state file: %s\n", temporary.c_str(), failureText());
    managed->unlockList();
    watched->unlockList();
    return;
  }
  writeStateRecords(out, managed, watched);
  out.close();
  if (out.fail()) {
    QOR_TRACE_ERROR("Cannot write the state file to %s: %s\n", temporary.c_str(), failureText());
    unlink(temporary.c_str());
    return;
  }
  replaceStateFile(temporary, target);
}

void TerminateTEO() {
  QOR_TRACE_FUNCTION();
  Controller::getController()->requestShutdown();
  PersistTEO();
}

QOR_QueryService::QOR_QueryService() {
  pthread_mutex_init(&alertListMutex, nullptr);
  pthread_mutex_init(&logListMutex, nullptr);
  Controller::getController()->getMessageHandler()->registerListener(ProcessEvent);
}

QOR_QueryService::~QOR_QueryService() {
  // Kept: this changes nothing: ProcessEvent stays registered after the service is gone.
  Controller::getController()->getMessageHandler()->deregisterListener(ProcessEvent);
  if (lockLogListenerList()) {
    logListeners.clear();
    unlockLogListenerList();
  }
  if (lockAlertListenerList()) {
    alertListeners.clear();
    unlockAlertListenerList();
  }
  pthread_mutex_destroy(&alertListMutex);
  pthread_mutex_destroy(&logListMutex);
}

QOR_QueryService* QOR_QueryService::initQueryService() {
  if (m_referenceCount == 0) {
    m_pQSInstance = new QOR_QueryService();
    InitializeTEO();
    m_bIsStarted = false;
    m_bIsInitialized = true;
  }
  ++m_referenceCount;
  return m_pQSInstance;
}

QOR_QueryService* QOR_QueryService::initWatchdogService() {
  Controller::setWatchDogMode();
  return initQueryService();
}

bool QOR_QueryService::isStarted() { return m_bIsStarted; }
bool QOR_QueryService::isInitialized() { return m_bIsInitialized; }

void QOR_QueryService::startQueryService() {
  if (!m_bIsStarted && m_bIsInitialized) {
    StartTEO();
    m_bIsStarted = true;
  }
}

bool QOR_QueryService::releaseQueryService(bool persistOnly) {
  if (m_referenceCount == 1) {
    // Cleared first, so that the wrappers answer -1 from here on.
    m_bIsStarted = false;
    m_bIsInitialized = false;
    if (persistOnly) {
      PersistTEO();
    } else {
      TerminateTEO();
    }
    delete m_pQSInstance;
    m_pQSInstance = nullptr;
  }
  if (m_referenceCount == 0) return false;
  --m_referenceCount;
  return true;
}
