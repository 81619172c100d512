#include "platform/log1.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/qorlock.h"

namespace {

// The registry of unit records and the sink. Each is guarded by a mutex that
// is constant-initialised, so units may register during static initialisation,
// and never destroyed, so threads may trace while the process exits.
QorMutex registryMutex(QorMutex::kNeverDestroyed);
LOG1_Unit* registryHead QOR_GUARDED_BY(registryMutex) = nullptr;

QorMutex sinkMutex(QorMutex::kNeverDestroyed);
FILE* sink QOR_GUARDED_BY(sinkMutex) = nullptr;  // null: standard error
bool sinkOwned QOR_GUARDED_BY(sinkMutex) = false;

std::atomic<unsigned> traceMask{QOR_TRACE_DEFAULT_MASK};
std::atomic<bool> configured{false};
pthread_once_t configureOnce = PTHREAD_ONCE_INIT;

const char* baseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

// A plain decimal number, or nothing: the rule of every numeric setting.
bool parseMask(const char* text, unsigned& mask) {
  if (text == nullptr || *text == '\0') return false;
  unsigned long value = 0;
  for (const char* p = text; *p; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + static_cast<unsigned long>(*p - '0');
    if (value > 0xffffffffUL) return false;
  }
  mask = static_cast<unsigned>(value);
  return true;
}

void bumpGenerations() {
  QorMutexLock lock(&registryMutex);
  for (LOG1_Unit* unit = registryHead; unit != nullptr; unit = unit->next) {
    unsigned next = unit->generation.load(std::memory_order_relaxed) + 1;
    if (next == 0) next = 1;  // 0 is what an unconstructed unit reads as
    unit->generation.store(next, std::memory_order_release);
  }
}

void openSink(const char* path) {
  QorMutexLock lock(&sinkMutex);
  if (sinkOwned && sink != nullptr) fclose(sink);
  sink = nullptr;
  sinkOwned = false;
  if (path != nullptr && *path != '\0') {
    FILE* file = fopen(path, "a");
    if (file != nullptr) {
      sink = file;
      sinkOwned = true;
    } else {
      fprintf(stderr, "qor: cannot open trace file %s (%s); tracing to standard error\n", path,
              strerror(errno));
    }
  }
}

void configureFromEnvironment() {
  unsigned mask = QOR_TRACE_DEFAULT_MASK;
  unsigned parsed = 0;
  if (parseMask(getenv("QOR_TRACE_LEVEL"), parsed)) mask = parsed;
  openSink(getenv("QOR_TRACE_FILE"));
  traceMask.store(mask, std::memory_order_release);
  configured.store(true, std::memory_order_release);
  bumpGenerations();
}

void configureOnceEntry() { configureFromEnvironment(); }

void ensureConfigured() {
  if (!configured.load(std::memory_order_acquire)) pthread_once(&configureOnce, configureOnceEntry);
}

long threadId() { return static_cast<long>(syscall(SYS_gettid)); }

// "2026-11-22 10:11:12.345 [tid] file function:line "
size_t formatPrefix(char* buffer, size_t size, const LOG1_EPB* epb, int line) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm local;
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  int written = snprintf(buffer, size, "%s.%03ld [%ld] %s %s:%d ", stamp, now.tv_nsec / 1000000L, threadId(),
                         epb->unit->fileName, epb->function, line);
  if (written < 0) return 0;
  return static_cast<size_t>(written) < size ? static_cast<size_t>(written) : size - 1;
}

// Writes one whole line under the sink mutex, with a line end added when the
// text has none, so that lines of different threads never interleave.
void writeLine(const char* text, size_t length) {
  bool needsNewline = length == 0 || text[length - 1] != '\n';
  QorMutexLock lock(&sinkMutex);
  FILE* out = sink != nullptr ? sink : stderr;
  fwrite(text, 1, length, out);
  if (needsNewline) fputc('\n', out);
  fflush(out);
}

void appendUtf8(std::string& out, wchar_t wc) {
  unsigned long c = static_cast<unsigned long>(wc);
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x110000) {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += '?';
  }
}

}  // namespace

LOG1_Unit::LOG1_Unit(const char* date, const char* time, const char* path)
    : generation(1),
      buildDate(date),
      buildTime(time),
      fileName(baseName(path)),
      component("QOR100"),
      next(nullptr) {
  QorMutexLock lock(&registryMutex);
  next = registryHead;
  registryHead = this;
}

unsigned LOG1_Sync(LOG1_EPB* epb) {
  ensureConfigured();
  // Generation first, then the mask: a change that lands in between leaves a
  // cache entry that the next generation check throws away.
  unsigned generation = epb->generation->load(std::memory_order_acquire);
  unsigned flags = traceMask.load(std::memory_order_acquire);
  epb->cache.store((static_cast<std::uint64_t>(generation) << 32) | flags, std::memory_order_release);
  return flags;
}

void LOG1_Event(LOG1_EPB* epb, int line, int kind, long value) {
  char buffer[512];
  size_t length = formatPrefix(buffer, sizeof buffer, epb, line != 0 ? line : epb->firstLine);
  int more = 0;
  switch (kind) {
    case LOG1_ENTRY:
      more = snprintf(buffer + length, sizeof buffer - length, "> entry");
      break;
    case LOG1_EXIT_VALUE:
      more = snprintf(buffer + length, sizeof buffer - length, "< exit rc=%ld", value);
      break;
    default:
      more = snprintf(buffer + length, sizeof buffer - length, "< exit");
      break;
  }
  if (more > 0)
    length += static_cast<size_t>(more) < sizeof buffer - length ? static_cast<size_t>(more)
                                                                 : sizeof buffer - length - 1;
  writeLine(buffer, length);
}

void LOG1_Printf(LOG1_EPB* epb, int line, const char* format, ...) {
  char prefix[512];
  size_t prefixLength = formatPrefix(prefix, sizeof prefix, epb, line);

  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int textLength = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (textLength < 0) {
    va_end(args);
    return;
  }
  std::string line_(prefixLength + static_cast<size_t>(textLength) + 1, '\0');
  memcpy(&line_[0], prefix, prefixLength);
  vsnprintf(&line_[prefixLength], static_cast<size_t>(textLength) + 1, format, args);
  va_end(args);
  writeLine(line_.data(), prefixLength + static_cast<size_t>(textLength));
}

unsigned LOG1_GetMask() {
  ensureConfigured();
  return traceMask.load(std::memory_order_acquire);
}

void LOG1_SetMask(unsigned mask) {
  ensureConfigured();
  traceMask.store(mask, std::memory_order_release);
  bumpGenerations();
}

void LOG1_Reconfigure() {
  // Mark the one-time configuration as done first, so a later first use does
  // not undo what this call sets.
  pthread_once(&configureOnce, [] {});
  configureFromEnvironment();
}

std::string LOG1_Narrow(const std::wstring& text) {
  std::string out;
  out.reserve(text.size());
  for (wchar_t c : text) appendUtf8(out, c);
  return out;
}

std::string LOG1_Narrow(const wchar_t* text) {
  return text ? LOG1_Narrow(std::wstring(text)) : std::string();
}
