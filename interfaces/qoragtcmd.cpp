// The Controller's agent commands: what an operator's request turns into.
// Here, the lookup of live agents by a mask of fields that they all share.
#include <cwchar>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

// One row of the mask: its bit, the entry of the criteria it reads, and the
// agent's field, as text or as a number.
struct MatchRow {
  int bit;
  int index;
  std::wstring (Agent::*text)() const;
  long (*number)(const Agent&);
};

long procIdOf(const Agent& agent) { return agent.getProcID(); }
long operatingStateOf(const Agent& agent) { return agent.getOperatingState(); }
long guidOf(const Agent& agent) { return agent.getGUID(); }

const MatchRow kMatchRows[] = {
    {Controller::MATCH_NAME, 0, &Agent::getName, nullptr},
    {Controller::MATCH_ID, 3, &Agent::getID, nullptr},
    {Controller::MATCH_PROC_ID, 1, nullptr, procIdOf},
    {Controller::MATCH_INSTANCE_PROC_NAME, 2, &Agent::getInstanceProcName, nullptr},
    {Controller::MATCH_OPERATING_STATE, 4, nullptr, operatingStateOf},
    {Controller::MATCH_INSTANCE_NAME, 5, &Agent::getInstanceName, nullptr},
    {Controller::MATCH_SERVICE_INSTANCE_NAME, 6, &Agent::getServiceInstanceName, nullptr},
    {Controller::MATCH_GUID, 7, nullptr, guidOf},
};
static_assert(sizeof kMatchRows / sizeof kMatchRows[0] == Controller::MATCH_CRITERIA_COUNT,
              "one row for each bit of the mask");

}  // namespace

std::vector<Agent*> Controller::getManagedEndpointProcess(int mask, const std::wstring* criteria) {
  // The numbers are read once, before the walk.
  long numbers[MATCH_CRITERIA_COUNT] = {0};
  for (const MatchRow& row : kMatchRows) {
    if ((mask & row.bit) != 0 && row.number != nullptr) {
      numbers[row.index] = wcstol(criteria[row.index].c_str(), nullptr, 10);
    }
  }
  std::vector<Agent*> found;
  for (Agent* agent : managedEndpointProcesses) {
    bool taken = true;
    for (const MatchRow& row : kMatchRows) {
      if ((mask & row.bit) == 0) continue;
      if (row.text != nullptr) {
        taken = taken && (agent->*row.text)() == criteria[row.index];
      } else {
        taken = taken && row.number(*agent) == numbers[row.index];
      }
    }
    if (taken) found.push_back(agent);
  }
  return found;
}

std::vector<Agent*> Controller::getManagedEndpointProcessLOCK(int mask, const std::wstring* criteria) {
  QOR_TRACE_FUNCTION();
  if (!managedEndpointProcesses.lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return std::vector<Agent*>();
  }
  std::vector<Agent*> found = getManagedEndpointProcess(mask, criteria);
  managedEndpointProcesses.unlockList();
  return found;
}
