// What qorctl prints from qorhost's JSON answers: the status lines, show's
// key=value lines, the answer to a command, the event lines, and the exit
// code of status. Pure functions of the JSON (and of the local time zone for
// event times), so that each printed byte can be tested without a qorhost.
// Safe from any thread.
#ifndef QOR_TOOLS_QORSTATUSFMT_H
#define QOR_TOOLS_QORSTATUSFMT_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace qorfmt {

// The API's objects keep their keys in the order qorhost wrote them.
using Json = nlohmann::ordered_json;

// The operating state the service calls running; any other state of a shown
// agent makes `qorctl status` exit 3.
constexpr int kRunningState = 4;

// "3d 04:05:06" from a day on, "04:05:06" below it, "-" when the JSON holds
// no number (null: no process, or it has gone) or a negative one.
std::string uptime(const Json& seconds);

// One line per agent of `agents` (an array of agent objects), in their order:
//   NAME  STATE  pid P, uptime U, restarts C/M[, GAVE UP]
// NAME and STATE padded to the widest of the lines (in characters, not
// bytes), so that the columns line up. With `colour`, the state word is green
// when running, red when down or not found, yellow otherwise, and GAVE UP is
// red; the padding stays outside the colour codes.
std::vector<std::string> statusLines(const Json& agents, bool colour);

// 0 when every agent of `agents` runs (state_code 4), 3 when one does not.
int statusExitCode(const Json& agents);

// key=value for every key of `agent`, in its order. Strings are printed as
// they are, with a line break or carriage return shown as \n or \r so that
// each key stays on its line; numbers and booleans as JSON writes them; null
// as nothing after the '='; arrays and objects as compact JSON.
std::vector<std::string> showLines(const Json& agent);

// The answer of a command in the form of qorhost's own command answers:
//   recycle 'NAME': 0 (accepted)
// from {"agent":NAME,"command":WORD,"code":C,"meaning":M}.
std::string commandLine(const Json& reply);

// One event of GET /v1/events:
//   2026-11-23 05:40:01  [ 3]  Example sleeper  Agent stopped abnormally.
// the time in local time, as qorhost prints it; an alert has "ALERT " before
// its text; an event of no agent shows "-" as the agent.
std::string eventLine(const Json& event);

// Percent-encodes every byte of `name` but letters, digits and "-_~", so that
// a name with blanks, '/', '%' or nothing but dots reaches qorhost as one
// path segment, never as a step up the path.
std::string pathSegment(const std::string& name);

}  // namespace qorfmt

#endif  // QOR_TOOLS_QORSTATUSFMT_H
