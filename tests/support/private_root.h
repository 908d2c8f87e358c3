// What every test executable's main (support/main.cpp) makes private: "/etc/zantorkv",
// "/var/zantorkv", "/var/zantormx" and "/dev" are tmpfs mounts of its own namespace, so a case
// may create files there and bind "/dev/log".
#ifndef KV_TESTS_SUPPORT_PRIVATE_ROOT_H
#define KV_TESTS_SUPPORT_PRIVATE_ROOT_H

namespace kvtest {

// The source name of those tmpfs mounts.
constexpr const char* kPrivateTmpfs = "kvtest";

// True when `dir` is one of those mounts: helpers that write the fixed paths check it first,
// so that a program with another main never touches the host's.
bool isPrivate(const char* dir);

// Empties "/etc/zantorkv" and "/var/zantormx" for the next case of a run that holds several;
// refuses (false) when they are not private.
bool clearPrivateDirs();

}  // namespace kvtest

#endif
