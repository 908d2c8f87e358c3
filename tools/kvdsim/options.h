// Command line of the simulated daemon.
#ifndef KVDSIM_OPTIONS_H
#define KVDSIM_OPTIONS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zkvfw/collector.h"

namespace kvdsim {

// One deliberate misbehaviour, applied at a chosen frame of chosen connections (what each
// does: kFaults in options.cpp, which is also --help's list).
enum class Fault {
    None,
    CloseHello,
    SilentHello,
    CloseRequest,
    SilentRequest,
    CloseHeader,
    CloseBody,
    SilentBody,
    BadMagic,
    SwappedMagic,
    BadTag,
    TrailingByte,
    ShortLength,
    HugeLength,
};

// How the daemon answers the client's identity during process authentication.
enum class AuthAnswer {
    TwoPaths,  // the two proof file paths
    OnePath,   // only the first path
    Nested,    // a further challenge instead of the paths
};

// Which processes listen and serve.
enum class Shape {
    Single,      // one process listens and serves
    Fork,        // the listener forks a worker per connection
    Activation,  // the listener forks one server and keeps the socket without serving
    Detach,      // the listener forks one server and exits, as a daemon that detaches
};

// What the queries answer.
struct Answers {
    bool online = true;
    std::string collectorStatus = "running";
    CollectorDetail detail = {1, "running", "kvdsim", true, "local", ""};
    std::string dbSize = "1048576";
    std::string despoolRate = "0";
    int32_t reloadResult = 0;
};

// The serving processes keep the listener's user.
constexpr uint32_t kKeepUser = UINT32_MAX;

struct Options {
    std::string socket = "/var/zantorkv/audit";
    std::string readyFile;
    std::string logFile;
    bool exitOnStop = false;
    uint32_t lingerMs = 0;  // after the stop: closed, but the process stays this long
    uint32_t handshake = 1;
    Shape shape = Shape::Single;
    uint32_t serveAs = kKeepUser;  // uid (and gid) of the serving processes
    bool auth = false;
    AuthAnswer authAnswer = AuthAnswer::TwoPaths;
    std::string proofDir;    // empty: the socket's directory
    std::string proofPath1;  // named instead of created when set
    std::string proofPath2;
    uint32_t proofSize = 32;
    Fault fault = Fault::None;
    uint32_t faultFrame = 1;
    uint32_t faultConn = 0;  // 0: every connection
    uint32_t piece = 0;      // 0: whole
    uint32_t pieceDelayMs = 5;
    // Request id -> the raw fields (end tag excluded) that replace its reply's fields.
    std::map<uint32_t, std::vector<uint8_t>> replyFields;
    Answers answers;
};

// Parses the command line. Returns 0 to run, 1 after --help (printed), 2 on a usage
// error (message printed to standard error).
int parseOptions(int argc, char** argv, Options& options);

}  // namespace kvdsim

#endif
