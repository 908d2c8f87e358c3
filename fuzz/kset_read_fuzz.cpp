// Reads arbitrary bytes as a kset file in a private directory: either a value comes back
// (at most 1024 bytes, trimmed, without control characters) or one of the documented
// exceptions is thrown.
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>

#include "zfw/exception.h"
#include "zfw/setting.h"
#include "zfw/strutil.h"

namespace {

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

std::string gDir;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/kvfuzzksetXXXXXX";
    check(mkdtemp(dir) != nullptr);
    gDir = std::string(dir) + "/";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string name = gDir + "kset.fuzz";
    FILE* f = fopen(name.c_str(), "wb");
    check(f != nullptr);
    check(fwrite(data, 1, size, f) == size);
    fclose(f);
    try {
        const std::string value = zfw::readKsetFile("fuzz", gDir);
        check(size <= 1024);
        check(value.size() <= size);
        check(value == zfw::trim(value));
        for (char c : value) {
            check(!iscntrl(static_cast<unsigned char>(c)));
        }
    } catch (const zfw::BadDataException&) {
        check(size > 0);
    } catch (const zfw::IOException&) {
        check(size > 1024);
    }
    unlink(name.c_str());
    return 0;
}
