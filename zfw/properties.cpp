// The properties store: the reader of the configuration file and the getters.
#include "zfw/properties.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <boost/make_shared.hpp>

#include "zfw/exception.h"
#include "zfw/file_util.h"
#include "zfw/logdelivery.h"
#include "zfw/logger.h"
#include "zfw/setting.h"
#include "zfw/strutil.h"
#include "kvsyntax/escape.h"

namespace zfw {

const char* const Properties::gConfigPath = "/etc/zantorkv/zantorkv.conf";
Properties* Properties::gZhubProperties = nullptr;
Mutex* Properties::gPropMtx = nullptr;

namespace {

const char* const kWhitespace = " \t\n\r\v\f";
const char* const kKeySeparators = " \t\n\r\v\f:=";
const char* const kListSeparators = " \t\n\r\v\f,";

struct JoinParam {
    const char* variable;
    const char* const* settingKey;
};
const JoinParam kJoinParams[] = {
    {"JOINNAME", &SETTING_HOST_NAME},
    {"SITE", &SETTING_MACHINE_SITE},
    {"DOMAIN", &SETTING_DOMAIN_NAME},
    {"ZONE", &SETTING_ZONE_REALNAME},
};

// Membership in a separator set; the NUL byte belongs to none.
bool isOneOfChars(const char* set, char c) {
    return c != '\0' && std::strchr(set, c) != nullptr;
}

bool isWhitespace(char c) {
    return isOneOfChars(kWhitespace, c);
}


// Quote and escape state of a text walked from its start, one character at a time: the one
// scanner of the reader's quotes and escapes.
class QuoteState {
  public:
    // The next character is escaped: the text so far ends with an odd run of backslashes.
    bool escaped() const { return m_backslashes % 2 == 1; }
    // The next character is quoted.
    bool inside() const { return m_double || m_single; }
    bool inSingle() const { return m_single; }
    bool inDouble() const { return m_double; }

    // The next character, `c`, would open or close a quoted stretch.
    bool toggles(char c) const {
        return !escaped() && ((c == '"' && !m_single) || (c == '\'' && !m_double));
    }

    void feed(char c) {
        if (toggles(c)) {
            bool& quoted = c == '"' ? m_double : m_single;
            quoted = !quoted;
        }
        m_backslashes = c == '\\' ? m_backslashes + 1 : 0;
    }

