// Directories, accounts and controller status of the platform's SDK library (libkestsdk).

#ifndef PLATFORM_KESTSDK_H
#define PLATFORM_KESTSDK_H

#include <sys/types.h>

extern "C" {

// Makes the directory `path`, with its missing parents when `parents` is not 0. Each directory made
// belongs to `uid` and `gid`. `path` gets exactly the mode `mode` and its parents 0755, whatever
// the umask. Existing directories are not changed. Returns 0 when the directory exists afterwards,
// otherwise -1 with errno set. `base` is null.
int KESTFSMkdirP(const char *path, const char *base, int parents, uid_t uid, gid_t gid,
                 mode_t mode);

// Stores the uid and the primary group of the account `name` and returns 0; returns -1 and stores
// nothing when there is no such account.
int KESTUserGetUGID(const char *name, uid_t *uid, gid_t *gid);

// Reads the status that the system's controller reports for this machine; 2 means held. Returns 0
// and stores the status, or leaves *status unchanged when the controller has not reported one.
// Returns -1 and leaves *status unchanged when the report cannot be read. `query` is 1.
int KESTVorldStatusGet(int query, int *status);

} // extern "C"

#endif
