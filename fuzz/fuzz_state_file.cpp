// Fuzz target: the state file. The input is written as teo.dat and read back
// through Controller::ReadAgent, once for the subagent id "qa.agent" and once
// for the empty id, which every record whose id line is empty matches. The
// records read go into the Controller's two lists, PersistTEO writes them, and
// the file written is checked line by line against the agents. Stops the run
// (trap) when the file is not whole and exact, when a temporary is left
// behind, or when a reading takes more records than the input has lines.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "agents/qorfst.h"
#include "agents/qorproclist.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorlifetime.h"
#include "core/qorutil.h"
#include "fuzz/fuzzenv.h"
#include "watchdog/qorcmd.h"

namespace {

std::string stateDir;

// The UTF-8 form of a wide text, as the state file holds it.
std::string utf8(const std::wstring& text) {
  std::string out;
  for (wchar_t wc : text) {
    unsigned long c = static_cast<unsigned long>(wc);
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (c >> 12)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (c >> 18)));
      out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return out;
}

// The eighteen lines an agent's record must be, each with its line end.
std::string expectedRecord(const Agent& a) {
  std::string out = "*\n6.2.2.2\n";
  for (const std::wstring& text :
       {a.getID(), a.getInstanceProcName(), a.getInstanceName(), a.getServiceInstanceName()}) {
    out += utf8(text) + "\n";
  }
  out += std::to_string(a.getManagedState()) + "\n" + utf8(a.getName()) + "\n";
  out += std::to_string(a.getOperatingState()) + "\n" + utf8(a.getProcName()) + "\n";
  out += std::to_string(a.getProcID()) + "\n" + std::to_string(a.getDailyRestartCount()) + "\n";
  out += utf8(a.getPath()) + "\n" + std::to_string(a.getType()) + "\n";
  out += utf8(a.getAgentVersion()) + "\n" + utf8(a.getAgentBuildNumber()) + "\n";
  return out + std::to_string(a.getSavedState()) + "\n*\n";
}

std::string readWhole(const std::string& path) {
  std::string text;
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) qorfuzz::stop("the state file is missing after PersistTEO", 0);
  char buffer[4096];
  size_t got;
  while ((got = fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, got);
  fclose(file);
  return text;
}

void writeWhole(const std::string& path, const uint8_t* data, size_t size) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr || (size > 0 && fwrite(data, 1, size, file) != size) || fclose(file) != 0) {
    perror("qor fuzz: cannot write the state file");
    abort();
  }
}

// Reads the records of `id` into `list`, as CAP processing does: with the
// managed list locked.
void readInto(ManagedProcessList& list, const std::wstring& id, size_t lines) {
  Controller* controller = Controller::getController();
  Policy policy;
  policy.setSubagentID(id);
  ManagedProcessList* managed = controller->getManagedEndpointProcesses();
  managed->lockList();
  controller->ReadAgent(list, &policy);
  managed->unlockList();
  // A record takes at least its two first lines, and one more for the count.
  if (list.size() * 2 > lines + 1) qorfuzz::stop("a reading took more records than the file has lines", 0);
}

// Builds the text the whole file must be from the two lists, in list order.
std::string expectedFile(ManagedProcessList& managed, ManagedProcessList& watched) {
  std::string text = std::to_string(managed.size() + watched.size()) + "\n";
  for (Agent* agent : managed) text += expectedRecord(*agent);
  for (Agent* agent : watched) text += expectedRecord(*agent);
  return text;
}

void deleteAll(ManagedProcessList& list) {
  for (Agent* agent : list) delete agent;
  list.clear();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  qorfuzz::setFixedEnvironment();
  stateDir = std::string(getenv("TMPDIR")) + "/qor-fuzz-state-XXXXXX";
  if (mkdtemp(&stateDir[0]) == nullptr) {
    perror("qor fuzz: mkdtemp");
    abort();
  }
  Controller::getController()->setTEODirPath(qor_mbstowcs((stateDir + "/").c_str()));
  atexit([] {
    unlink(GetTeoDatPath().c_str());
    rmdir(stateDir.c_str());
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = GetTeoDatPath();
  writeWhole(path, data, size);
  size_t lines = 1;
  for (size_t i = 0; i < size; ++i) lines += data[i] == '\n';

  Controller* controller = Controller::getController();
  ManagedProcessList& managed = *controller->getManagedEndpointProcesses();
  ManagedProcessList& watched = *controller->getWatchdogList();
  readInto(managed, L"qa.agent", lines);
  readInto(watched, L"", lines);
  for (Agent* agent : managed) {
    if (agent->getID() != L"qa.agent") qorfuzz::stop("a record of another id was taken", 0);
  }
  for (Agent* agent : watched) {
    if (!agent->getID().empty()) qorfuzz::stop("a record of another id was taken", 1);
  }

  PersistTEO();
  if (access((path + ".tmp").c_str(), F_OK) == 0) qorfuzz::stop("the temporary was left behind", 0);
  if (readWhole(path) != expectedFile(managed, watched)) qorfuzz::stop("the written file is not exact", 0);

  deleteAll(managed);
  deleteAll(watched);
  // A path's $NAME@code runs a command; reap what its time-out left running.
  GetCmdManager()->cleanUpDefunctProcesses();
  return 0;
}