  private:
    size_t m_backslashes = 0;
    bool m_double = false;
    bool m_single = false;
};

// A text read in place as a stream: the file is parsed without a second copy of it.
class TextStream : public std::streambuf {
  public:
    explicit TextStream(std::string& text) { setg(&text[0], &text[0], &text[0] + text.size()); }
};

// The state at the end of `s`.
QuoteState scanned(const std::string& s) {
    QuoteState state;
    for (const char c : s) {
        state.feed(c);
    }
    return state;
}

}  // namespace

boost::shared_ptr<Logger> Properties::storeLogger() {
    return Logger::get("util.properties");
}

Properties::Properties(bool expand, bool dumpAtDebug)
    : m_loaded(false), m_expand(expand), m_dumpAtDebug(dumpAtDebug) {}

Properties::~Properties() = default;

Properties* Properties::getProperties(bool dumpAtDebug) {
    // Once published the instance is handed out without the creation lock: the parse,
    // which holds the instance lock, comes back here through the host settings overrides,
    // and must not take the creation lock after the instance lock.
    Properties* props = __atomic_load_n(&gZhubProperties, __ATOMIC_ACQUIRE);
    if (props != nullptr) {
        return props;
    }
    MutexLock lock(lazyMutex(gPropMtx));
    if (gZhubProperties == nullptr) {
        props = new Properties(true, dumpAtDebug);
        // Published before the load, which it holds the instance lock for: lookups from
        // inside the load find this instance, other threads wait until it is loaded.
        MutexLock loading(props->m_mutex);
        __atomic_store_n(&gZhubProperties, props, __ATOMIC_RELEASE);
        props->load(gConfigPath, true);
    }
    return gZhubProperties;
}

void Properties::destroyProperties() {
    MutexLock lock(lazyMutex(gPropMtx));
    Properties* props = gZhubProperties;
    __atomic_store_n(&gZhubProperties, nullptr, __ATOMIC_RELEASE);
    delete props;
}

void Properties::dumpToTty() {
    std::ofstream tty("/dev/tty");
    getProperties(false)->write(tty, "Properties dump");
}

void Properties::load(const std::string& path, bool expand) {
    std::string content;
    if (readRegularFile(path, content)) {
        TextStream text(content);
        std::istream in(&text);
        parse(in, expand);
    }
    if (!loaded()) {
        noteOpenlogChoiceIfProcessWide();
        boost::shared_ptr<Logger> logger = storeLogger();
        logger->log(Logger::ERROR, "Unable to open config file: %s", path.c_str());
    }
}

bool Properties::reload() {
    MutexLock lock(m_mutex);
    m_raw.clear();
    m_stale.clear();
    m_listCache.clear();
    m_params.clear();
    m_values.clear();
    m_loaded = false;
    // The fixed path, whatever file this store was loaded from: the store's contract requires it.
    load(gConfigPath, true);
    return m_loaded;
}

void Properties::parse(std::istream& in, bool expand) {
    MutexLock lock(m_mutex);
    m_loaded = false;
    m_expand = expand;
    // m_values and m_params stay, as the store's contract requires: a key missing from this
    // input keeps its old value until reload.
    m_raw.clear();
    m_listCache.clear();
    if (in.fail()) {
        boost::shared_ptr<Logger> logger = storeLogger();
        logger->log(Logger::ERROR, "Unable to open config file");
        return;
    }
    resolveJoinParams();
    // The input's keys are collected apart, so that a key read earlier counts as given
    // only when this input gives it too.
    Map earlier;
    earlier.swap(m_values);
    m_stale.clear();
    std::string line;
    std::string scratch;
    std::string key;
    std::string raw;
    std::string value;
    while (readLogicalLine(in, line, scratch, true)) {
        if (!parseLine(line, key, raw)) {
            continue;
        }
        substituteVariables(raw);
        value = raw;
        removeEscapes(value);
        stripQuotes(value);
        if (value != raw) {
            m_raw[key] = raw;
        } else {
            m_raw.erase(key);
        }
        m_values[key] = value;
    }
    for (auto& entry : earlier) {
        if (m_values.emplace(entry.first, std::move(entry.second)).second) {
            m_stale.insert(entry.first);
        }
    }
    m_loaded = true;
    noteOpenlogChoiceIfProcessWide();
    Logger::configure(*this);
    logEntries();
}

void Properties::noteOpenlogChoiceIfProcessWide() const {
    // Configuring the loggers and reporting a missing file log while this store is locked.
    if (this == __atomic_load_n(&gZhubProperties, __ATOMIC_ACQUIRE)) {
        noteOpenlogChoice(*this);
    }
}

void Properties::resolveJoinParams() {
    for (const JoinParam& param : kJoinParams) {
        std::string value = "<unknown>";
        try {
            // The override comes from this store, which the parse has locked: getSetting
            // would take the creation lock, the reverse of getProperties' own order.
            std::string setting = get(std::string("kset.") + *param.settingKey);
            if (setting.empty()) {
                setting = getSetting(*param.settingKey, true);
            }
            if (std::strcmp(*param.settingKey, SETTING_ZONE_REALNAME) == 0) {
                // A distinguished name stands for the zone named by its first "CN=".
                const size_t cn = setting.find("CN=");
                if (cn != std::string::npos) {
                    const size_t start = cn + 3;
                    const size_t comma = setting.find(',', start);
                    setting = setting.substr(
                        start, comma == std::string::npos ? std::string::npos : comma - start);
                }
            }
            value = setting;
        } catch (const ZFWException&) {
            // Unreadable setting: the variable stays "<unknown>".
        }
        m_params[param.variable] = value;
    }
}

void Properties::logEntries() const {
    boost::shared_ptr<Logger> logger = storeLogger();
    if (!logger->isEnabled(Logger::DEBUG)) {
        return;
    }
    const int32_t level = m_dumpAtDebug ? Logger::DEBUG : Logger::TRACE;
    if (!logger->isEnabled(level)) {
        return;
    }
    for (const auto& entry : m_values) {
        logger->log(level, "property: %s=%s", entry.first.c_str(), entry.second.c_str());
    }
}

std::string Properties::get(const std::string& key) const {
    MutexLock lock(m_mutex);
    const auto found = m_values.find(key);
    return found == m_values.end() ? m_empty : found->second;
}

int Properties::getInt(const std::string& key, int def) const {
    const std::string value = get(key);
    if (value.empty()) {
        return def;
    }
    // Unchecked, as the file format requires: the leading digits count, and text without any
    // gives 0.
    return static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
}

bool Properties::getBool(const std::string& key, bool def) const {
    const std::string value = toLower(get(key));
    if (value == "true" || value == "yes" || value == "1") {
        return true;
    }
    if (value == "false" || value == "no" || value == "0") {
        return false;
    }
    return def;
}

boost::shared_ptr<StringList> Properties::getList(const std::string& key, const std::string* def) {
    std::string stored;
    {
        MutexLock lock(m_mutex);
        const auto cached = m_listCache.find(key);
        if (cached != m_listCache.end()) {
            return cached->second;
        }
        const std::string* raw = rawOf(key);
        if (raw != nullptr) {
            stored = *raw;
        }
    }
    const std::string* candidates[] = {&stored, def};
    boost::shared_ptr<StringList> list;
    bool fromStored = false;
    bool anyCandidate = false;
    for (const std::string* candidate : candidates) {
        if (candidate == nullptr || candidate->empty()) {
            continue;
        }
        anyCandidate = true;
        std::string text = *candidate;
        removeEscapes(text);
        if (text.size() > 4 && text.compare(0, 5, "file:") == 0) {
            list = boost::make_shared<StringList>();
            if (!readListFile(text.substr(5), *list)) {
                list.reset();
                continue;
            }
        } else {
            list = splitList(*candidate);
        }
        fromStored = candidate == &stored;
        break;
    }
    if (!list) {
        list = boost::make_shared<StringList>();
        fromStored = !anyCandidate;
    }
    boost::shared_ptr<Logger> logger = storeLogger();
    // Tested at TRACE and written at DEBUG, as the store's log requires: the list shows only
    // when the store's logger is at its most verbose, and then as a DEBUG record.
    if (logger->isEnabled(Logger::TRACE)) {
        std::string text = key + ": ";
        for (const std::string& item : *list) {
            text += "(" + item + "), ";
        }
        logger->log(Logger::DEBUG, "Property list %s", text.c_str());
    }
    if (fromStored) {
        MutexLock lock(m_mutex);
        m_listCache[key] = list;
    }
    return list;
}

bool Properties::readListFile(const std::string& fileName, StringList& out) const {
    std::string content;
    if (!readRegularFile(fileName, content)) {
        boost::shared_ptr<Logger> logger = storeLogger();
        logger->log(Logger::ERROR, "Unable to open config file: %s", fileName.c_str());
        return false;
    }
    std::istringstream in(content);
    std::string line;
    while (std::getline(in, line)) {
        std::string item = trim(line);
        if (item.empty() || item[0] == '#' || item[0] == '!') {
            continue;
        }
        stripQuotes(item);
        out.push_back(item);
    }
    return true;
}

boost::shared_ptr<StringList> Properties::splitList(const std::string& text) const {
    boost::shared_ptr<StringList> list = boost::make_shared<StringList>();
    size_t i = 0;
    const size_t n = text.size();
    for (;;) {
        i = text.find_first_not_of(kListSeparators, i);
        if (i == std::string::npos) {
            break;
        }
        // The token runs to the first separator that is neither escaped nor quoted.
        const size_t start = i;
        QuoteState state;
        while (i < n) {
            const char c = text[i];
            if (isOneOfChars(kListSeparators, c) && !state.escaped() && !state.inside()) {
                break;
            }
            state.feed(c);
            ++i;
        }
        std::string token = text.substr(start, i - start);
        removeEscapes(token);
        stripQuotes(token);
        list->push_back(token);
    }
    return list;
}

bool Properties::findPrefix(const std::string& prefix, const_iterator& first,
                            const_iterator& last) const {
    MutexLock lock(m_mutex);
    first = m_values.lower_bound(prefix);
    // The smallest text above every key with the prefix: the prefix with its last byte
    // increased (trailing 0xff bytes carry over); none when the prefix is all 0xff.
    std::string next = prefix;
    while (!next.empty() && static_cast<unsigned char>(next.back()) == 0xff) {
        next.pop_back();
    }
    if (next.empty()) {
        last = m_values.end();
    } else {
        next.back() = static_cast<char>(static_cast<unsigned char>(next.back()) + 1);
        last = m_values.lower_bound(next);
    }
    if (first == last) {
        first = last = m_values.end();
        return false;
    }
    return true;
}

Properties::const_iterator Properties::findFirstStartingWith(const std::string& prefix) const {
    MutexLock lock(m_mutex);
    for (auto it = m_values.begin(); it != m_values.end(); ++it) {
        if (it->first.compare(0, prefix.size(), prefix) == 0) {
            return it;
        }
    }
    return m_values.end();
}

Properties::const_iterator Properties::begin() const {
    MutexLock lock(m_mutex);
    return m_values.begin();
}

Properties::const_iterator Properties::end() const {
    MutexLock lock(m_mutex);
    return m_values.end();
}

void Properties::write(std::ostream& out, const std::string& comment) const {
    MutexLock lock(m_mutex);
    if (!comment.empty()) {
        out << "#" << comment << "\n";
    }
    for (const auto& entry : m_values) {
        out << entry.first << "=" << entry.second << "\n";
    }
}

const std::string* Properties::rawOf(const std::string& key) const {
    const auto raw = m_raw.find(key);
    if (raw != m_raw.end()) {
        return &raw->second;
    }
    const auto value = m_stale.count(key) == 0 ? m_values.find(key) : m_values.end();
    return value != m_values.end() ? &value->second : nullptr;
}

bool Properties::loaded() const {
    MutexLock lock(m_mutex);
    return m_loaded;
}

bool Properties::expanding() const {
    MutexLock lock(m_mutex);
    return m_expand;
}

bool Properties::isWordChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool Properties::endsWithEscape(const std::string& s) {
    // Only the trailing run of backslashes decides, so joining continuation lines never
    // rescans the line joined so far.
    const size_t last = s.find_last_not_of('\\');
    const size_t run = last == std::string::npos ? s.size() : s.size() - 1 - last;
    return run % 2 == 1;
}

bool Properties::isInsideQuotes(const std::string& s) {
    return scanned(s).inside();
}

void Properties::removeEscapes(std::string& s) {
    // The file format requires quoting to be judged on the text already produced: a quote
    // whose escaping backslash was just deleted opens a quoted stretch: \"a\b gives "a\b.
    std::string out;
    out.reserve(s.size());
    QuoteState state;
    for (size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (c == '\\' && !state.inside()) {
            if (++i == s.size()) {
                break;
            }
            c = s[i];
        }
        out += c;
        state.feed(c);
    }
    s.swap(out);
}

void Properties::normaliseWhitespace(std::string& s) {
    std::string out;
    out.reserve(s.size());
    QuoteState state;
    size_t i = 0;
    while (i < s.size() && isWhitespace(s[i])) {
        ++i;
    }
    bool inRun = false;
    for (; i < s.size(); ++i) {
        const char c = s[i];
        if (isWhitespace(c) && !state.inside()) {
            if (!inRun) {
                out += ' ';
            }
            inRun = true;
        } else {
            out += c;
            inRun = false;
        }
        state.feed(c);
    }
    if (!out.empty() && out.back() == ' ' && !endsWithEscape(out.substr(0, out.size() - 1))) {
        out.pop_back();
    }
    s.swap(out);
}

void Properties::unescapeControlChars(std::string& s) {
    // Only escapes count, as the file format requires: quotes are not considered, so a quoted
    // "\t" becomes a tab here as well.
    std::string out;
    out.reserve(s.size());
    QuoteState state;
    for (const char c : s) {
        const char control = state.escaped() ? kvsyntax::controlFor(c) : '\0';
        if (control != '\0') {
            out.back() = control;  // the escaping backslash
        } else {
            out += c;
        }
        state.feed(c);
    }
    s.swap(out);
}

void Properties::stripQuotes(std::string& s) {
    if (s.size() < 2 || (s[0] != '"' && s[0] != '\'')) {
        return;
    }
    // The first unescaped repeat of the opening quote must be the last character.
    QuoteState state;
    state.feed(s[0]);
    size_t close = 1;
    while (close < s.size() && (s[close] != s[0] || state.escaped())) {
        state.feed(s[close++]);
    }
    if (close != s.size() - 1) {
        return;
    }
    std::string out;
    out.reserve(s.size());
    state = QuoteState();
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (c == '\\' && state.inDouble()) {
            // Inside double quotes the backslash goes and the next character is taken as
            // it is, a control letter becoming its character.
            state.feed(c);
            if (++i < s.size()) {
                const char control = kvsyntax::controlFor(s[i]);
                out += control != '\0' ? control : s[i];
                state.feed(s[i]);
            }
            continue;
        }
        if (!state.toggles(c)) {
            out += c;  // the quotes that open and close go
        }
        state.feed(c);
    }
    s.swap(out);
}

