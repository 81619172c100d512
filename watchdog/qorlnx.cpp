#include "watchdog/qorlnx.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

uint64_t qor_hz = 100;

namespace {

// The classic fields of a stat line, and four more that some kernels add and
// that then hold the CPU times. Linux itself goes on after the classic fields
// with block I/O delay, guest times and memory addresses, many more than four:
// only a line that ends after the fourth further number has CPU times there.
// Kept: `comm` is read up to the first blank, so a name with a blank stops the scan early.
const char* const kStatFormat =
    "%lld (%96s  %c %lld %lld %lld %lld %lld %llu %llu %llu %llu %llu %llu %llu %lld %lld %lld %lld %lld "
    "%lld %llu %llu %lld %llu %llu %llu %llu %llu %llu %*s %*s %*s %*s %llu %llu %llu %*d %d%*d %*d %llu "
    "%llu %llu %llu";
const char* const kBriefStatFormat = "%lld (%96s  %c %lld";
constexpr int kStatItemsWithCPUExtras = 38;

std::string procPath(int pid, const char* file) { return "/proc/" + std::to_string(pid) + "/" + file; }

// A file of /proc read whole at once, then scanned from memory as a stream.
// Every check reads several of them for each agent: a stdio stream would ask
// the kernel for the file's block size and read it in steps of that, where
// one read of the whole text does. An empty file still opens as an empty
// stream. After a failed open there is no stream, and errno is the open's.
class ProcFile {
 public:
  explicit ProcFile(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    char buffer[4096];
    ssize_t bytes;
    while ((bytes = read(fd, buffer, sizeof buffer)) > 0) text_.append(buffer, static_cast<size_t>(bytes));
    close(fd);
    const size_t length = text_.size();
    // A byte behind the text gives even an empty file a buffer to stand on.
    text_.push_back('\0');
    stream_ = fmemopen(&text_[0], length, "r");
  }
  ~ProcFile() {
    if (stream_ != nullptr) fclose(stream_);
  }
  ProcFile(const ProcFile&) = delete;
  ProcFile& operator=(const ProcFile&) = delete;

  FILE* stream() const { return stream_; }
  // The file's bytes as read.
  std::string text() const { return text_.substr(0, text_.size() - 1); }

 private:
  std::string text_;
  FILE* stream_ = nullptr;
};

// Whether the line ends where the stream stands, blanks aside.
bool atLineEnd(FILE* file) {
  int next = fgetc(file);
  while (next == ' ') next = fgetc(file);
  return next == '\n' || next == EOF;
}

}  // namespace

int ReadStatFile(const char* path, qor_proc_stat& r, bool brief) {
  QOR_TRACE_FUNCTION();
  ProcFile proc(path);
  FILE* file = proc.stream();
  if (file == nullptr) {
    QOR_TRACE_ERROR("Error: file open failed %s, errno = %d", path, errno);
    return -1;
  }
  long long pid = r.pid;
  int items;
  if (brief) {
    items = fscanf(file, kBriefStatFormat, &pid, r.comm, &r.state, &r.ppid);
  } else {
    items = fscanf(file, kStatFormat, &pid, r.comm, &r.state, &r.ppid, &r.pgrp, &r.session, &r.tty_nr,
                   &r.tpgid, &r.flags, &r.minflt, &r.cminflt, &r.majflt, &r.cmajflt, &r.utime, &r.stime,
                   &r.cutime, &r.cstime, &r.priority, &r.nice, &r.num_threads, &r.itrealvalue, &r.starttime,
                   &r.vsize, &r.rss, &r.rlim, &r.startcode, &r.endcode, &r.startstack, &r.kstkesp, &r.kstkeip,
                   &r.wchan, &r.nswap, &r.cnswap, &r.processor, &r.extra1, &r.extra2, &r.extra3, &r.extra4);
    if (items == kStatItemsWithCPUExtras && atLineEnd(file)) {
      r.utime = r.extra1;
      r.stime = r.extra2;
      r.cutime = static_cast<long long>(r.extra3);
      r.cstime = static_cast<long long>(r.extra4);
    }
  }
  r.pid = static_cast<int>(pid);
  return items;
}

void GetStatData(int pid, qor_proc_stat& record, bool brief) {
  ReadStatFile(procPath(pid, "stat").c_str(), record, brief);
}

int ReadStatMFile(const char* path, qor_memory_stat& r) {
  QOR_TRACE_FUNCTION();
  ProcFile proc(path);
  FILE* file = proc.stream();
  if (file == nullptr) {
    QOR_TRACE_ERROR("Error: file open failed %s, errno = %d", path, errno);
    return -1;
  }
  int items = fscanf(file, "%lld %lld %lld %lld %lld %lld %lld", &r.size, &r.resident, &r.share, &r.text,
                     &r.lib, &r.data, &r.dirty);
  return items;
}

