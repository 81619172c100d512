#include "agents/qorfst.h"

#include <pthread.h>

#include <climits>
#include <codecvt>
#include <cwchar>
#include <iterator>
#include <locale>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

std::string teodatPath;
pthread_once_t teodatOnce = PTHREAD_ONCE_INIT;

void settleTeoDatPath() {
  QOR_TRACE_FUNCTION();
  // Kept: the directory ends in "/" already, so the slash is doubled; an empty one gives "/teo.dat".
  teodatPath = qor_narrow(Controller::getController()->getTEODirPath()) + "/" + "teo.dat";
  QOR_TRACE_STORY("teodatPath = %s\n", teodatPath.c_str());
}

// The file is UTF-8 whatever locale the process runs in: in the classic
// locale one character outside ASCII would fail the stream and cut the file
// short, losing every record after it.
std::locale utf8Locale() { return std::locale(std::locale::classic(), new std::codecvt_utf8<wchar_t>); }

// The record layouts the reader understands, by the text of a record's
// second line. The writer always writes the current one.
enum class Layout { Unknown, Current, NoSavedState, NoInstanceTexts };

Layout layoutOf(const std::wstring& version) {
  if (version == L"6.2.1.0") return Layout::NoInstanceTexts;
  if (version == L"6.2.2.0") return Layout::NoSavedState;
  if (version == versionString) return Layout::Current;
  return Layout::Unknown;
}

// A number that names none of an enum's values, 0 to `last`, reads as 0, as a
// text that is no number does: an enum variable cannot hold a value outside
// its range, and the rest of the service compares states by name.
int enumValue(int value, int last) { return value >= 0 && value <= last ? value : 0; }

// One line of a record after the version: how it is read into an agent and
// written from one, and whether the older layouts hold it.
struct RecordLine {
  void (*read)(QorIFStream& in, Agent& agent);
  void (*write)(QorOFStream& out, const Agent& agent);
  bool inNoSavedState;
  bool inNoInstanceTexts;
};

// Lines 3 to 17 in file order. The order matters: setOperatingState clears
// procID for the states without a process, so the operating state comes
// before the process id.
const RecordLine recordLines[] = {
    {[](QorIFStream& in, Agent& a) { a.setID(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getID(); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setInstanceProcName(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getInstanceProcName(); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setInstanceName(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getInstanceName(); }, true, false},
    {[](QorIFStream& in, Agent& a) { a.setServiceInstanceName(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getServiceInstanceName(); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setManagedState(enumValue(in.getlineInt(), WatchdogManaged)); },
     [](QorOFStream& out, const Agent& a) { out << static_cast<int>(a.getManagedState()); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setName(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getName(); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setOperatingState(enumValue(in.getlineInt(), OpNotConfigured)); },
     [](QorOFStream& out, const Agent& a) { out << static_cast<int>(a.getOperatingState()); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setProcName(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getProcName(); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setProcID(in.getlineInt()); },
     [](QorOFStream& out, const Agent& a) { out << a.getProcID(); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setDailyRestartCount(in.getlineInt()); },
     [](QorOFStream& out, const Agent& a) { out << a.getDailyRestartCount(); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setPath(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getPath(); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setType(enumValue(in.getlineInt(), ZEL_Windows)); },
     [](QorOFStream& out, const Agent& a) { out << static_cast<int>(a.getType()); }, true, true},
    {[](QorIFStream& in, Agent& a) { a.setAgentVersion(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getAgentVersion(); }, true, false},
    {[](QorIFStream& in, Agent& a) { a.setAgentBuildNumber(in.getlineWstring()); },
     [](QorOFStream& out, const Agent& a) { out << a.getAgentBuildNumber(); }, true, false},
    {[](QorIFStream& in, Agent& a) { a.setSavedState(enumValue(in.getlineInt(), WatchdogManaged)); },
     [](QorOFStream& out, const Agent& a) { out << static_cast<int>(a.getSavedState()); }, false, false},
};
static_assert(std::size(recordLines) == 15,
              "a record holds lines 3 to 17 between its version and its closing star");

bool layoutHolds(Layout layout, const RecordLine& line) {
  switch (layout) {
    case Layout::Current:
      return true;
    case Layout::NoSavedState:
      return line.inNoSavedState;
    case Layout::NoInstanceTexts:
      return line.inNoInstanceTexts;
    case Layout::Unknown:
      break;
  }
  return false;
}

// True while the stream is sound and holds at least one more character.
bool hasMore(QorIFStream& in) { return in.good() && in.peek() != std::char_traits<wchar_t>::eof(); }

}  // namespace

std::string GetTeoDatPath() {
  // Filled once; pthread_once keeps two first callers from racing on it.
  pthread_once(&teodatOnce, settleTeoDatPath);
  return teodatPath;
}

QorOFStream::QorOFStream() : QorOFStream(GetTeoDatPath()) {}

QorOFStream::QorOFStream(const std::string& path) {
  imbue(utf8Locale());  // before open, while the buffer holds nothing
  open(path.c_str(), std::ios::out | std::ios::trunc);
}

QorIFStream::QorIFStream() {
  imbue(utf8Locale());
  open(GetTeoDatPath().c_str(), std::ios::in);
}

std::wstring QorIFStream::getlineWstring() {
  wchar_t buffer[256] = {0};
  getline(buffer, 256);
  return std::wstring(buffer);
}

int QorIFStream::getlineInt() {
  std::wstring line = getlineWstring();
  long value = wcstol(line.c_str(), nullptr, 10);
  // A count or state past the range of int saturates rather than wrapping
  // into some unrelated number.
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

QorIFStream& operator>>(QorIFStream& in, Agent& agent) {
  in.getlineWstring();  // the opening "*", not checked
  Layout layout = layoutOf(in.getlineWstring());
  // Kept: a record of an unknown version is read as two lines; the rest of it is taken for the next record.
  if (layout == Layout::Unknown) return in;
  for (const RecordLine& line : recordLines) {
    if (layoutHolds(layout, line)) line.read(in, agent);
  }
  in.getlineWstring();  // the closing "*", not checked
  return in;
}

QorOFStream& operator<<(QorOFStream& out, Agent& agent) {
  out << L"*" << std::endl;
  // The record's own version, which is the current layout in every agent.
  out << agent.getVersion() << std::endl;
  for (const RecordLine& line : recordLines) {
    line.write(out, agent);
    out << std::endl;
  }
  out << L"*" << std::endl;
  return out;
}

// Requires: managedEndpointProcesses locked by the caller.
void Controller::ReadAgent(ManagedProcessList& list, Policy* policy) {
  QOR_TRACE_FUNCTION();
  QorIFStream in;
  // A missing file fails the stream, the count reads as 0: a first start.
  int count = in.getlineInt();
  QOR_TRACE_DETAIL("Number of agents in dat file = %d\n", count);
  const std::wstring subagentID = policy->getSubagentID();
  // Once the stream has failed or has nothing left, every further record
  // would read as empty fields: reading stops there, so that a count far
  // beyond the file's records makes no agents and takes no time.
  for (int read = 0; read < count && hasMore(in); ++read) {
    Agent* agent = new Agent();
    in >> *agent;
    if (agent->getID() == subagentID) {
      list.push_back(agent);
      QOR_TRACE_DETAIL("Matched Agent = %s\n", agent->getshortID().c_str());
    } else {
      delete agent;
    }
  }
  in.close();
}
