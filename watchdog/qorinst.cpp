#include "watchdog/qorinst.h"

#include "cap/qorpol.h"

// Instance listing joins with the process layer; until then no product has an instance.
void CreateVexinfRunningInstancesScript(const std::wstring& /*code*/, QorScript* /*script*/) {}

void CreateZELInstancesScript(const std::wstring& /*code*/, QorScript* /*script*/) {}

void Policy::loadZELInstances() {}
