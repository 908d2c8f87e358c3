// Internals of the logger registry shared by the loggers and their configuration.
#ifndef ZFW_LOGREGISTRY_H
#define ZFW_LOGREGISTRY_H

#include "zfw/mutex.h"

namespace zfw {

// The registry lock (recursive; see logger.cpp for its place in the lock order).
Mutex& loggerRegistryMutex();

// With the registry lock held: sets the root to FATAL and every other logger's level and
// facility to inherited, ready for a new configuration.
void resetLoggersLocked();

}  // namespace zfw

#endif
