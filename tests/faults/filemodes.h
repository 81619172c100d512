// How the fault tests make root meet file modes as any other user would, so
// that a file without read permission or a directory closed to writing fails
// for the service as it would for an unprivileged one.
#ifndef QOR_TESTS_FAULTS_FILEMODES_H
#define QOR_TESTS_FAULTS_FILEMODES_H

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace faults {

// Takes away the two capabilities by which root reads and writes files
// whatever their mode, on the calling thread and all that it creates later:
// the service's threads then meet EACCES. It cannot be undone, which is why
// each test runs in a process of its own.
inline bool dropFileModeOverrides() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  const unsigned mask = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);
  data[0].effective &= ~mask;
  data[0].permitted &= ~mask;
  data[0].inheritable &= ~mask;
  return syscall(SYS_capset, &header, data) == 0;
}

}  // namespace faults

#endif  // QOR_TESTS_FAULTS_FILEMODES_H
