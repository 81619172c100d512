// The socket server threads of the two processes: the embedded service serves
// .teo_sock, the watchdog process .teo_wd_sock. Started by the Controller on
// the TEO thread; each serves one connection at a time and looks at
// isShuttingDown between connections.
#ifndef QOR_INTERFACES_QORSOCKSERV_H
#define QOR_INTERFACES_QORSOCKSERV_H

// Thread entries; the argument is unused.
void* TEOSocketSrvThreadEntry(void* unused);
void* WatchdogSocketSrvThreadEntry(void* unused);

#endif  // QOR_INTERFACES_QORSOCKSERV_H
