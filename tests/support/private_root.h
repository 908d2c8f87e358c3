// What every test executable's main (support/main.cpp) makes private: "/etc/zantorkv",
// "/var/zantorkv", "/var/zantormx" and "/dev" are tmpfs mounts of its own namespace, so a case
// may create files there and bind "/dev/log".
#ifndef KV_TESTS_SUPPORT_PRIVATE_ROOT_H
#define KV_TESTS_SUPPORT_PRIVATE_ROOT_H

namespace kvtest {

constexpr const char* kPrivateTmpfs = "kvtest";  // the source name of those mounts

// True when `dir` is one of those mounts: helpers that write the fixed paths check it first.
bool isPrivate(const char* dir);

// Empties "/etc/zantorkv" and "/var/zantormx" for the next case of a run that holds several;
// refuses (false) when they are not private.
bool clearPrivateDirs();

}  // namespace kvtest

#endif
