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

const char kAbout[] =
    "Usage: kvdsim [OPTIONS]\n"
    "A simulated Kavelo audit daemon: listens on a Unix stream socket and speaks the\n"
    "daemon's side of the lrpc2 protocol (handshake, framed requests and replies, process\n"
    "authentication), misbehaving on request so that clients can be tested.\n"
    "Every request is answered with a reply of the same id; the queries get plausible\n"
    "fields, which the options below can set (80: bool; 90, 100, 110: a string; 91: int32,\n"
    "string, string, bool, string, string; 120: int32). It serves any number of\n"
    "connections, one after another or at once, until SIGTERM or SIGINT, and then removes\n"
    "its socket and exits with 0.\n"
    "\n";

// A word of the command line, the value it stands for and its help in the usage text.
template <typename T>
struct Named {
    const char* name;
    T value;
    const char* help;
};

const Named<Fault> kFaults[] = {
    {"close-hello", Fault::CloseHello, "read the hello, close without answering"},
    {"silent-hello", Fault::SilentHello, "read the hello, never answer"},
    {"close-request", Fault::CloseRequest, "read the frame, close without a reply"},
    {"silent-request", Fault::SilentRequest, "read the frame, never reply"},
    {"close-header", Fault::CloseHeader, "send the reply's 8 header bytes, close"},
    {"close-body", Fault::CloseBody, "send the reply but its last byte, close"},
    {"silent-body", Fault::SilentBody, "send the reply but its last byte, then\nstay silent"},
    {"bad-magic", Fault::BadMagic, "reply with the magic 0xDEADBEEF"},
    {"swapped-magic", Fault::SwappedMagic, "reply with the magic bytes AB CD 80 12"},
    {"bad-tag", Fault::BadTag, "reply holding a field tag 9"},
    {"trailing-byte", Fault::TrailingByte, "reply with a byte after its end tag"},
    {"short-length", Fault::ShortLength, "reply header with the length 7, no more"},
    {"huge-length", Fault::HugeLength, "reply header with a length of 16 MiB + 1,\nno more"},
};

const Named<AuthAnswer> kAuthAnswers[] = {
    {"two-paths", AuthAnswer::TwoPaths, nullptr},
    {"one-path", AuthAnswer::OnePath, nullptr},
    {"nested", AuthAnswer::Nested, nullptr},
};

const Named<Shape> kShapes[] = {
    {"single", Shape::Single, nullptr},
    {"fork", Shape::Fork, nullptr},
    {"activation", Shape::Activation, nullptr},
    {"detach", Shape::Detach, nullptr},
};

template <typename T, size_t N>
bool lookup(const Named<T> (&names)[N], const char* text, T& value) {
    for (const Named<T>& n : names) {
        if (strcmp(n.name, text) == 0) {
            value = n.value;
            return true;
        }
    }
    return false;
}

// `text` with every line after the first indented by `indent` blanks.
std::string indented(const std::string& text, size_t indent) {
    std::string out;
    for (const char c : text) {
        out += c;
        if (c == '\n') {
            out.append(indent, ' ');
        }
    }
    return out;
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
bool parseDetail(const std::string& arg, CollectorDetail& d) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t comma; (comma = arg.find(',', start)) != std::string::npos; start = comma + 1) {
        parts.push_back(arg.substr(start, comma - start));
    }
    parts.push_back(arg.substr(start));
    if (parts.size() != 6 || !parseSigned(parts[0], d.code) || !parseYesNo(parts[3], d.flag)) {
        return false;
    }
    d.state = parts[1];
    d.name = parts[2];
    d.source = parts[4];
    d.note = parts[5];
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

// What the options that only store their argument, or only set a flag, do.
template <std::string Options::*Field>
bool setText(const char* arg, Options& o) {
    o.*Field = arg;
    return true;
}
template <std::string Answers::*Field>
bool setAnswer(const char* arg, Options& o) {
    o.answers.*Field = arg;
    return true;
}
template <uint32_t Options::*Field>
bool setNumber(const char* arg, Options& o) {
    return parseNumber(arg, o.*Field);
}
template <bool Options::*Field>
bool setFlag(const char* /*arg*/, Options& o) {
    o.*Field = true;
    return true;
}

// Where the help texts start in the usage.
const size_t kHelpColumn = 23;

// getopt's value for the option in row i of the table, above every character.
const int kFirstValue = 256;

