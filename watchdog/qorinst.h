// Instance enumeration of the suite's agents: the two commands that list the
// configured and the running instances of a product code. Policy builds them
// when its product code is set. Stateless; safe from any thread.
#ifndef QOR_WATCHDOG_QORINST_H
#define QOR_WATCHDOG_QORINST_H

#include <string>

class QorScript;

// Fills `script` with the command that lists the running instances of `code`.
void CreateVexinfRunningInstancesScript(const std::wstring& code, QorScript* script);

// Fills `script` with the command that lists the configured instances of `code`.
void CreateZELInstancesScript(const std::wstring& code, QorScript* script);

#endif  // QOR_WATCHDOG_QORINST_H
