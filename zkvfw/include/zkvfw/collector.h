// The detailed collector status, as the daemon answers query 91 (KVQueryCollectorStatus2).
// The daemon defines only the types and their order; the names are those of kvctl's JSON
// contract.
#ifndef ZKVFW_COLLECTOR_H
#define ZKVFW_COLLECTOR_H

#include <stdint.h>

#include <string>

struct CollectorDetail {
    int32_t code = 0;
    std::string state;
    std::string name;
    bool flag = false;
    std::string source;
    std::string note;
};

#endif