// The help of --fault: its kinds from their table, each kind's help in a column of its own.
std::string faultHelp() {
    const size_t kindWidth = 18;
    std::string text = "misbehave at one frame (see --fault-frame, --fault-conn):\n";
    for (const Named<Fault>& f : kFaults) {
        std::string line = std::string("  ") + f.name;
        line.resize(kindWidth, ' ');
        text += line + indented(f.help, kindWidth) + "\n";
    }
    return text + "After a malformed reply the connection stays open.";
}

// One option: its name, the name of its argument in the usage text (null: none), its help
// (lines after the first are indented to the help column) and what it does to the options
// (false: its argument is unusable; null: print the usage).
struct Option {
    const char* name;
    const char* arg;
    std::string help;
    bool (*apply)(const char* arg, Options& o);
};

// The one list of options: the parser and the usage text are made from it.
const std::vector<Option>& optionTable() {
    static const std::vector<Option> kOptions = {
        {"socket", "PATH",
         "listen on PATH (default /var/zantorkv/audit); a stale socket\n"
         "there is replaced, any other file is an error",
         [](const char* a, Options& o) {
             o.socket = a;
             return a[0] == '/';
         }},
        {"ready-file", "PATH",
         "create PATH once listening; standard output also gets the\n"
         "line \"kvdsim: listening on SOCKET\" at that moment",
         setText<&Options::readyFile>},
        {"log", "PATH",
         "append one line per handshake and frame received, written\n"
         "before any answer: \"<conn> hello <hex>\" and\n"
         "\"<conn> frame <hex>\" (connections count from 1; the bytes in\n"
         "lower-case hex without separators)",
         setText<&Options::logFile>},
        {"exit-on-stop", nullptr,
         "answer KVStop (20), remove the socket and exit, so that later\n"
         "connects are refused; without it the daemon keeps running and\n"
         "answers every request (pings included)",
         setFlag<&Options::exitOnStop>},
        {"linger", "MS",
         "with KVStop answered, close the socket and every connection\n"
         "but exit only MS milliseconds later (at most 86400000);\n"
         "implies --exit-on-stop",
         [](const char* a, Options& o) {
             o.exitOnStop = true;
             return parseNumber(a, o.lingerMs) && o.lingerMs <= 86400000;
         }},
        {"handshake", "VALUE",
         "answer the client's hello with VALUE (default 1, which\n"
         "accepts); any other value refuses and closes",
         setNumber<&Options::handshake>},
        {"shape", "KIND",
         "single (default): one process listens and serves; fork: the\n"
         "listener forks a worker per connection, which serves it alone\n"
         "(a stop it answers ends the listener too); activation: the\n"
         "listener forks one child that serves and keeps the socket\n"
         "open itself, serving nothing, until SIGTERM or SIGINT;\n"
         "detach: the listener forks one child that serves and exits",
         [](const char* a, Options& o) { return lookup(kShapes, a, o.shape); }},
        {"serve-as", "UID",
         "once listening, the serving processes give up every other\n"
         "identity for user and group UID (e.g. 65534) before they\n"
         "accept; the listener of fork and activation keeps its own",
         [](const char* a, Options& o) {
             return parseNumber(a, o.serveAs) && o.serveAs != kKeepUser;
         }},
        {"auth", nullptr,
         "demand process authentication before the first request of\n"
         "each connection: challenge (id 1), check the client's uid and\n"
         "gid against its socket credentials, answer with the paths of\n"
         "two new proof files of random content, check the contents the\n"
         "client sends back (id 2), then reply to the first request.\n"
         "A wrong identity or wrong contents close the connection",
         setFlag<&Options::auth>},
        {"auth-answer", "KIND",
         "answer the client's identity with: two-paths (default),\n"
         "one-path (the first path only), nested (another challenge)",
         [](const char* a, Options& o) { return lookup(kAuthAnswers, a, o.authAnswer); }},
        {"proof-dir", "DIR",
         "create the proof files in DIR (default: the socket's\n"
         "directory); they are removed when the dialogue ends",
         setText<&Options::proofDir>},
        {"proof-size", "N", "bytes of random content per proof file (default 32)",
         [](const char* a, Options& o) {
             return parseNumber(a, o.proofSize) && o.proofSize > 0 && o.proofSize <= (1u << 20);
         }},
        {"proof-file1", "PATH", "name PATH as the first proof file instead of creating one",
         setText<&Options::proofPath1>},
        {"proof-file2", "PATH",
         "the same for the second (the contents expected are read\n"
         "from the file when the paths are sent)",
         setText<&Options::proofPath2>},
        {"fault", "KIND", faultHelp(),
         [](const char* a, Options& o) { return lookup(kFaults, a, o.fault); }},
        {"fault-frame", "N",
         "the frame (counting from 1 on each connection, the frames of\n"
         "the authentication dialogue included) that the fault hits\n"
         "(default 1); hello faults hit the hello",
         [](const char* a, Options& o) {
             return parseNumber(a, o.faultFrame) && o.faultFrame > 0;
         }},
        {"fault-conn", "N",
         "only the Nth connection accepted suffers the fault (default\n"
         "0: every connection)",
         setNumber<&Options::faultConn>},
        {"piece", "N", "send every answer in pieces of N bytes (default: whole)",
         setNumber<&Options::piece>},
        {"piece-delay", "MS", "pause between pieces (default 5)",
         setNumber<&Options::pieceDelayMs>},
        {"reply-fields", "ID=HEX",
         "answer request ID with exactly these fields instead of its\n"
         "usual ones: the tagged field bytes in hex, without the end\n"
         "tag (empty: no fields); repeatable, one per id",
         parseReplyFields},
        {"online", "yes|no", "answer to is-daemon-online (80; default yes)",
         [](const char* a, Options& o) { return parseYesNo(a, o.answers.online); }},
        {"collector-status", "TEXT", "answer to the collector status (90; default running)",
         setAnswer<&Answers::collectorStatus>},
        {"collector-detail", "N,TEXT,TEXT,yes|no,TEXT,TEXT",
         "the six values of the detailed collector status (91; default\n"
         "1,running,kvdsim,yes,local,); the texts hold no commas",
         [](const char* a, Options& o) { return parseDetail(a, o.answers.detail); }},
        {"db-size", "TEXT", "answer to the database size (100; default 1048576)",
         setAnswer<&Answers::dbSize>},
        {"despool-rate", "TEXT", "answer to the despool rate (110; default 0)",
         setAnswer<&Answers::despoolRate>},
        {"reload-result", "N", "answer to reload-properties (120; default 0)",
         [](const char* a, Options& o) { return parseSigned(a, o.answers.reloadResult); }},
        {"long-texts", "N",
         "answer the collector status, the detail's note, the database\n"
         "size and the despool rate with N bytes of 'x' each (at most\n"
         "16 MiB - 64: a reply at the frame limit)",
         [](const char* a, Options& o) {
             uint32_t n = 0;
             if (!parseNumber(a, n) || n > (16u << 20) - 64) {
                 return false;
             }
             Answers& t = o.answers;
             t.collectorStatus = t.detail.note = t.dbSize = t.despoolRate = std::string(n, 'x');
             return true;
         }},
        {"help", nullptr, "print this text and exit", nullptr},
    };
    return kOptions;
}

