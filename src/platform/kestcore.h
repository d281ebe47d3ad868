// Process, pid file and program calls of the platform's core library (libkestcore).
//
// Every call records its result: after a success XLIBCErrGet() returns 0. After a failure it
// returns the kind of failure, and XLIBCErrorGetFile() and XLIBCErrorGetLine() return the place in
// the library.

#ifndef PLATFORM_KESTCORE_H
#define PLATFORM_KESTCORE_H

#include <sys/types.h>

extern "C" {

// A running process.
struct XLIBCProc {
    pid_t pid;
    char command[64]; // the command name, NUL-terminated; empty when the kernel gives none
};

// The pid written in the pid file at `path`; 0 or less when there is no such file or no pid in it.
pid_t XLIBCReadPidFile(const char *path);

// Returns 1 when the process `pid` exists and has not ended, otherwise 0. A zombie counts as ended.
int XLIBCProcAlive(pid_t pid);

// Stores in *process a new record of the process `pid` and returns 0, or returns a negative number
// and leaves *process as it was. Release the record with XLIBCProcFree.
int XLIBCProcGetByPid(pid_t pid, XLIBCProc **process);

// Releases a record of XLIBCProcGetByPid; null is allowed.
void XLIBCProcFree(XLIBCProc *process);

// Writes the caller's pid and a newline into `path`, and keeps the file locked until the process
// ends: of several processes that create the same pid file at the same moment only one succeeds.
// Returns 0, or a negative number when the file cannot be written or another process holds it; a
// file held by another process keeps its content.
int XLIBCProcPidFileCreate(const char *path);

// Forks. Returns -1 with errno set on failure, the child's pid in the parent and 0 in the child.
// The child begins a session of its own; it has standard input, output and error and no other
// descriptor; SIGINT, SIGTERM and SIGPIPE have their default actions, SIGHUP is ignored, no signal
// is blocked. `flags` is 71.
pid_t XLIBCProcForkEx(int flags);

// Replaces the process by the program at `path` with the arguments `argv`, which end with a null
// pointer. The program starts with every signal at its default action and none blocked. Returns
// only on failure: -1 with errno set. `flag` is 1.
int XLIBCExecv(const char *path, char *const argv[], int flag);

// Runs the program at `path` with the arguments that follow, up to a null pointer, and waits for
// it. No shell is involved. Returns 0 when the program ended with exit status 0, its exit status
// when that was another, and -1 when it could not be started or was killed. A program that takes
// longer than ten seconds is killed: -1, with errno ETIMEDOUT. The result does not depend on the
// caller's disposition of SIGCHLD. When the caller ignores SIGCHLD, other children that end
// meanwhile are reaped.
int XLIBCExec(const char *path, ...) __attribute__((sentinel));

// True when `path` exists, symbolic links followed.
bool XLIBCFileExist(const char *path);

// The last call's failure: its code, 0 for none, and the source file and line that reported it.
int XLIBCErrGet();
const char *XLIBCErrorGetFile();
int XLIBCErrorGetLine();

} // extern "C"

#endif
