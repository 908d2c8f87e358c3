// Operating-system helpers shared by the framework and its programs.
#ifndef ZFW_OSPORT_H
#define ZFW_OSPORT_H

namespace zfw {

// Makes sure the C run time's short program name is set: from "/proc/self/stat" when it is
// null or empty, "unknown" when that fails too.
void ensureProgramName();

}  // namespace zfw

#endif