void GetStatMData(int pid, qor_memory_stat& record) { ReadStatMFile(procPath(pid, "statm").c_str(), record); }

void ReadStatusFile(const char* path, qor_status_stat& record) {
  QOR_TRACE_FUNCTION();
  record.threads = 0;
  record.threadsFound = false;
  ProcFile proc(path);
  FILE* file = proc.stream();
  if (file == nullptr) {
    QOR_TRACE_ERROR("Error: file open failed %s, errno = %d", path, errno);
    return;
  }
  // Each scan matches only at the start of the line where the stream stands;
  // the rest of the line is then skipped. Old kernels have no Threads: line.
  bool uidFound = false;
  char rest[100];
  while (!(uidFound && record.threadsFound)) {
    if (!uidFound && fscanf(file, "Uid: %d", &record.uid) == 1) uidFound = true;
    if (!record.threadsFound && fscanf(file, "Threads: %lld", &record.threads) == 1)
      record.threadsFound = true;
    if (fgets(rest, sizeof rest, file) == nullptr) break;
  }
}

void GetStatusData(int pid, qor_status_stat& record) {
  ReadStatusFile(procPath(pid, "status").c_str(), record);
}

void GetFileContents(const std::string& path, std::string& contents) {
  QOR_TRACE_FUNCTION();
  ProcFile proc(path.c_str());
  if (proc.stream() == nullptr) {
    QOR_TRACE_ERROR("Error: file read failed, errno = %d", errno);
    contents.clear();
    return;
  }
  contents = proc.text();
}

std::string JoinCommandLine(std::string contents) {
  for (char& c : contents) {
    if (c == '\0') c = ' ';
  }
  size_t last = contents.find_last_not_of(' ');
  contents.erase(last == std::string::npos ? 0 : last + 1);
  return contents;
}

std::wstring GetCommandLine(int pid) {
  QOR_TRACE_FUNCTION();
  std::string path = procPath(pid, "cmdline");
  QOR_TRACE_DETAIL("Procss id = %d", pid);
  std::string contents;
  GetFileContents(path, contents);
  contents = JoinCommandLine(contents);
  QOR_TRACE_DETAIL("cmdline contents = %s", contents.c_str());
  return qor_mbstowcs(contents.c_str());
}

std::wstring GetExecutablePath(int pid, const std::wstring& /*unused*/) {
  // Kept: a longer path comes back cut at 256 bytes.
  char buffer[257];
  ssize_t length = readlink(procPath(pid, "exe").c_str(), buffer, 256);
  if (length <= 0) return std::wstring();
  buffer[length] = '\0';
  return qor_mbstowcs(buffer);
}

bool IsThreadChildProcess(int pid, const std::wstring& commandLine) {
  QOR_TRACE_FUNCTION();
  qor_proc_stat record;
  GetStatData(pid, record, true);
  if (record.ppid == 1) return false;
  bool child = commandLine == GetCommandLine(static_cast<int>(record.ppid));
  if (child) QOR_TRACE_DETAIL("Process pid %d is child process\n", pid);
  return child;
}

bool ReadProcessIDs(std::vector<int>& ids) {
  DIR* directory = opendir("/proc");
  if (directory == nullptr) return false;
  while (struct dirent* entry = readdir(directory)) {
    if (isdigit(static_cast<unsigned char>(entry->d_name[0]))) ids.push_back(atoi(entry->d_name));
  }
  closedir(directory);
  return true;
}

namespace {

// The thread group a /proc entry belongs to, from its status file; 0 when it
// cannot be read, as for a process that has gone: no trace, since the walk
// would only have found it missing.
int threadGroupOf(int pid) {
  FILE* file = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
  if (file == nullptr) return 0;
  int group = 0;
  char line[256];
  while (fgets(line, sizeof line, file) != nullptr) {
    if (sscanf(line, "Tgid: %d", &group) == 1) break;
  }
  fclose(file);
  return group;
}

// True when `pid` leads its thread group, which is what makes /proc list it.
// A pidfd is refused for another thread of a process and for no process at
// all; asking for one is far cheaper than the status file, which the kernel
// writes out in full. Kernels or sandboxes without it read the file.
bool leadsThreadGroup(int pid) {
#ifdef SYS_pidfd_open
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd >= 0) {
    close(fd);
    return true;
  }
  if (errno == ESRCH || errno == EINVAL) return false;
#endif
  return threadGroupOf(pid) == pid;
}

}  // namespace

bool ReadProcessID(int pid, std::vector<int>& ids) {
  // Opened and closed only so that a missing /proc fails as the walk would.
  DIR* directory = opendir("/proc");
  if (directory == nullptr) return false;
  closedir(directory);
  if (pid > 0 && leadsThreadGroup(pid)) ids.push_back(pid);
  return true;
}
