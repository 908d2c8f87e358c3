// Exceptions and their error reports.
#include "zfw/exception.h"

#include <cstring>

#include "zfw/logger.h"

namespace zfw {

Base_Exception::Base_Exception(const char* file, int32_t line, const char* message,
                               const char* className, int32_t rc, bool report)
    : m_rc(rc), m_message(message) {
    // End of data is an expected outcome where it is thrown by its bare name.
    if (!report || std::strcmp(className, "EndOfFileException") == 0) {
        return;
    }
    const boost::shared_ptr<Logger> logger = Logger::get("util.except");
    if (logger->isEnabled(Logger::DEBUG)) {
        logger->log(Logger::DEBUG, "%s %s (reference %s:%d rc: %d)", className, message, file, line,
                    rc);
    }
}

const char* Base_Exception::what() const noexcept {
    return m_message.c_str();
}

BufferFullException::BufferFullException(const char* file, int32_t line, const char* message,
                                         const char* className, int32_t rc, bool report)
    : Base_Exception(file, line, message, className, rc, report), std::out_of_range("") {}

const char* BufferFullException::what() const noexcept {
    return Base_Exception::what();
}

}  // namespace zfw
