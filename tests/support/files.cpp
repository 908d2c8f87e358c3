#include "support/files.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace kvtest {

TempDir::TempDir() {
    char name[] = "/tmp/kvtest.XXXXXX";
    if (mkdtemp(name) != nullptr) {
        m_path = name;
        chmod(name, 0755);
    }
}

TempDir::~TempDir() {
    if (!m_path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    const std::string p = file(name);
    writeFile(p, content);
    return p;
}

void writeFile(const std::string& name, const std::string& content) {
    std::ofstream out(name, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    EXPECT_TRUE(out.good()) << "cannot write " << name;
}

std::string readFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool present(const std::string& name) {
    struct stat st;
    return lstat(name.c_str(), &st) == 0;
}

mode_t modeOf(const std::string& name) {
    struct stat st;
    return stat(name.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

}  // namespace kvtest