const std::string& usage() {
    static const std::string kUsage = [] {
        std::string text = kAbout;
        for (const Option& o : optionTable()) {
            std::string form = std::string("  --") + o.name;
            if (o.arg != nullptr) {
                form += std::string(" ") + o.arg;
            }
            form += form.size() + 2 <= kHelpColumn ? std::string(kHelpColumn - form.size(), ' ')
                                                   : "\n" + std::string(kHelpColumn, ' ');
            text += form + indented(o.help, kHelpColumn) + "\n";
        }
        return text;
    }();
    return kUsage;
}

}  // namespace

int parseOptions(int argc, char** argv, Options& options) {
    const std::vector<Option>& table = optionTable();
    std::vector<option> longOptions;
    for (size_t i = 0; i < table.size(); ++i) {
        longOptions.push_back({table[i].name,
                               table[i].arg != nullptr ? required_argument : no_argument, nullptr,
                               kFirstValue + static_cast<int>(i)});
    }
    longOptions.push_back({nullptr, 0, nullptr, 0});
    opterr = 0;
    int opt = 0;
    while ((opt = getopt_long(argc, argv, "", longOptions.data(), nullptr)) != -1) {
        if (opt < kFirstValue) {
            fprintf(stderr, "kvdsim: unknown option or missing argument: %s\n", argv[optind - 1]);
            fputs("Try 'kvdsim --help'.\n", stderr);
            return 2;
        }
        const Option& o = table[static_cast<size_t>(opt - kFirstValue)];
        if (o.apply == nullptr) {
            fputs(usage().c_str(), stdout);
            return 1;
        }
        if (!o.apply(optarg, options)) {
            fprintf(stderr, "kvdsim: bad value for --%s: '%s'\n", o.name,
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
