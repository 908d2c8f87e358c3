// Fuzzes the configuration reader: the input is the file, read through a memory file, and
// every key candidate of every line is looked up as text and as integer. The first byte
// chooses whether a prefix list is used; the rest may stand for a larger file (repeat.h).
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "lrpc2/conf.h"
#include "repeat.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const int fd = memfd_create("conf_fuzz", MFD_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    const std::string file_text = repeatedInput(data + 1, size - 1, kMaxFileInput);
    const char* text = file_text.data();
    const size_t length = file_text.size();
    if (length != 0 && write(fd, text, length) != static_cast<ssize_t>(length)) {
        close(fd);
        return 0;
    }
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);

    static const char* const prefixes[] = {"lrpc2.", "kvd.", "k", "", nullptr};
    int32_t status = 0;
    conf_file* file = conf_open(path, (data[0] & 1) ? prefixes : nullptr, &status);
    close(fd);

    // Candidate keys: each line's text before its first separator, leading blanks skipped.
    std::vector<std::string> keys{"lrpc2.timeout", "kvd.socket", ""};
    std::string key;
    bool inKey = true;
    for (size_t i = 0; i <= length; ++i) {
        const char c = i < length ? static_cast<char>(text[i]) : '\n';
        if (c == '\n' || c == '\r' || c == '\f') {
            keys.push_back(key);
            key.clear();
            inKey = true;
        } else if (inKey && (c == ':' || c == '=' || c == ' ' || c == '\t')) {
            inKey = key.empty();
        } else if (inKey) {
            key += c;
        }
    }
    for (const std::string& k : keys) {
        conf_get_string(file, k.c_str(), nullptr, &status);
        conf_get_int(file, k.c_str(), 0, &status);
    }
    conf_free(file);
    return 0;
}
