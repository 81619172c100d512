#include "cap/qorunx.h"

#include <unistd.h>

#include "core/qorctrl.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

std::atomic<int> g_bShutdown{0};

bool RegisterFileChangeHandlers(pthread_t* thread) {
  return Controller::getController()->startDetachedThread(thread, HandleDirectoryChanges, nullptr);
}

void StopFileChangeHandlers() { g_bShutdown.store(1); }

std::vector<std::wstring> GetCAPDirFiles(const std::wstring& /*directory*/) {
  // The listing joins with the directory watcher; until then no directory
  // holds a CAP file.
  return std::vector<std::wstring>();
}

void* HandleDirectoryChanges(void* /*unused*/) {
  QOR_TRACE_FUNCTION();
  const unsigned interval = 5;
  for (;;) {
    if (g_bShutdown.load() == 1) {
      QOR_TRACE_STORY("Shutdown signaled.");
      return nullptr;
    }
    sleep(interval);
  }
}
