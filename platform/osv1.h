// Base services of the suite as the service uses them: environment lookup, a
// cancellable sleep in whole seconds, and facts about the running system.
// Safe from any thread; OSV1_Sleep is a cancellation point.
#ifndef QOR_PLATFORM_OSV1_H
#define QOR_PLATFORM_OSV1_H

// Kinds of OSV1_Info.
enum : int {
  OSV1_INFO_OSTYPE = 1,       // operating system name, from uname
  OSV1_INFO_OSVERS = 2,       // kernel release, from uname
  OSV1_INFO_ZELHOME = 28,     // install directory: $MARLOWHOME
  OSV1_INFO_ZELPROCESS = 29,  // name of the running program
};

// The value of an environment variable, or null when it is unset. `flags` is
// always 0. The text belongs to the environment: copy it before the next change.
const char* OSV1_GetEnv(const char* name, int flags);

// Sleeps whole seconds. A thread cancelled in here unwinds at once.
void OSV1_Sleep(int seconds);

// Writes the text of `kind` into `buffer` (zero-terminated, cut to `size`).
// Returns non-zero on success, 0 on failure (unknown kind, no value).
int OSV1_Info(int kind, char* buffer, int size);

#endif  // QOR_PLATFORM_OSV1_H
