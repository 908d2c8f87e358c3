// Standard descriptors for the command-line tools.
#ifndef KVTOOLS_STDFDS_H
#define KVTOOLS_STDFDS_H

namespace kvtools {

// Descriptors 0, 1 and 2 closed at start are held by /dev/null opened read-only, so that no
// socket or file takes their place: what would be written there fails (EBADF) instead of
// reaching the daemon or a file. Ends the process with status 2 when that is impossible.
void reserveStandardDescriptors();

}  // namespace kvtools

#endif
