#include "watchdog/qorcmd.h"

#include "agents/qoragt.h"
#include "agents/qorproclist.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "watchdog/qorunx.h"

QOR_TRACE_UNIT();

int32_t MIN_CMD_TIMEOUT = 30;

const std::wstring ZEL_CMD_STR = L"zelcmd";
const std::wstring AGENT_INST_CMD_STR = L"agentInstanceCommand";
const std::wstring AGENT_INST_CMD_START = L"START";
const std::wstring AGENT_INST_CMD_STOP = L"STOP";

QorCmd::QorCmd() : timeout(MIN_CMD_TIMEOUT), controller(Controller::getController()) {
  QOR_TRACE_FUNCTION();
  int value = 0;
  if (!QOR_GetEnvironmentAsInt("QOR_CMD_TIMEOUT", value)) {
    QOR_TRACE_DETAIL("Invalid timeout specified by QOR_CMD_TIMEOUT.\n");
  } else if (value >= MIN_CMD_TIMEOUT) {
    timeout = value;
  }
  QOR_TRACE_DETAIL("Using command timeout = %d.\n", timeout);
}

QorCmd::~QorCmd() = default;

int QorCmd::executeCmd(QorScript* script, std::wstring& output, std::wstring& msgID, Agent* agent) {
  QOR_TRACE_FUNCTION();
  std::wstring command = ReplaceTEOVariables(script->getCommand(), agent);
  QOR_TRACE_DETAIL("Executing command < %s >.\n", QOR_N(command));

  // A command may run for its whole time-out: a caller that holds the list
  // gives it up meanwhile. unlockList refuses any thread that does not hold
  // the lock, so for every other caller this changes nothing. The list may
  // have changed by the time it is taken back.
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  const bool relock = list->unlockList();

  std::string rawOutput;
  int rc;
  {
    // cmdMutex is only waited for with the list given up, and held for the
    // length of the command when the command must be serialised. A thread
    // cancelled in the middle of the command unwinds through the guard, so
    // the suite's next command is not blocked for good.
    QorMutexLock serial(&cmdMutex, QorMutexLock::kDeferred);
    if (serializeCommand(command)) {
      int lockRc = serial.acquire();
      if (lockRc != 0) {
        QOR_TRACE_ERROR("Error: pthread_mutex_lock failed rc=%d \n", lockRc);
        // The caller holds the list again on every way out, as it did on the way in.
        if (relock) list->lockList();
        return QOR_TRACE_RETURN(-1);
      }
      QOR_TRACE_DETAIL("Executing serialized ZEL command\n");
    }
    rc = executeCmd(command, rawOutput, script, agent);
    int unlockRc = serial.release();
    if (unlockRc != 0) QOR_TRACE_ERROR("Error: pthread_mutex_unlock failed, rc=%d \n", unlockRc);
  }

  if (relock) {
    list->lockList();
    QOR_TRACE_DETAIL("Command rc < %d >.\n", rc);
  }

  // Kept: a CAP file may call any exit code a success or an error, 0 included (it then becomes 1).
  // A code in both maps is a success.
  if (!script->emptyRCs()) {
    if (script->isSuccessRC(rc)) {
      msgID = script->getSuccessRCMsg(rc);
      rc = 0;
      QOR_TRACE_DETAIL("Expected success rc - msg_id %s. Setting it to < %d >.\n", QOR_N(msgID), rc);
    } else if (script->isErrorRC(rc)) {
      msgID = script->getErrorRCMsg(rc);
      if (rc == 0) rc = 1;
      QOR_TRACE_DETAIL("Expected error rc - msg_id %s.\n", QOR_N(msgID));
    } else {
      QOR_TRACE_DETAIL("Script ended with unexpected rc < %d >.\n", rc);
    }
  }

  QOR_TRACE_DETAIL("Command output < %s >.\n", rawOutput.c_str());
  if (!rawOutput.empty()) output = qor_mbstowcs(rawOutput.c_str());
  return QOR_TRACE_RETURN(rc);
}
