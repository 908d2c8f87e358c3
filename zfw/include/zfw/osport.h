// Operating-system helpers shared by the framework and its programs.
#ifndef ZFW_OSPORT_H
#define ZFW_OSPORT_H

#include <netdb.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace zfw {

// Makes sure the C run time's short program name is set: from "/proc/self/stat" when it is
// null or empty, "unknown" when that fails too.
void ensureProgramName();

// Whole-file advisory write lock (POSIX record lock). Result 0 when taken, the holder's
// process id when another process holds it, -1 on any other failure.
int tryLockFile(int fd);
// Releases the lock; results as for tryLockFile.
int unlockFile(int fd);
// Opens (creating with mode 0700) and tries to lock path. Result the descriptor, which stays
// open whether or not the lock was taken, or -1; *lockResult gets tryLockFile's result
// (-1 when the file could not be opened). A mode other than 0 is applied with fchmod.
int openAndLock(const char* path, int* lockResult);
int openAndLock(const char* path, int* lockResult, mode_t mode);

// The calling thread's file-system ids, read without changing them.
uid_t getFsUid();
gid_t getFsGid();
// Set the calling thread's file-system ids; result the previous id.
int setFsUid(uid_t uid);
int setFsGid(gid_t gid);

// pselect that also hands back the error number (0 when the call did not fail).
int pselectErrno(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* errorFds,
                 const struct timespec* timeout, const sigset_t* sigmask, int* err);

// spawn modes.
enum SpawnMode {
    SPAWN_WAIT = 0,   // run the program and wait: result the raw wait status
    SPAWN_START = 1,  // start it: result the child's process id
    SPAWN_EXEC = 2    // replace the calling process: returns only on failure
};
// Runs path with argv. With nfds > 0 the program gets exactly fds[0..nfds-1] as its
// descriptors 0..nfds-1 (an entry of -1 leaves that descriptor closed) and nothing else.
// A program that cannot be executed ends the child with the negated error number as its
// status. Result -1 with errno set when nothing could be started.
int spawn(int mode, int nfds, const int* fds, const char* path, char* const argv[]);

// Cached state of name resolution. A down state is forgotten after the stale time
// (300 s by default), or after the override stale time (60 s) for the one thread that
// called setDnsOverrideThread. Changes are logged at INFO to "dns.state".
void setDnsState(bool up);
bool isDnsUp();
void setDnsOverrideThread();
void setDnsStaleTimes(int32_t staleSeconds, int32_t overrideStaleSeconds);

// IPv4 host lookup into the caller's record and buffer; everything the record points to
// lies inside buffer. Result result, or null with *hostError set: TRY_AGAIN while DNS is
// down, HOST_NOT_FOUND, NO_DATA, NO_RECOVERY, or -1 with errno (ENOSPC when the buffer is
// too small). A failure that took longer than 10 seconds marks DNS down.
struct hostent* lookupHost(const char* name, struct hostent* result, char* buffer,
                           size_t bufferLength, int* hostError);

}  // namespace zfw

#endif
