#include "cap/qorunx.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

std::atomic<int> g_bShutdown{0};

namespace {

// The interval of the watcher unless QOR_CAP_DISCOVERY_INTERVAL asks for a
// longer one; nothing polls more often.
constexpr int kDefaultCapDiscoveryInterval = 5;

// Every CAP file of every directory, grouped by directory and sorted inside each.
std::vector<std::wstring> listAllCapFiles() {
  std::vector<std::wstring> paths;
  for (const std::wstring& directory : Controller::getController()->getCAPDirPaths()) {
    for (const std::wstring& name : GetCAPDirFiles(directory)) paths.push_back(directory + name);
  }
  return paths;
}

// Only the texts that a CAP file's name may hold are reported.
bool looksLikeCapFile(const std::wstring& name) {
  return name.find(L".xml") != std::wstring::npos || name.find(L"XML") != std::wstring::npos;
}

void raiseCapEvent(int state, int id, const std::wstring& name) {
  CAPFileEvent* event = new CAPFileEvent();
  event->setCAPState(state);
  event->setEventTypeID(id);
  event->setCAPFileName(name);
  event->processEvent();
}

// One change per poll: the sizes decide between addition and removal, and
// the first difference names the file.
// Kept: equal sizes mean no change, so a file renamed within one poll goes unnoticed.
void compareOnce(std::vector<std::wstring>& known, const std::vector<std::wstring>& current) {
  QOR_TRACE_FUNCTION();
  if (current.size() > known.size()) {
    QOR_TRACE_STORY("FILE_ACTION_ADDED");
    auto difference = std::mismatch(known.begin(), known.end(), current.begin());
    const std::wstring name = *difference.second;
    if (!looksLikeCapFile(name)) return;
    QOR_TRACE_STORY("CAP file name that was added <%s>", QOR_N(name));
    raiseCapEvent(CAP_FILE_ADDED, cap_added, name);
    known.insert(difference.first, name);
  } else if (current.size() < known.size()) {
    QOR_TRACE_STORY("FILE_ACTION_REMOVED");
    auto difference = std::mismatch(current.begin(), current.end(), known.begin());
    const std::wstring name = *difference.second;
    if (!looksLikeCapFile(name)) return;
    QOR_TRACE_STORY("CAP file name that was deleted <%s>", QOR_N(name));
    raiseCapEvent(CAP_FILE_REMOVED, cap_removed, name);
    known.erase(difference.second);
  }
}

// Whether a directory can be listed now, with errno telling why not.
bool directoryReadable(const std::string& directory) {
  DIR* handle = opendir(directory.c_str());
  if (handle == nullptr) return false;
  closedir(handle);
  return true;
}

// A directory that cannot be listed counts as empty, so its files read as
// removed, one per poll. That it went is told once at the error level, when
// first seen, and that it came back once at the story level: a directory
// that stays away must not fill the trace with an error on every poll.
// `lost` holds the directories unreadable at the last look; those that were
// never readable are in it from the start and are not told.
void noteLostDirectories(std::set<std::wstring>& lost) {
  QOR_TRACE_FUNCTION();
  for (const std::wstring& directory : Controller::getController()->getCAPDirPaths()) {
    const std::string narrow = qor_narrow(directory);
    if (directoryReadable(narrow)) {
      if (lost.erase(directory) != 0)
        QOR_TRACE_STORY("CAP directory <%s> can be read again.\n", narrow.c_str());
      continue;
    }
    const int error = errno;
    if (lost.insert(directory).second) {
      QOR_TRACE_ERROR("Cannot read the CAP directory <%s>: %s\n", narrow.c_str(), strerror(error));
    }
  }
}

// The directories that cannot be listed when the watcher starts.
std::set<std::wstring> unreadableDirectories() {
  std::set<std::wstring> unreadable;
  for (const std::wstring& directory : Controller::getController()->getCAPDirPaths()) {
    if (!directoryReadable(qor_narrow(directory))) unreadable.insert(directory);
  }
  return unreadable;
}

}  // namespace

bool Match(const std::wstring& first, const std::wstring& second) { return first == second; }

bool RegisterFileChangeHandlers(pthread_t* thread) {
  return Controller::getController()->startDetachedThread(thread, HandleDirectoryChanges, nullptr);
}

void StopFileChangeHandlers() { g_bShutdown.store(1); }

int CapDiscoveryInterval() {
  int interval = kDefaultCapDiscoveryInterval;
  int value = 0;
  if (QOR_GetEnvironmentAsInt("QOR_CAP_DISCOVERY_INTERVAL", value) && value > kDefaultCapDiscoveryInterval) {
    interval = value;
  }
  return interval;
}

std::vector<std::wstring> GetCAPDirFiles(const std::wstring& directory) {
  QOR_TRACE_FUNCTION();
  std::vector<std::wstring> names;
  std::string narrowDirectory = qor_narrow(directory);
  DIR* handle = opendir(narrowDirectory.c_str());
  if (handle == nullptr) {
    QOR_TRACE_STORY("No CAP files in <%s>, or directory does not exist. Error code (%d).\n",
                    narrowDirectory.c_str(), errno);
    return names;
  }
  while (struct dirent* entry = readdir(handle)) {
    const char* name = entry->d_name;
    if (name[0] == '.') {
      QOR_TRACE_QUEUE("Skipping directory <%s>", name);
      continue;
    }
    std::wstring wideName = qor_mbstowcs(name);
    size_t dot = wideName.rfind(L'.');
    if (dot != std::wstring::npos && Match(wideName.substr(dot + 1), L"xml")) {
      names.push_back(wideName);
    } else {
      QOR_TRACE_QUEUE("Skipping file <%s>. Invalid extension", name);
    }
  }
  closedir(handle);
  std::sort(names.begin(), names.end());
  return names;
}

void* HandleDirectoryChanges(void* /*unused*/) {
  QOR_TRACE_FUNCTION();
  std::vector<std::wstring> directoryFileList = listAllCapFiles();
  std::set<std::wstring> lostDirectories = unreadableDirectories();
  const int interval = CapDiscoveryInterval();
  QOR_TRACE_DETAIL("CAP files discovery interval: %d seconds\n", interval);
  for (;;) {
    if (g_bShutdown.load() == 1) {
      QOR_TRACE_STORY("Shutdown signaled.");
      return nullptr;
    }
    noteLostDirectories(lostDirectories);
    std::vector<std::wstring> currentFileList = listAllCapFiles();
    QOR_TRACE_STORY("Size of currentFileList = %d", static_cast<int>(currentFileList.size()));
    compareOnce(directoryFileList, currentFileList);
    sleep(static_cast<unsigned>(interval));
  }
}
