// The framework's exceptions and their error reports on "util.except", read back from a
// private "/dev/log".
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "lrpc2/status.h"
#include "support/syslog_sink.h"
#include "zfw/exception.h"
#include "zfw/logger.h"
#include "zfw/mutex.h"

namespace zfw {
// A throw site inside the namespace names the class without its qualifier.
int throwBareEndOfFile() {
    ZFW_THROW(EndOfFileException, 0, true, "No more data");
}
int throwBareIO(int* line) {
    *line = __LINE__ + 1;
    ZFW_THROW(IOException, 1, true, "bare");
}
}  // namespace zfw

namespace {

kvtest::SyslogSink& sink() {
    static kvtest::SyslogSink s;
    return s;
}

std::string report(const char* cls, const std::string& message, int line, int rc) {
    return "DEBUG util.except " + std::string(cls) + " " + message +
           " (reference exception_test.cpp:" + std::to_string(line) + " rc: " + std::to_string(rc) +
           ")";
}

class ExceptionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        zfw::Logger::get("util.except")->setLevel(zfw::Logger::DEBUG);
        sink().take();
    }
    std::vector<std::string> reports() { return sink().takeTexts("util.except"); }
};

TEST_F(ExceptionTest, ThrowFormatsAndReportsOnce) {
    int line = 0;
    try {
        line = __LINE__ + 1;
        ZFW_THROW(zfw::IOException, 7, true, "Unable to send lrpc2 message: %d (%s)", 203,
                  lrpc2_status_text(203));
    } catch (const zfw::IOException& e) {
        const zfw::IOException copy(e);  // copies write no report
        EXPECT_STREQ(copy.what(), "Unable to send lrpc2 message: 203 ((NULL))");
        EXPECT_EQ(copy.rc(), 7);
    }
    EXPECT_EQ(reports(),
              std::vector<std::string>{report(
                  "zfw::IOException", "Unable to send lrpc2 message: 203 ((NULL))", line, 7)});
}

TEST_F(ExceptionTest, ReportFlagAndClassNameDecide) {
    EXPECT_THROW(ZFW_THROW(zfw::QueueInterrupted, 0, false, "QueueInterrupted"),
                 zfw::QueueInterrupted);
    EXPECT_THROW(zfw::throwBareEndOfFile(), zfw::EndOfFileException);
    EXPECT_TRUE(reports().empty());

    int line = 0;
    auto qualified = [&line] {
        line = __LINE__ + 1;
        ZFW_THROW(zfw::EndOfFileException, 0, true, "No more data while reading %s", "Bool");
    };
    EXPECT_THROW(qualified(), zfw::EndOfFileException);
    EXPECT_EQ(reports(),
              std::vector<std::string>{
                  report("zfw::EndOfFileException", "No more data while reading Bool", line, 0)});

    EXPECT_THROW(zfw::throwBareIO(&line), zfw::IOException);
    EXPECT_EQ(reports(), std::vector<std::string>{report("IOException", "bare", line, 1)});
}

}  // namespace
