// The framework's configuration file for tests, whose "/etc/zantorkv" is an empty tmpfs of
// their own (support/main.cpp).
#ifndef KV_TESTS_SUPPORT_ZFW_CONFIG_H
#define KV_TESTS_SUPPORT_ZFW_CONFIG_H

#include <string>

namespace kvtest {

// Replaces "/etc/zantorkv/zantorkv.conf" with text and reloads the process-wide properties, which
// configures the loggers again. Fails the test, and writes nothing, outside a private namespace.
void useProperties(const std::string& text);

}  // namespace kvtest

#endif
