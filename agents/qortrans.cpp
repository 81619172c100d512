// The state machine of an agent: what each event does to the agent's
// operating and managed state, on the command handler thread with the list
// locked.
#include "core/qorctrl.h"
#include "core/qorevt.h"

// Stand-in: the transition tables of the agent state machine replace these
// two bodies here, in agents/qortrans.cpp, with the watchdog actions of
// watchdog/qorwd.cpp; until then an event changes nothing and its message
// goes out as it came.
void Controller::ProcessOpStateChange(AgentOpEvent* /*event*/) {}

void Controller::ProcessMgmtStateChange(AgentMgmtEvent* /*event*/) {}
