#include "options.h"

#include <errno.h>
#include <getopt.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kvdsim {

namespace {

const char kUsage[] =
    "Usage: kvdsim [OPTIONS]\n"
    "A simulated Kavelo audit daemon: listens on a Unix stream socket and speaks the\n"
    "daemon's side of the lrpc2 protocol (handshake, framed requests and replies, process\n"
    "authentication), misbehaving on request so that clients can be tested.\n"
    "Every request is answered with a reply of the same id; the queries get plausible\n"
    "fields, which the options below can set (80: bool; 90, 100, 110: a string; 91: int32,\n"
    "string, string, bool, string, string; 120: int32). It serves any number of\n"
    "connections, one after another or at once, until SIGTERM or SIGINT, and then removes\n"
    "its socket and exits with 0.\n"
    "\n"
    "  --socket PATH        listen on PATH (default /var/zantorkv/audit); a stale socket\n"
    "                       there is replaced, any other file is an error\n"
    "  --ready-file PATH    create PATH once listening; standard output also gets the\n"
    "                       line \"kvdsim: listening on SOCKET\" at that moment\n"
    "  --log PATH           append one line per handshake and frame received, written\n"
    "                       before any answer: \"<conn> hello <hex>\" and\n"
    "                       \"<conn> frame <hex>\" (connections count from 1; the bytes in\n"
    "                       lower-case hex without separators)\n"
    "  --exit-on-stop       answer KVStop (20), remove the socket and exit, so that later\n"
    "                       connects are refused; without it the daemon keeps running and\n"
    "                       answers every request (pings included)\n"
    "  --handshake VALUE    answer the client's hello with VALUE (default 1, which\n"
    "                       accepts); any other value refuses and closes\n"
    "  --auth               demand process authentication before the first request of\n"
    "                       each connection: challenge (id 1), check the client's uid and\n"
    "                       gid against its socket credentials, answer with the paths of\n"
    "                       two new proof files of random content, check the contents the\n"
    "                       client sends back (id 2), then reply to the first request.\n"
    "                       A wrong identity or wrong contents close the connection\n"
    "  --auth-answer KIND   answer the client's identity with: two-paths (default),\n"
    "                       one-path (the first path only), nested (another challenge)\n"
    "  --proof-dir DIR      create the proof files in DIR (default: the socket's\n"
    "                       directory); they are removed when the dialogue ends\n"
    "  --proof-size N       bytes of random content per proof file (default 32)\n"
    "  --proof-file1 PATH   name PATH as the first proof file instead of creating one\n"
    "  --proof-file2 PATH   the same for the second (the contents expected are read\n"
    "                       from the file when the paths are sent)\n"
    "  --fault KIND         misbehave at one frame (see --fault-frame, --fault-conn):\n"
    "                         close-hello     read the hello, close without answering\n"
    "                         silent-hello    read the hello, never answer\n"
    "                         close-request   read the frame, close without a reply\n"
    "                         silent-request  read the frame, never reply\n"
    "                         close-header    send the reply's 8 header bytes, close\n"
    "                         close-body      send the reply but its last byte, close\n"
    "                         silent-body     send the reply but its last byte, then\n"
    "                                         stay silent\n"
    "                         bad-magic       reply with the magic 0xDEADBEEF\n"
    "                         swapped-magic   reply with the magic bytes AB CD 80 12\n"
    "                         bad-tag         reply holding a field tag 9\n"
    "                         trailing-byte   reply with a byte after its end tag\n"
    "                         short-length    reply header with the length 7, no more\n"
    "                         huge-length     reply header with a length of 16 MiB + 1,\n"
    "                                         no more\n"
    "                       After a malformed reply the connection stays open.\n"
    "  --fault-frame N      the frame (counting from 1 on each connection, the frames of\n"
    "                       the authentication dialogue included) that the fault hits\n"
    "                       (default 1); hello faults hit the hello\n"
    "  --fault-conn N       only the Nth connection accepted suffers the fault (default\n"
    "                       0: every connection)\n"
    "  --piece N            send every answer in pieces of N bytes (default: whole)\n"
    "  --piece-delay MS     pause between pieces (default 5)\n"
    "  --reply-fields ID=HEX\n"
    "                       answer request ID with exactly these fields instead of its\n"
    "                       usual ones: the tagged field bytes in hex, without the end\n"
    "                       tag (empty: no fields); repeatable, one per id\n"
    "  --online yes|no      answer to is-daemon-online (80; default yes)\n"
    "  --collector-status TEXT\n"
    "                       answer to the collector status (90; default running)\n"
    "  --collector-detail N,TEXT,TEXT,yes|no,TEXT,TEXT\n"
    "                       the six values of the detailed collector status (91; default\n"
    "                       1,running,kvdsim,yes,local,); the texts hold no commas\n"
    "  --db-size TEXT       answer to the database size (100; default 1048576)\n"
    "  --despool-rate TEXT  answer to the despool rate (110; default 0)\n"
    "  --reload-result N    answer to reload-properties (120; default 0)\n"
    "  --help               print this text and exit\n";

struct Named {
    const char* name;
    int value;
};

const Named kFaults[] = {
    {"close-hello", static_cast<int>(Fault::CloseHello)},
    {"silent-hello", static_cast<int>(Fault::SilentHello)},
    {"close-request", static_cast<int>(Fault::CloseRequest)},
    {"silent-request", static_cast<int>(Fault::SilentRequest)},
    {"close-header", static_cast<int>(Fault::CloseHeader)},
    {"close-body", static_cast<int>(Fault::CloseBody)},
    {"silent-body", static_cast<int>(Fault::SilentBody)},
    {"bad-magic", static_cast<int>(Fault::BadMagic)},
    {"swapped-magic", static_cast<int>(Fault::SwappedMagic)},
    {"bad-tag", static_cast<int>(Fault::BadTag)},
    {"trailing-byte", static_cast<int>(Fault::TrailingByte)},
    {"short-length", static_cast<int>(Fault::ShortLength)},
    {"huge-length", static_cast<int>(Fault::HugeLength)},
};

const Named kAuthAnswers[] = {
    {"two-paths", static_cast<int>(AuthAnswer::TwoPaths)},
    {"one-path", static_cast<int>(AuthAnswer::OnePath)},
    {"nested", static_cast<int>(AuthAnswer::Nested)},
};

template <size_t N>
bool lookup(const Named (&names)[N], const char* text, int& value) {
    for (const Named& n : names) {
        if (strcmp(n.name, text) == 0) {
            value = n.value;
            return true;
        }
    }
    return false;
}

bool parseYesNo(const std::string& text, bool& value) {
    if (text == "yes" || text == "no") {
        value = text == "yes";
        return true;
    }
    return false;
}

bool parseSigned(const std::string& text, int32_t& value) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long n = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || n < INT32_MIN || n > INT32_MAX) {
        return false;
    }
    value = static_cast<int32_t>(n);
    return true;
}

