// Fuzz target: the requests of both local sockets. The input, cut to what one
// read of the server takes (1023 bytes) and zero-terminated as the server
// does, goes to executeCommand and executeQuery of both servers, each on a
// fresh copy, with the live list holding a few agents (one of them the OS
// agent, as the watchdog process has it) and the OS agent's record apart in
// the watchdog list (as the embedded service has it). The input also goes
// through the tokens and, as the texts of an event, through the event record.
// Stops the run (trap) on a return code that no handler gives, an answer of
// a shape no query has, a token with a blank in it or empty, or an event
// record that is too long or has lost a field.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevthand.h"
#include "core/qormsghand.h"
#include "fuzz/fuzzenv.h"
#include "interfaces/qorsockserv.h"

namespace {

TEOSocketServer* teoServer = nullptr;
WatchdogSocketServer* watchdogServer = nullptr;

// The agents of every input, put back into their first state before each.
struct Listed {
  const wchar_t* name;
  const wchar_t* code;
  const wchar_t* instance;
  ManagedStates managed;
  int managerType;
};
const Listed kListed[] = {
    {L"Agent Q one", L"qg", L"db1", Managed, TeoServices}, {L"Agent Q", L"qg", L"", Managed, TeoServices},
    {L"Agent H", L"qh", L"", Unmanaged, TeoServices},      {L"Agent N", L"qn", L"None", Managed, TeoServices},
    {L"OS agent", L"qb", L"", Managed, WatchDog},
};
Agent* listed[sizeof kListed / sizeof kListed[0]];
// The OS agent as the embedded service sees it, under another of the OS
// agents' codes, so that a state command for it takes the recycle path.
const Listed kWatched = {L"OS agent", L"qa", L"", WatchdogManaged, WatchDog};
Agent* watchedOSAgent = nullptr;

Agent* makeAgent(const Listed& row) {
  Agent* agent = new Agent();
  Policy* policy = new Policy();
  // A specific policy names its instances: setting its code runs no listing.
  policy->setGeneric(false);
  policy->setProductCode(row.code);
  policy->setManagerTypeElement(row.managerType);
  agent->setPolicy(policy);
  agent->setName(row.name);
  agent->setInstanceName(row.instance);
  agent->setInstanceProcName(std::wstring(row.code) + L"d");
  return agent;
}

void resetAgents() {
  ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
  list->lockList();
  for (size_t i = 0; i < sizeof kListed / sizeof kListed[0]; ++i) {
    listed[i]->setManagedState(kListed[i].managed);
    listed[i]->setOperatingState(OpRunning);
    listed[i]->setProcID(4700 + static_cast<int>(i));
    listed[i]->setDailyRestartCount(2);
  }
  list->unlockList();
}

void drainQueues() {
  Controller* controller = Controller::getController();
  for (EventHandler* queue : {static_cast<EventHandler*>(controller->getCommandHandler()),
                              static_cast<EventHandler*>(controller->getMessageHandler())}) {
    queue->lockEventQueue();
    while (Event* event = queue->popEvent()) delete event;
    queue->unlockEventQueue();
  }
}

bool oneOf(int code, std::initializer_list<int> codes) {
  for (int known : codes) {
    if (code == known) return true;
  }
  return false;
}

// Digits, then "|", then nothing or what `rest` allows.
bool countAnswer(const std::string& answer, bool dateMayFollow) {
  size_t digits = 0;
  while (digits < answer.size() && answer[digits] >= '0' && answer[digits] <= '9') ++digits;
  if (digits == 0 || digits >= answer.size() || answer[digits] != '|') return false;
  const std::string date = answer.substr(digits + 1);
  if (date.empty()) return true;
  int fields[7];
  char tail = 0;
  return dateMayFollow && sscanf(date.c_str(), "%d %d %d %d %d %d %d%c", &fields[0], &fields[1], &fields[2],
                                 &fields[3], &fields[4], &fields[5], &fields[6], &tail) == 7;
}

// The request as the server holds it: at most 1023 bytes and a zero behind.
void asReceived(char* buffer, const uint8_t* data, size_t size) {
  const size_t length = size < kSocketRequestLimit ? size : kSocketRequestLimit;
  memcpy(buffer, data, length);
  buffer[length] = '\0';
}

void checkTokens(const uint8_t* data, size_t size) {
  char buffer[kSocketRequestLimit + 1];
  asReceived(buffer, data, size);
  const size_t length = strlen(buffer);
  RequestTokens tokens(buffer);
  size_t count = 0;
  while (const char* token = tokens.next()) {
    if (*token == '\0' || strchr(token, ' ') != nullptr)
      qorfuzz::stop("a token is empty or holds a blank", 0);
    if (token < buffer || token + strlen(token) > buffer + length) qorfuzz::stop("a token is outside", 0);
    if (++count > length) qorfuzz::stop("more tokens than bytes", 0);
  }
}

void checkServers(const uint8_t* data, size_t size) {
  Controller* controller = Controller::getController();
  char buffer[kSocketRequestLimit + 1];
  asReceived(buffer, data, size);
  const int teoCode = teoServer->executeCommand(buffer, controller);
  if (!oneOf(teoCode, {0, 1, -1, 100, 110, 120, 200, 202}))
    qorfuzz::stop("a .teo_sock command code", teoCode);

  asReceived(buffer, data, size);
  const std::string teoAnswer = teoServer->executeQuery(buffer, controller);
  if (!teoAnswer.empty() && !countAnswer(teoAnswer, false)) qorfuzz::stop("a .teo_sock query answer", 0);

  asReceived(buffer, data, size);
  const int wdCode = watchdogServer->executeCommand(buffer, controller);
  if (!oneOf(wdCode, {0, -1, 100, 110, 120, 202, 300, 301, 302, 600, 601, 602, 603}))
    qorfuzz::stop("a .teo_wd_sock command code", wdCode);

  asReceived(buffer, data, size);
  const std::string wdAnswer = watchdogServer->executeQuery(buffer, controller);
  if (!wdAnswer.empty() && wdAnswer != "$$NODATA" && !countAnswer(wdAnswer, true))
    qorfuzz::stop("a .teo_wd_sock query answer", 0);
}

// The input's bytes, one character each, as the messages of an event.
void checkRecord(const uint8_t* data, size_t size) {
  std::wstring text = qorfuzz::wideText(reinterpret_cast<const char*>(data), size, false);
  bool hasBar = false;
  for (wchar_t c : text) hasBar = hasBar || c == L'|';
  EventData event;
  event.eventTime = 1794661509;
  event.agentName = L"Agent";
  event.userMessage = text.substr(0, text.size() / 2);
  const std::string record = formatEventRecord(event, text.substr(text.size() / 2), 200);
  if (record.size() > 200) qorfuzz::stop("an event record longer than its limit", 0);
  size_t bars = 0;
  for (char c : record) bars += c == '|' ? 1 : 0;
  if (!hasBar && bars != 13) qorfuzz::stop("an event record without thirteen fields", static_cast<int>(bars));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  qorfuzz::setFixedEnvironment();
  // QOR_IP_DIR stays unset: the recycle of the OS agent then fails at once
  // (2) without a socket, where a missing server would leave a descriptor
  // open for each input.
  teoServer = new TEOSocketServer();
  watchdogServer = new WatchdogSocketServer();
  Controller* controller = Controller::getController();
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  list->lockList();
  for (size_t i = 0; i < sizeof kListed / sizeof kListed[0]; ++i) {
    listed[i] = makeAgent(kListed[i]);
    list->push_back(listed[i]);
  }
  list->unlockList();
  watchedOSAgent = makeAgent(kWatched);
  watchedOSAgent->setManagedState(kWatched.managed);
  watchedOSAgent->setDailyRestartCount(3);
  ManagedProcessList* watched = controller->getWatchdogList();
  watched->lockList();
  watched->push_back(watchedOSAgent);
  watched->unlockList();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  resetAgents();
  checkTokens(data, size);
  checkServers(data, size);
  checkRecord(data, size);
  drainQueues();
  return 0;
}