bool Properties::readLogicalLine(std::istream& in, std::string& line, std::string& scratch,
                                 bool skipComments) {
    if (!in.good()) {
        return false;
    }
    std::getline(in, line);
    if (line.empty()) {
        return true;
    }
    if (skipComments && (line[0] == '#' || line[0] == '!')) {
        return true;
    }
    while (endsWithEscape(line) && !in.eof() && !in.fail()) {
        std::getline(in, scratch);
        line.back() = ' ';
        line += scratch;
    }
    return true;
}

bool Properties::parseLine(const std::string& line, std::string& key, std::string& value) {
    key.clear();
    value.clear();
    if (line.empty() || line[0] == '#' || line[0] == '!') {
        return false;
    }
    const size_t start = line.find_first_not_of(kWhitespace);
    if (start == std::string::npos) {
        return false;
    }
    QuoteState state;  // only its escapes count: quotes do not hide a separator in a key
    state.feed(line[start]);
    size_t end = start + 1;
    while (end < line.size() && !(isOneOfChars(kKeySeparators, line[end]) && !state.escaped())) {
        state.feed(line[end++]);
    }
    key = line.substr(start, end - start);
    removeEscapes(key);
    stripQuotes(key);
    if (key.empty()) {
        return false;
    }
    if (end >= line.size()) {
        return true;
    }
    size_t valueStart = end + 1;
    if (line[end] != '=' && valueStart < line.size() && line[valueStart] == '=') {
        ++valueStart;
    }
    value = line.substr(valueStart);
    normaliseWhitespace(value);
    unescapeControlChars(value);
    return true;
}

