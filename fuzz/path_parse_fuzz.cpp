// Parses arbitrary bytes as a path and checks the string forms and appending: the system
// form of a non-empty path parses back to the same form, and appending a relative path
// keeps both sides' components. No file-system call is made.
#include <stdlib.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "zfw/exception.h"
#include "zfw/path.h"

namespace {

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    // The first NUL splits the input into two paths.
    const size_t nul = text.find('\0');
    const std::string first = text.substr(0, nul);
    const std::string second = nul == std::string::npos ? std::string() : text.substr(nul + 1);
    const zfw::path a(first);
    const zfw::path b(second.c_str());
    for (const std::string& dir : a.dirs()) {
        check(!dir.empty() && dir.find_first_of("/\\") == std::string::npos);
    }
    if (a.empty()) {
        try {
            a.toString();
            check(false);
        } catch (const std::out_of_range&) {
        }
        return 0;
    }
    const std::string form = a.systemForm();
    check(form.find(' ') == std::string::npos);
    check(zfw::path(form).systemForm() == form);
    check(!(a < a));
    a.toString('\\', true);
    try {
        const zfw::path joined = a / b;
        check(!b.isAbsolute());
        check(joined.isAbsolute() == a.isAbsolute());
        check(joined.name() == b.name());
        check(joined.dirs().size() ==
              a.dirs().size() + (a.name().empty() ? 0 : 1) + b.dirs().size());
    } catch (const zfw::BadDataException&) {
        check(b.isAbsolute());
    }
    return 0;
}
