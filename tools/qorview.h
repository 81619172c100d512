// What the control endpoint shows of the agents: one snapshot through the
// exported iterator, turned into the JSON agent objects and into the metrics
// text. Used by the HTTP workers of qorhost; touches the service only
// through QOR_QueryService's iterator.
#ifndef QOR_TOOLS_QORVIEW_H
#define QOR_TOOLS_QORVIEW_H

#include <nlohmann/json.hpp>
#include <string>

#include "qoreventring.h"

class QOR_QueryService;
class QOR_AgentIterator;

namespace qorview {

// The word of an operating state code ("running"), or "unknown".
const char* stateWord(int code);
// The word of a managed state code ("managed"), or "unknown".
const char* managedWord(int code);

// The agent at the iterator's position as the wire's agent object.
nlohmann::ordered_json agentJson(QOR_AgentIterator& agents);

// All agents, the watchdog list included, in the iterator's order; false when
// the service gives no iterator (not started, or being released).
bool allAgents(QOR_QueryService& service, nlohmann::ordered_json& agents);

// The agent named `name` exactly (UTF-8); false when there is none.
bool agentNamed(QOR_QueryService& service, const std::string& name, nlohmann::ordered_json& agent);

// Seconds the process `pid` has run, from /proc; -1 when it is gone.
long uptimeSeconds(long pid);

// The Prometheus text exposition (format 0.0.4) of the agents and the
// events; false when the service gives no iterator.
bool metricsText(QOR_QueryService& service, const qorring::EventRing& ring, std::string& text);

// A label value escaped for the exposition format: backslash, quote, newline.
std::string escapeLabel(const std::string& value);

}  // namespace qorview

#endif  // QOR_TOOLS_QORVIEW_H
