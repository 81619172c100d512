#include "watchdog/qorusr.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <map>

#include "core/qorlock.h"
#include "core/qorutil.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

// Filled as processes are inspected.
// Kept: never invalidated: a user renamed while the service runs keeps the old name.
QorMutex idUserNamesMutex(QorMutex::kNeverDestroyed);
std::map<int, std::wstring> idUserNames QOR_GUARDED_BY(idUserNamesMutex);

// getpwuid returns a static record that the next call overwrites.
QorMutex passwdMutex(QorMutex::kNeverDestroyed);

QorMutex currUserMutex(QorMutex::kNeverDestroyed);
std::wstring currUser QOR_GUARDED_BY(currUserMutex);

// Requires: idUserNamesMutex held.
void cacheUserName(int id, const std::wstring& name) QOR_REQUIRES(idUserNamesMutex) {
  QOR_TRACE_FUNCTION();
  if (name.empty()) return;
  QOR_TRACE_DETAIL("Adding userName %s (key = %d) to cache\n", QOR_N(name), id);
  idUserNames.insert(std::make_pair(id, name));
}

// Requires: idUserNamesMutex held.
std::wstring cachedUserName(int id) QOR_REQUIRES(idUserNamesMutex) {
  auto found = idUserNames.find(id);
  return found == idUserNames.end() ? std::wstring() : found->second;
}

}  // namespace

std::wstring GetIDUserName(int id) {
  QorMutexLock lock(&idUserNamesMutex);
  return cachedUserName(id);
}

void SetIDUserName(int id, const std::wstring& name) {
  QorMutexLock lock(&idUserNamesMutex);
  cacheUserName(id, name);
}

std::wstring GetUserNameFromID(int id) {
  QOR_TRACE_FUNCTION();
  QorMutexLock lock(&passwdMutex);
  errno = 0;
  struct passwd* entry = getpwuid(static_cast<uid_t>(id));
  if (entry == nullptr) {
    QOR_TRACE_ERROR("Error executing getpwuid - errno = %d", errno);
    return std::wstring();
  }
  return qor_mbstowcs(entry->pw_name);
}

std::wstring ResolveUserName(int id) {
  // One lock over the whole lookup, so that two threads asking for the same
  // unknown id cause one passwd lookup between them.
  QorMutexLock lock(&idUserNamesMutex);
  std::wstring name = cachedUserName(id);
  if (!name.empty()) return name;
  name = GetUserNameFromID(id);
  if (name.empty()) name = L"NOT_AVAILABLE";
  cacheUserName(id, name);
  return name;
}

std::wstring GetCurrentUser() {
  QorMutexLock lock(&currUserMutex);
  if (currUser.empty()) {
    currUser = QOR_GetEnvironment(L"USER");
    if (currUser.empty()) currUser = GetUserNameFromID(static_cast<int>(getuid()));
  }
  return currUser;
}