// "N,TEXT,TEXT,yes|no,TEXT,TEXT": the detailed collector status.
bool parseDetail(const std::string& arg, Answers& a) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t comma; (comma = arg.find(',', start)) != std::string::npos; start = comma + 1) {
        parts.push_back(arg.substr(start, comma - start));
    }
    parts.push_back(arg.substr(start));
    if (parts.size() != 6 || !parseSigned(parts[0], a.detailCode) ||
        !parseYesNo(parts[3], a.detailFlag)) {
        return false;
    }
    a.detailState = parts[1];
    a.detailName = parts[2];
    a.detailSource = parts[4];
    a.detailNote = parts[5];
    return true;
}

bool parseNumber(const char* text, uint32_t& value) {
    if (text[0] < '0' || text[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long n = strtoull(text, &end, 0);
    if (errno != 0 || *end != '\0' || n > UINT32_MAX) {
        return false;
    }
    value = static_cast<uint32_t>(n);
    return true;
}

enum LongOnly {
    kSocket = 256,
    kReadyFile,
    kLog,
    kExitOnStop,
    kLinger,
    kHandshake,
    kAuth,
    kAuthAnswer,
    kProofDir,
    kProofSize,
    kProofFile1,
    kProofFile2,
    kFault,
    kFaultFrame,
    kFaultConn,
    kPiece,
    kPieceDelay,
    kReplyFields,
    kOnline,
    kCollectorStatus,
    kCollectorDetail,
    kDbSize,
    kDespoolRate,
    kReloadResult,
    kHelp,
};

const option kLongOptions[] = {
    {"socket", required_argument, nullptr, kSocket},
    {"ready-file", required_argument, nullptr, kReadyFile},
    {"log", required_argument, nullptr, kLog},
    {"exit-on-stop", no_argument, nullptr, kExitOnStop},
    {"linger", required_argument, nullptr, kLinger},
    {"handshake", required_argument, nullptr, kHandshake},
    {"auth", no_argument, nullptr, kAuth},
    {"auth-answer", required_argument, nullptr, kAuthAnswer},
    {"proof-dir", required_argument, nullptr, kProofDir},
    {"proof-size", required_argument, nullptr, kProofSize},
    {"proof-file1", required_argument, nullptr, kProofFile1},
    {"proof-file2", required_argument, nullptr, kProofFile2},
    {"fault", required_argument, nullptr, kFault},
    {"fault-frame", required_argument, nullptr, kFaultFrame},
    {"fault-conn", required_argument, nullptr, kFaultConn},
    {"piece", required_argument, nullptr, kPiece},
    {"piece-delay", required_argument, nullptr, kPieceDelay},
    {"reply-fields", required_argument, nullptr, kReplyFields},
    {"online", required_argument, nullptr, kOnline},
    {"collector-status", required_argument, nullptr, kCollectorStatus},
    {"collector-detail", required_argument, nullptr, kCollectorDetail},
    {"db-size", required_argument, nullptr, kDbSize},
    {"despool-rate", required_argument, nullptr, kDespoolRate},
    {"reload-result", required_argument, nullptr, kReloadResult},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

// "ID=HEX": a request id and the raw reply fields that replace its usual ones.
bool parseReplyFields(const char* arg, Options& o) {
    const char* eq = strchr(arg, '=');
    uint32_t id = 0;
    if (eq == nullptr || !parseNumber(std::string(arg, eq).c_str(), id)) {
        return false;
    }
    std::vector<uint8_t> bytes;
    for (const char* p = eq + 1; *p != '\0'; p += 2) {
        const char pair[3] = {p[0], p[1], '\0'};
        if (!isxdigit(static_cast<unsigned char>(p[0])) ||
            !isxdigit(static_cast<unsigned char>(p[1]))) {
            return false;
        }
        bytes.push_back(static_cast<uint8_t>(strtoul(pair, nullptr, 16)));
    }
    o.replyFields[id] = bytes;
    return true;
}

// Applies one option; false when its argument is unusable.
bool apply(int opt, const char* arg, Options& o) {
    int named = 0;
    switch (opt) {
        case kSocket:
            o.socket = arg;
            return arg[0] == '/';
        case kReadyFile:
            o.readyFile = arg;
            return true;
        case kLog:
            o.logFile = arg;
            return true;
        case kExitOnStop:
            o.exitOnStop = true;
            return true;
        case kLinger:
            o.exitOnStop = true;
            return parseNumber(arg, o.lingerMs) && o.lingerMs <= 86400000;
        case kHandshake:
            return parseNumber(arg, o.handshake);
        case kAuth:
            o.auth = true;
            return true;
        case kAuthAnswer:
            if (!lookup(kAuthAnswers, arg, named)) {
                return false;
            }
            o.authAnswer = static_cast<AuthAnswer>(named);
            return true;
        case kProofDir:
            o.proofDir = arg;
            return true;
        case kProofSize:
            return parseNumber(arg, o.proofSize) && o.proofSize > 0 && o.proofSize <= (1u << 20);
        case kProofFile1:
            o.proofPath1 = arg;
            return true;
        case kProofFile2:
            o.proofPath2 = arg;
            return true;
        case kFault:
            if (!lookup(kFaults, arg, named)) {
                return false;
            }
            o.fault = static_cast<Fault>(named);
            return true;
        case kFaultFrame:
            return parseNumber(arg, o.faultFrame) && o.faultFrame > 0;
        case kFaultConn:
            return parseNumber(arg, o.faultConn);
        case kPiece:
            return parseNumber(arg, o.piece);
        case kPieceDelay:
            return parseNumber(arg, o.pieceDelayMs);
        case kReplyFields:
            return parseReplyFields(arg, o);
        case kOnline:
            return parseYesNo(arg, o.answers.online);
        case kCollectorStatus:
            o.answers.collectorStatus = arg;
            return true;
        case kCollectorDetail:
            return parseDetail(arg, o.answers);
        case kDbSize:
            o.answers.dbSize = arg;
            return true;
        case kDespoolRate:
            o.answers.despoolRate = arg;
            return true;
        case kReloadResult:
            return parseSigned(arg, o.answers.reloadResult);
        default:
            return false;
    }
}

}  // namespace

const char* usage() {
    return kUsage;
}

int parseOptions(int argc, char** argv, Options& options) {
    opterr = 0;
    int opt = 0;
    while ((opt = getopt_long(argc, argv, "", kLongOptions, nullptr)) != -1) {
        if (opt == kHelp) {
            fputs(kUsage, stdout);
            return 1;
        }
        if (opt == '?' || opt == ':') {
            fprintf(stderr, "kvdsim: unknown option or missing argument: %s\n", argv[optind - 1]);
            fputs("Try 'kvdsim --help'.\n", stderr);
            return 2;
        }
        if (!apply(opt, optarg, options)) {
            fprintf(stderr, "kvdsim: bad value for --%s: '%s'\n", kLongOptions[opt - kSocket].name,
                    optarg != nullptr ? optarg : "");
            return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "kvdsim: unexpected argument '%s'\n", argv[optind]);
        return 2;
    }
    if (options.proofPath1.empty() != options.proofPath2.empty()) {
        fputs("kvdsim: --proof-file1 and --proof-file2 go together\n", stderr);
        return 2;
    }
    if (options.proofDir.empty()) {
        options.proofDir = options.socket.substr(0, options.socket.rfind('/'));
        if (options.proofDir.empty()) {
            options.proofDir = "/";
        }
    }
    return 0;
}

}  // namespace kvdsim
