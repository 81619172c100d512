// Names of users: the user a suite agent runs as, read from the run-as files
// under $MARLOWHOME/config; the cache of user id to name that the process
// inspection fills, with the passwd lookup behind it; and the user this
// process runs as. Used by Agent::setZELUserName, QorCmdUNIX::idToUserName and
// "##USER##" substitution. Safe from any thread: the cache, the current user
// and getpwuid are each guarded, and the run-as reader keeps no state.
#ifndef QOR_WATCHDOG_QORUSR_H
#define QOR_WATCHDOG_QORUSR_H

#include <unicode/unistr.h>

#include <string>

class Agent;
namespace HLX {
class DOMElement;
}

// Reads the run-as files for one agent of the suite. The host's own file,
// "<host>_hlxrunas.cfg", comes first; the general "hmvrunas.cfg" is read only
// when the first is missing or names no user for the agent.
class ZELUserProcessor {
 public:
  // Sets the agent's user name if a file names one; leaves it as it was otherwise.
  static void collectZELUser(Agent& agent);

  // True when the file at `path` named a user for the agent, who is then set.
  bool getUserInfo(const std::wstring& path, Agent& agent);
  // One entry, the text from its "<productCode>" on: true when it is the
  // agent's product code and one of its instances names a user for the agent.
  bool parseProdCodeEntry(const std::string& entry, Agent& agent);
  // Walks every instance of the entry's `element`; the last one that applies
  // to the agent sets its user. True if any did.
  bool processUserInfo(const HLX::DOMElement* element, Agent& agent);

  // Where the files are, before $MARLOWHOME is expanded.
  static std::wstring hostRunAsFile(const std::wstring& hostName);
  static const std::wstring kGeneralRunAsFile;
  // The longest user or product code taken from a file, in characters; more is cut off.
  static constexpr int kTextCapacity = 2096;
};

// Trims `text` and converts it into `result`, at most
// ZELUserProcessor::kTextCapacity characters; empty if it cannot be converted.
void uToWstring(icu::UnicodeString& text, std::wstring& result);

// The cached name of a user id, or empty.
std::wstring GetIDUserName(int id);
// Caches a name; an empty name is ignored and an existing entry stays.
void SetIDUserName(int id, const std::wstring& name);
// The passwd name of a user id, or empty when it has none.
std::wstring GetUserNameFromID(int id);
// The user of this process: $USER, else the name of the real user id. Kept
// once found.
std::wstring GetCurrentUser();

#endif  // QOR_WATCHDOG_QORUSR_H
