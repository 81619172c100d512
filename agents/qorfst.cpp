#include "agents/qorfst.h"

#include <pthread.h>

#include <cwchar>

#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

std::string teodatPath;
pthread_once_t teodatOnce = PTHREAD_ONCE_INIT;

void settleTeoDatPath() {
  QOR_TRACE_FUNCTION();
  // Kept: the directory ends in "/" already, so the slash is doubled; an empty one gives "/teo.dat".
  teodatPath = qor_narrow(Controller::getController()->getTEODirPath()) + "/" + "teo.dat";
  QOR_TRACE_STORY("teodatPath = %s\n", teodatPath.c_str());
}

}  // namespace

std::string GetTeoDatPath() {
  // Filled once; pthread_once keeps two first callers from racing on it.
  pthread_once(&teodatOnce, settleTeoDatPath);
  return teodatPath;
}

QorOFStream::QorOFStream() : std::wofstream(GetTeoDatPath().c_str(), std::ios::out | std::ios::trunc) {}

QorIFStream::QorIFStream() : std::wifstream(GetTeoDatPath().c_str(), std::ios::in) {}

std::wstring QorIFStream::getlineWstring() {
  wchar_t buffer[256] = {0};
  getline(buffer, 256);
  return std::wstring(buffer);
}

int QorIFStream::getlineInt() {
  std::wstring line = getlineWstring();
  return static_cast<int>(wcstol(line.c_str(), nullptr, 10));
}
