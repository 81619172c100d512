// The entry of the qorwd watchdog process: its signal handling and the main
// loop that keeps the process alive while the service's threads work. The
// signal handler only sets a flag; everything else runs on the main thread.
#ifndef QOR_WATCHDOG_QORWDPROC_H
#define QOR_WATCHDOG_QORWDPROC_H

// Called from InitializeTEO in watchdog mode, before any thread starts.
void InitializeWatchdog();
void RegisterSignalHandlers();
void SignalQOR(int signalNumber);
// Unblocks SIGINT, SIGILL and SIGTERM for the calling thread; each forked
// child calls it before exec, so that a started agent can be stopped by them.
void UnblockSignals();

#endif  // QOR_WATCHDOG_QORWDPROC_H
