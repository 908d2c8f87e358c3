/* The status out-parameter of the operations that return a handle. */
#ifndef LRPC2_STATUS_OUT_H
#define LRPC2_STATUS_OUT_H

#include <stdint.h>
#include <cstddef>

/* Writes the code through `status` when the caller gave one, and returns null, so that a failure
 * is reported and returned in one statement: `return lrpc2_report(status, code);`. */
inline std::nullptr_t lrpc2_report(int32_t* status, int32_t code) {
    if (status != nullptr) {
        *status = code;
    }
    return nullptr;
}

#endif
