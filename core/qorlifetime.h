// The life of the service behind QOR_QueryService: which directories hold the
// CAP files, where the state file lies, startup, the state file's writing and
// shutdown. Called by QOR_QueryService only, from the host's one lifetime thread.
#ifndef QOR_CORE_QORLIFETIME_H
#define QOR_CORE_QORLIFETIME_H

// Creates the Controller and settles the CAP directories from QOR_CAP_DIR.
void InitializeTEO();
// Starts the service; returns when startup has completed.
void StartTEO();
// Writes the state file (embedded mode only).
void PersistTEO();
// Shuts the service down, then writes the state file.
void TerminateTEO();

#endif  // QOR_CORE_QORLIFETIME_H
