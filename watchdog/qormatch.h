// Process matching beside the command manager's own operations: the process
// id of a suite agent's instance as the suite's status tool reports it. The
// matching operations themselves are members of QorCmd, QorCmdUNIX and
// QorCmdLinux, and live in qormatch.cpp. Safe from any thread.
#ifndef QOR_WATCHDOG_QORMATCH_H
#define QOR_WATCHDOG_QORMATCH_H

class Agent;

// The process id that the suite's tool lists for the agent's instance; the
// last matching line wins. 0 when none matches.
int GetZELInstanceProcID(Agent* agent);

#endif  // QOR_WATCHDOG_QORMATCH_H
