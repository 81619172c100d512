#include "platform/osv1.h"

#include <pthread.h>
#include <sys/utsname.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

int copyOut(const char* text, char* buffer, int size) {
  if (text == nullptr || *text == '\0' || buffer == nullptr || size <= 0) return 0;
  std::strncpy(buffer, text, static_cast<size_t>(size) - 1);
  buffer[size - 1] = '\0';
  return 1;
}

}  // namespace

const char* OSV1_GetEnv(const char* name, int /*flags*/) { return name ? std::getenv(name) : nullptr; }

void OSV1_Sleep(int seconds) {
  if (seconds <= 0) {
    pthread_testcancel();
    return;
  }
  // nanosleep is a cancellation point; an interruption by a signal sleeps on
  // for the rest of the time.
  struct timespec remaining = {seconds, 0};
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

int OSV1_Info(int kind, char* buffer, int size) {
  struct utsname names;
  switch (kind) {
    case OSV1_INFO_OSTYPE:
      return uname(&names) == 0 ? copyOut(names.sysname, buffer, size) : 0;
    case OSV1_INFO_OSVERS:
      return uname(&names) == 0 ? copyOut(names.release, buffer, size) : 0;
    case OSV1_INFO_ZELHOME:
      return copyOut(std::getenv("MARLOWHOME"), buffer, size);
    case OSV1_INFO_ZELPROCESS:
      return copyOut(program_invocation_short_name, buffer, size);
    default:
      return 0;
  }
}
