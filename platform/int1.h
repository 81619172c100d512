// Signal services of the suite: install a handler by the library's own signal
// number, and name a signal. Used by the watchdog process entry.
#ifndef QOR_PLATFORM_INT1_H
#define QOR_PLATFORM_INT1_H

// The library's own numbers for the signals the service handles.
enum : int { INT1_SIGILL = 14, INT1_SIGINT = 16, INT1_SIGTERM = 33 };

// The record handed to INT1_Action: three machine words, the first the handler.
struct INT1_Record {
  void (*handler)(int);
  void* reserved1;
  void* reserved2;
};

// Installs record->handler for the signal `id`. Returns 0 on success, non-zero
// with errno set on failure (EINVAL for an unknown id).
int INT1_Action(int id, INT1_Record* record, int flags);

// The name of a signal by its system number, as text; never null.
const char* INT1_SignalName(int signalNumber);

#endif  // QOR_PLATFORM_INT1_H
