// The Controller's answer to CAP files: the initial scan at startup, and what
// a file's arrival or removal does to policies and agents.
#include "cap/qorunx.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

void Controller::initialDiscovery() {
  QOR_TRACE_FUNCTION();
  for (const std::wstring& directory : capDirPaths) {
    for (const std::wstring& name : GetCAPDirFiles(directory)) {
      std::wstring path = directory + name;
      QOR_TRACE_DETAIL("FileName<%s>", QOR_N(path));
      CAPFileEvent* event = new CAPFileEvent();
      event->setCAPState(0);
      event->setInitialDiscovery();
      event->setEventTypeID(cap_added);
      event->setCAPFileName(path);
      event->processEvent();
    }
  }
  CAPFileEvent* complete = new CAPFileEvent();
  complete->setEventTypeID(cap_init_complete);
  complete->processEvent();
}

void Controller::ProcessCAPStateChange(CAPFileEvent* /*event*/) {
  // Policies and agents from CAP files join with CAP state processing.
}
