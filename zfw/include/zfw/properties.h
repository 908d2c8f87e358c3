// The framework's configuration store.
//
// One process-wide instance, reached with Properties::getProperties(), is loaded from
// "/etc/zantorkv/zantorkv.conf" on first use. The file holds "key=value" lines (also
// "key: value" and "key value") with '#'/'!' comments, backslash continuation lines,
// backslash escapes, single and double quotes, and $NAME variables filled from the host's
// join parameters (JOINNAME, SITE, DOMAIN, ZONE), the environment and earlier keys.
//
// Locking: gPropMtx guards the instance pointer; the instance's own recursive mutex guards
// its tables. The parse holds the instance mutex while it reads host settings, so the
// order is always properties before host settings.
#ifndef ZFW_PROPERTIES_H
#define ZFW_PROPERTIES_H

#include <boost/shared_ptr.hpp>
#include <iosfwd>
#include <map>
#include <set>
#include <string>

#include "zfw/mutex.h"
#include "zfw/strutil.h"

namespace zfw {

class Logger;

class Properties {
  public:
    typedef std::map<std::string, std::string> Map;
    typedef Map::const_iterator const_iterator;

    // The configuration file of the process-wide instance.
    static const char* const gConfigPath;

    // The process-wide instance (null until the first getProperties) and the lock that
    // guards the pointer (created on first use).
    static Properties* gZhubProperties;
    static Mutex* gPropMtx;

    // The process-wide instance; the first call creates it (expansion on, dumpAtDebug as
    // given), publishes it and only then loads gConfigPath. An unreadable file leaves it
    // empty. Later calls ignore the argument.
    static Properties* getProperties(bool dumpAtDebug = false);
    static void destroyProperties();
    // Writes the process-wide instance to "/dev/tty" with the comment "Properties dump".
    static void dumpToTty();

    Properties(bool expand, bool dumpAtDebug);
    ~Properties();
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    // Parses the file if it opens; logs "Unable to open config file: <path>" at ERROR
    // when the load did not complete. An unopenable file leaves the tables as they were.
    void load(const std::string& path, bool expand);
    // Forgets everything and loads gConfigPath again with expansion on; returns loaded().
    bool reload();
    // Reads entries from the stream into the tables (keys already present are replaced,
    // others kept), then configures the loggers from the store.
    void parse(std::istream& in, bool expand);

    // Processed value of the key, or the empty string.
    std::string get(const std::string& key) const;
    // Leading decimal digits of the value (strtol); def when the value is empty.
    int getInt(const std::string& key, int def) const;
    // "true"/"yes"/"1" and "false"/"no"/"0", any case; anything else gives def.
    bool getBool(const std::string& key, bool def) const;
    // The value split into items (or the lines of the file a "file:" value names); def,
    // when not null, is used the same way if the key gives nothing. Lists from the stored
    // value are cached until the next parse.
    boost::shared_ptr<StringList> getList(const std::string& key, const std::string* def = nullptr);

    // [first, last) is the range of keys that begin with the non-empty prefix.
    bool findPrefix(const std::string& prefix, const_iterator& first, const_iterator& last) const;
    // First key that begins with the prefix, or end().
    const_iterator findFirstStartingWith(const std::string& prefix) const;
    const_iterator begin() const;
    const_iterator end() const;

    // "#<comment>" (when not empty), then "key=value" per entry in key order, unescaped.
    void write(std::ostream& out, const std::string& comment) const;

    bool loaded() const;
    bool expanding() const;

    // Text routines of the reader; each works on the string in place.
    static bool endsWithEscape(const std::string& s);
    static bool isInsideQuotes(const std::string& s);
    static void removeEscapes(std::string& s);
    static void normaliseWhitespace(std::string& s);
    static void unescapeControlChars(std::string& s);
    static void stripQuotes(std::string& s);

