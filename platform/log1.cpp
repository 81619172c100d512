#include "platform/log1.h"

#include <pthread.h>
#include <sys/stat.h>
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
// The path `sink` was opened from, for a reopen after a log rotation; from
// strdup, and kept, like the mutex, for threads that trace while the process exits.
char* sinkPath QOR_GUARDED_BY(sinkMutex) = nullptr;

// Whether standard error is the journal, and whether traces go there: both
// decided when the sink is opened, read without the lock when a line is
// formatted. A line formatted while another thread reopens the sink may take
// the form of the old sink: one line, once, at a reconfiguration.
std::atomic<bool> stderrIsJournal{false};
std::atomic<bool> sinkIsJournal{false};

// The priorities of the journal's stream protocol, as sd-daemon(3) names them:
// SD_ERR for error traces, SD_DEBUG for every other level.
constexpr int kJournalError = 3;
constexpr int kJournalDebug = 7;

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

// The prefix of the library's own complaints on standard error.
const char* complaintPrefix() { return stderrIsJournal.load(std::memory_order_acquire) ? "<3>" : ""; }

void openSink(const char* path) {
  QorMutexLock lock(&sinkMutex);
  if (sinkOwned && sink != nullptr) fclose(sink);
  sink = nullptr;
  sinkOwned = false;
  free(sinkPath);
  sinkPath = nullptr;
  if (path != nullptr && *path != '\0') {
    FILE* file = fopen(path, "a");
    if (file != nullptr) {
      sink = file;
      sinkOwned = true;
      sinkPath = strdup(path);
    } else {
      fprintf(stderr, "%sqor: cannot open trace file %s (%s); tracing to standard error\n", complaintPrefix(),
              path, strerror(errno));
    }
  }
  // A file is never the journal, even when the journal's stream is standard
  // error: the decision follows where the lines are written.
  sinkIsJournal.store(sink == nullptr && stderrIsJournal.load(std::memory_order_acquire),
                      std::memory_order_release);
}

void configureFromEnvironment() {
  unsigned mask = QOR_TRACE_DEFAULT_MASK;
  unsigned parsed = 0;
  if (parseMask(getenv("QOR_TRACE_LEVEL"), parsed)) mask = parsed;
  stderrIsJournal.store(LOG1_IsJournalStream(STDERR_FILENO), std::memory_order_release);
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

// The priority of a trace line in the journal: errors alone are errors; the
// story level holds the error bit too, but tells of normal work.
int journalPriority(unsigned level) { return level == QOR_TL_ERROR ? kJournalError : kJournalDebug; }

// "2026-11-22 10:11:12.345 [tid] file function:line ", or in the journal,
// which stamps each line itself, "<7>[tid] file function:line ".
size_t formatPrefix(char* buffer, size_t size, const LOG1_EPB* epb, unsigned level, int line) {
  int written = 0;
  if (sinkIsJournal.load(std::memory_order_acquire)) {
    written = snprintf(buffer, size, "<%d>[%ld] %s %s:%d ", journalPriority(level), threadId(),
                       epb->unit->fileName, epb->function, line);
  } else {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    written = snprintf(buffer, size, "%s.%03ld [%ld] %s %s:%d ", stamp, now.tv_nsec / 1000000L, threadId(),
                       epb->unit->fileName, epb->function, line);
  }
  if (written < 0) return 0;
  return static_cast<size_t>(written) < size ? static_cast<size_t>(written) : size - 1;
}

// A decimal number of at least one digit at `text`, which moves past it.
bool parseDecimal(const char*& text, unsigned long long& value) {
  const char* start = text;
  value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    unsigned long long digit = static_cast<unsigned long long>(*text - '0');
    if (value > (~0ULL - digit) / 10) return false;
    value = value * 10 + digit;
  }
  return text != start;
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
  size_t length = formatPrefix(buffer, sizeof buffer, epb, QOR_TL_ENTRY, line != 0 ? line : epb->firstLine);
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

void LOG1_Printf(LOG1_EPB* epb, unsigned level, int line, const char* format, ...) {
  char prefix[512];
  size_t prefixLength = formatPrefix(prefix, sizeof prefix, epb, level, line);

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

bool LOG1_ReopenFile() {
  ensureConfigured();
  // Under the sink mutex: a line written meanwhile waits, and then goes whole
  // to the new file.
  QorMutexLock lock(&sinkMutex);
  if (!sinkOwned || sinkPath == nullptr) return false;
  FILE* file = fopen(sinkPath, "a");
  if (file == nullptr) {
    fprintf(stderr, "%sqor: cannot reopen trace file %s (%s); tracing on to the file as it was\n",
            complaintPrefix(), sinkPath, strerror(errno));
    return false;
  }
  fclose(sink);
  sink = file;
  return true;
}

bool LOG1_IsJournalStream(int fd) {
  const char* named = getenv("JOURNAL_STREAM");
  if (named == nullptr || isatty(fd)) return false;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  const char* p = named;
  if (!parseDecimal(p, device) || *p++ != ':' || !parseDecimal(p, inode) || *p != '\0') return false;
  struct stat info;
  if (fstat(fd, &info) != 0) return false;
  return static_cast<unsigned long long>(info.st_dev) == device &&
         static_cast<unsigned long long>(info.st_ino) == inode;
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
