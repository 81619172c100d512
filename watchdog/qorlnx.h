// Readers of single /proc files: a process's stat, statm, status, command
// line and executable, and the test for the thread processes of old kernels.
// Used by QorCmdLinux and the matching. Stateless; safe from any thread.
// A file that cannot be read leaves the record as the caller had it.
#ifndef QOR_WATCHDOG_QORLNX_H
#define QOR_WATCHDOG_QORLNX_H

#include <string>
#include <vector>

// What /proc/<pid>/stat holds, in the order of the file.
struct qor_proc_stat {
  int pid = 0;
  // The name with its closing parenthesis. The scan reads up to 96 bytes and
  // writes a terminator after them.
  char comm[97] = {0};
  char state = 0;
  long long ppid = 0;
  long long pgrp = 0;
  long long session = 0;
  long long tty_nr = 0;
  long long tpgid = 0;
  unsigned long long flags = 0;
  unsigned long long minflt = 0;
  unsigned long long cminflt = 0;
  unsigned long long majflt = 0;
  unsigned long long cmajflt = 0;
  unsigned long long utime = 0;
  unsigned long long stime = 0;
  long long cutime = 0;
  long long cstime = 0;
  long long priority = 0;
  long long nice = 0;
  long long num_threads = 0;
  long long itrealvalue = 0;
  unsigned long long starttime = 0;
  unsigned long long vsize = 0;
  long long rss = 0;
  unsigned long long rlim = 0;
  unsigned long long startcode = 0;
  unsigned long long endcode = 0;
  unsigned long long startstack = 0;
  unsigned long long kstkesp = 0;
  unsigned long long kstkeip = 0;
  unsigned long long wchan = 0;
  unsigned long long nswap = 0;
  unsigned long long cnswap = 0;
  int processor = 0;
  unsigned long long extra1 = 0;
  unsigned long long extra2 = 0;
  unsigned long long extra3 = 0;
  unsigned long long extra4 = 0;
};

// The seven numbers of /proc/<pid>/statm; only `size`, in pages, is used.
struct qor_memory_stat {
  long long size = 0;
  long long resident = 0;
  long long share = 0;
  long long text = 0;
  long long lib = 0;
  long long data = 0;
  long long dirty = 0;
};

struct qor_status_stat {
  int uid = 0;
  long long threads = 0;
  bool threadsFound = false;
};

void GetStatData(int pid, qor_proc_stat& record, bool brief);
void GetStatMData(int pid, qor_memory_stat& record);
void GetStatusData(int pid, qor_status_stat& record);

// The same readers on a file of that format at any path; each returns the
// number of items its scan assigned, or -1 when the file could not be opened.
int ReadStatFile(const char* path, qor_proc_stat& record, bool brief);
int ReadStatMFile(const char* path, qor_memory_stat& record);
void ReadStatusFile(const char* path, qor_status_stat& record);

// The whole file, empty when it cannot be read.
void GetFileContents(const std::string& path, std::string& contents);

// The arguments of a cmdline file joined by blanks, without trailing blanks.
std::string JoinCommandLine(std::string contents);
// The command line of a process; empty for a kernel thread or a process gone.
std::wstring GetCommandLine(int pid);
// The executable of a process, empty when its link cannot be read (as for a
// process of another user). The second argument is not used.
std::wstring GetExecutablePath(int pid, const std::wstring& unused);
// True for a process whose parent, other than process 1, has the same
// command line: a thread of an old kernel, taken for part of its parent.
bool IsThreadChildProcess(int pid, const std::wstring& commandLine);

// The numbers of the entries of /proc, in directory order; false when /proc
// cannot be opened, with errno set.
bool ReadProcessIDs(std::vector<int>& ids);

// What ReadProcessIDs would give of `pid` alone, without the walk: `pid` when
// /proc lists it, which it does for a process and not for another thread of
// one (those are found by name all the same). False as ReadProcessIDs.
bool ReadProcessID(int pid, std::vector<int>& ids);

#endif  // QOR_WATCHDOG_QORLNX_H
