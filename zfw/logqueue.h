// Internals shared by direct log delivery and the log queue.
#ifndef ZFW_LOGQUEUE_H
#define ZFW_LOGQUEUE_H

#include <cstdarg>
#include <cstdint>

#include "zfw/mutex.h"

namespace zfw {

// The delivery lock (recursive; see logdelivery.cpp for its place in the lock order).
Mutex& logDeliveryMutex();

// With the delivery lock held: formats the record into the log queue when it runs. False
// when there is no log queue and the record goes straight to syslog.
bool queueRecord(int32_t priority, const char* record, va_list args);

// Stops the log thread, if one runs, and writes every record still queued; delivery is
// direct afterwards.
void endLogQueue();

}  // namespace zfw

#endif