    // One logical line: physical lines joined while a line ends with an escaping
    // backslash. False at end of stream (nothing read). With skipComments a line starting
    // with '#' or '!' is returned without looking for a continuation.
    static bool readLogicalLine(std::istream& in, std::string& line, std::string& scratch,
                                bool skipComments);
    // Splits a logical line into key and value; false when it holds no entry.
    static bool parseLine(const std::string& line, std::string& key, std::string& value);

    // Replaces (or, without expansion, encodes as $NAME$ and $$) the variables of a value.
    void substituteVariables(std::string& value);

    // List editing in memory; save() writes the change to a file. The stored text of an
    // edited list is in file syntax (formatList), in both the processed and raw tables.
    void setList(const std::string& key, const StringList& items, bool escapeDollars);
    // Stores the sorted union of the current list and items; true when the value changed.
    bool addToList(const std::string& key, const StringList& items, bool escapeDollars);
    // Deletes the first occurrence of each item; true when anything was deleted.
    bool removeFromList(const std::string& key, const StringList& items, bool escapeDollars);

    // Values back into file syntax. With escapeDollars every '$' is escaped; without, the
    // text is taken to be in the unexpanded form ("$$" a dollar, "$NAME$" a reference).
    static std::string escapeValue(const std::string& value, bool escapeDollars);
    static std::string formatList(const StringList& items, bool escapeDollars);
    static std::string formatEntry(const std::string& key, const std::string& value,
                                   bool escapeDollars);
    static std::string formatListEntry(const std::string& key, const StringList& items,
                                       bool escapeDollars);

    // Rewrites the file at path to hold the store, keeping comments, layout and unchanged
    // lines. The new content goes to path + ".new", is flushed and renamed over the file,
    // all under the exclusive lock file path + ".lock". 0 on success, -1 on failure (the
    // file is then untouched).
    int save(const std::string& path);
    // Creates the lock file exclusively, waiting for another holder in 10 ms steps (100
    // attempts) and deleting a lock abandoned for more than 60 s; the descriptor or -1.
    static int createLockFile(const std::string& lockPath);
    // Closes the lock's descriptor and, only if that succeeded, deletes the lock file; 0, or
    // -1 when either fails.
    static int removeLockFile(const std::string& lockPath, int fd);

  private:
    // The store's own logger, "util.properties".
    static boost::shared_ptr<Logger> storeLogger();
    // A letter, a digit or '_': what a variable's name is made of.
    static bool isWordChar(char c);
    // The file content read from in, rewritten to hold the store (see save).
    std::string rewrittenContent(std::istream& in);
    void resolveJoinParams();
    // Hands the openlog choice to log delivery when this is the process-wide store.
    void noteOpenlogChoiceIfProcessWide() const;
    void logEntries() const;
    boost::shared_ptr<StringList> splitList(const std::string& text) const;
    bool readListFile(const std::string& fileName, StringList& out) const;

    // The text of `key` before escapes and quotes were processed, or null when the latest
    // parse did not give the key. The caller holds m_mutex.
    const std::string* rawOf(const std::string& key) const;
    // Stores the file-syntax text of an edited list as both texts of `key`. The caller holds
    // m_mutex.
    void storeList(const std::string& key, const std::string& text);

    // Memory: the processed values hold one map node (about 100 bytes) per key besides
    // the key's and value's own bytes; only keys whose text before processing differs (it
    // holds escapes or quotes) have a second one in m_raw. So a loaded file takes its own
    // size plus about 100 bytes per distinct key (for "key.00000000=value000000" lines,
    // 5.5 times the file), and loading holds the file's bytes once more.
    Map m_values;
    mutable Mutex m_mutex;
    Map m_raw;                      // the texts before processing, where they differ
    std::set<std::string> m_stale;  // keys in m_values from an earlier parse only
    std::map<std::string, boost::shared_ptr<StringList>> m_listCache;
    Map m_params;
    bool m_loaded;
    bool m_expand;
    bool m_dumpAtDebug;
    const std::string m_empty;
};

}  // namespace zfw

#endif