void Properties::substituteVariables(std::string& value) {
    MutexLock lock(m_mutex);
    std::string out;
    out.reserve(value.size());
    QuoteState state;
    size_t i = 0;
    while (i < value.size()) {
        const char c = value[i];
        if (c != '$') {
            out += c;
            state.feed(c);
            ++i;
            continue;
        }
        if (state.inSingle() || state.escaped()) {
            // A literal dollar: kept (removeEscapes later drops an escaping backslash),
            // or encoded as "$$" (escaped: "\$\$", which removeEscapes turns into "$$").
            out += m_expand ? "$" : (state.inSingle() ? "$$" : "$\\$");
            state.feed(c);
            ++i;
            continue;
        }
        size_t nameEnd = i + 1;
        if (nameEnd < value.size() && value[nameEnd] >= '0' && value[nameEnd] <= '9') {
            ++nameEnd;
        } else {
            while (nameEnd < value.size() && isWordChar(value[nameEnd])) {
                ++nameEnd;
            }
        }
        const std::string name = value.substr(i + 1, nameEnd - i - 1);
        for (size_t k = i; k < nameEnd; ++k) {
            state.feed(value[k]);
        }
        i = nameEnd;
        if (!m_expand) {
            out += "$" + name + "$";
            continue;
        }
        std::string replacement;
        bool found = false;
        // Inserts an empty entry for a name that is no join parameter, as the file format
        // requires.
        const std::string& param = m_params[name];
        if (!param.empty()) {
            replacement = param;
            found = true;
        } else if (const char* env = getenv(name.c_str())) {
            replacement = env;
            found = true;
        } else {
            const std::string* raw = rawOf(name);
            if (raw != nullptr && !raw->empty()) {
                replacement = *raw;
                found = true;
            }
        }
        if (found) {
            stripQuotes(replacement);
            out += replacement;
        }
    }
    value.swap(out);
}

}  // namespace zfw
