// The entry of the qorwd watchdog process: its signal handling and the main
// loop that keeps the process alive while the service's threads work. The
// signal handler only sets a flag; everything else runs on the main thread,
// which also reopens the trace file on SIGHUP.
#ifndef QOR_WATCHDOG_QORWDPROC_H
#define QOR_WATCHDOG_QORWDPROC_H

// Called from InitializeTEO in watchdog mode, before any thread starts.
void InitializeWatchdog();
void RegisterSignalHandlers();
void SignalQOR(int signalNumber);
// Unblocks SIGINT, SIGILL, SIGTERM and SIGHUP for the calling thread; each
// forked child calls it before exec, so that a started agent can be stopped
// (and told to reload) by them.
void UnblockSignals();

class Policy;

// The marker file "$MARLOWHOME/$ZEL_BINARCH/<product code>/bin/.qorwd_disable_stop",
// which exists while the watchdog process itself takes the OS agent down, so
// that the agent's own scripts know the stop is not a failure. The path is
// narrow text from new[], freed by the caller.
char* GetDisableWatchdogStopFile(Policy* policy);
// Creates (or empties) the marker; failures are not reported.
void DisableWatchdogStop(Policy* policy);
// Removes the marker, if there is one.
void EnableWatchdogStop(Policy* policy);

#endif  // QOR_WATCHDOG_QORWDPROC_H
