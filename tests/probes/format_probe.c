/* A shared library outside the framework: its snprintf calls must reach the framework's
 * formatter through ordinary symbol lookup. */
#include <stddef.h>
#include <stdio.h>

int format_probe(char* buf, size_t size, const char* format, const char* text, double value) {
    return snprintf(buf, size, format, text, value);
}
