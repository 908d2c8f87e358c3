// The framework's bounded formatter, exported as snprintf and vsnprintf for the whole
// process. This file must not include <cstdio>: vsnprintf here returns the full
// pointer-sized count, which the C library's declaration does not allow.
#include "zfw/format.h"

#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// Stores while there is room and counts every character, so the caller learns the
// full length even when the text was cut.
class Sink {
  public:
    Sink(char* buf, size_t size) : m_buf(buf), m_size(buf != nullptr ? size : 0) {}

    void put(char c) {
        if (m_count < m_size) {
            m_buf[m_count] = c;
        }
        ++m_count;
    }

    void append(const char* text, size_t n) {
        if (m_count < m_size) {
            const size_t room = m_size - m_count;
            memcpy(m_buf + m_count, text, n < room ? n : room);
        }
        m_count += n;
    }

    // Writes only what still fits: huge widths cost nothing past the buffer.
    void repeat(char c, int64_t n) {
        if (n <= 0) {
            return;
        }
        const size_t wanted = static_cast<size_t>(n);
        if (m_count < m_size) {
            const size_t room = m_size - m_count;
            memset(m_buf + m_count, c, wanted < room ? wanted : room);
        }
        m_count += wanted;
    }

    void terminate() {
        if (m_size != 0) {
            m_buf[m_count < m_size - 1 ? m_count : m_size - 1] = '\0';
        }
    }

    size_t count() const { return m_count; }

  private:
    char* m_buf;
    size_t m_size;
    size_t m_count = 0;
};

enum Flag : unsigned {
    LEFT = 1u << 0,
    PLUS = 1u << 1,
    SPACE = 1u << 2,
    ALTERNATE = 1u << 3,
    ZERO = 1u << 4,
    UPPER = 1u << 5,
    UNSIGNED = 1u << 6,
};

// The arguments not fetched yet.
class Arguments {
  public:
    explicit Arguments(va_list args) { va_copy(m_list, args); }
    ~Arguments() { va_end(m_list); }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    template <typename T>
    T next() {
        // The analyser does not follow the va_copy of the constructor.
        return va_arg(m_list, T);  // NOLINT(clang-analyzer-valist.Uninitialized)
    }

  private:
    va_list m_list;
};

enum class Length { NONE, SHORT, LONG, LONG_DOUBLE, LONG_LONG };

struct Conversion {
    unsigned flags = 0;
    int32_t width = 0;
    int32_t precision = -1;
    Length length = Length::NONE;
};

enum class State { TEXT, FLAGS, WIDTH, DOT, PRECISION, LENGTH, CONVERSION };

// A 64-bit octal magnitude has 22 digits.
constexpr int kMaxIntegerDigits = 22;
// The largest double has 309 integer digits.
constexpr int kMaxWholeDigits = 310;
constexpr int kMaxFloatPrecision = 16;

int64_t atLeastZero(int64_t v) {
    return v < 0 ? 0 : v;
}

// Appends one decimal digit to a width or precision, saturating instead of overflowing.
int32_t addDigit(int32_t value, char digit) {
    const int32_t d = digit - '0';
    if (value > (INT32_MAX - d) / 10) {
        return INT32_MAX;
    }
    return value * 10 + d;
}

char signFor(bool negative, unsigned flags) {
    if (negative) {
        return '-';
    }
    if (flags & PLUS) {
        return '+';
    }
    return (flags & SPACE) ? ' ' : '\0';
}

// Digits of `magnitude`, least significant first, stored backwards from the end of
// `digits` (kMaxIntegerDigits bytes) so that they can be copied out in order. The base is a
// constant so that the division compiles to a multiplication.
template <unsigned Base>
int integerDigits(uint64_t magnitude, const char* digitSet, char* digits) {
    // One past the end of the caller's array, which is written backwards.
    char* p = digits + kMaxIntegerDigits;
    do {
        *--p = digitSet[magnitude % Base];
        magnitude /= Base;
    } while (magnitude != 0 && p != digits);
    return static_cast<int>(digits + kMaxIntegerDigits - p);
}

// Base 10 two digits per division: the same digits in half the divisions.
template <>
int integerDigits<10>(uint64_t magnitude, const char*, char* digits) {
    static const char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    char* p = digits + kMaxIntegerDigits;
    while (magnitude >= 100) {
        const unsigned pair = static_cast<unsigned>(magnitude % 100) * 2;
        magnitude /= 100;
        *--p = kPairs[pair + 1];
        *--p = kPairs[pair];
    }
    if (magnitude >= 10) {
        const unsigned pair = static_cast<unsigned>(magnitude) * 2;
        *--p = kPairs[pair + 1];
        *--p = kPairs[pair];
    } else {
        *--p = static_cast<char>('0' + magnitude);
    }
    return static_cast<int>(digits + kMaxIntegerDigits - p);
}

void formatInteger(Sink& out, uint64_t magnitude, bool negative, unsigned base,
                   const Conversion& c) {
    const char* digitSet = (c.flags & UPPER) ? "0123456789ABCDEF" : "0123456789abcdef";
    const char sign = (c.flags & UNSIGNED) ? '\0' : signFor(negative, c.flags);

    char digits[kMaxIntegerDigits];
    const int count = base == 10   ? integerDigits<10>(magnitude, digitSet, digits)
                      : base == 16 ? integerDigits<16>(magnitude, digitSet, digits)
                                   : integerDigits<8>(magnitude, digitSet, digits);

    const int64_t precision = atLeastZero(c.precision);
    int64_t zeros = atLeastZero(precision - count);
    int64_t spaces = atLeastZero(static_cast<int64_t>(c.width) -
                                 (precision > count ? precision : count) - (sign ? 1 : 0));
    if (c.flags & ZERO) {
        zeros = zeros > spaces ? zeros : spaces;
        spaces = 0;
    }

    if (!(c.flags & LEFT)) {
        out.repeat(' ', spaces);
    }
    if (sign) {
        out.put(sign);
    }
    out.repeat('0', zeros);
    out.append(digits + kMaxIntegerDigits - count, static_cast<size_t>(count));
    if (c.flags & LEFT) {
        out.repeat(' ', spaces);
    }
}

void formatString(Sink& out, const char* text, const Conversion& c) {
    if (text == nullptr) {
        text = "(NULL)";
    }
    // With a precision nothing past max(precision, width) is ever looked at, so a
    // bounded array without a terminator is safe.
    int64_t length;
    if (c.precision >= 0) {
        const int32_t limit = c.precision > c.width ? c.precision : c.width;
        length = static_cast<int64_t>(strnlen(text, static_cast<size_t>(limit)));
    } else {
        length = static_cast<int64_t>(strlen(text));
    }
    int64_t precision = c.precision < 0 ? length : c.precision;
    if (c.width > 0 && c.width > precision) {
        precision = c.width;
    }

    // Padding counts against the precision too.
    const int64_t padding = atLeastZero(static_cast<int64_t>(c.width) - length);
    int64_t printed = 0;
    if (!(c.flags & LEFT)) {
        const int64_t lead = padding < precision ? padding : precision;
        out.repeat(' ', lead);
        printed += lead;
    }
    const int64_t shown = atLeastZero(length < precision - printed ? length : precision - printed);
    out.append(text, static_cast<size_t>(shown));
    printed += shown;
    if (c.flags & LEFT) {
        const int64_t room = precision - printed;
        out.repeat(' ', padding < room ? padding : room);
    }
}

// Whole part and fraction of a non-negative finite value. Every double from 2^53 up is
// a whole number, so only smaller values need the integer truncation.
double splitWhole(double value, double* whole) {
    if (value < 9.0e18) {
        const double w = static_cast<double>(static_cast<int64_t>(value));
        *whole = w;
        return value - w;
    }
    *whole = value;
    return 0.0;
}

// Decimal digits of a non-negative whole number, least significant first, by repeated
// division by ten in double precision. Produces at least one digit.
int wholeDigits(double value, char* digits, int maxDigits) {
    int count = 0;
    do {
        double quotient = value / 10.0;
        double whole;
        const double fraction = splitWhole(quotient, &whole);
        const int digit = static_cast<int>((fraction + 0.05) * 10.0);
        digits[count++] = "0123456789"[digit > 9 ? 9 : digit];
        value = whole;
    } while (value != 0.0 && count < maxDigits);
    return count;
}

// Infinity and not-a-number have no digits: they print as words, padded to the width.
void formatNonFinite(Sink& out, bool isNan, char sign, const Conversion& c) {
    const char* word = (c.flags & UPPER) ? (isNan ? "NAN" : "INF") : (isNan ? "nan" : "inf");
    const int64_t spaces = atLeastZero(static_cast<int64_t>(c.width) - 3 - (sign ? 1 : 0));
    if (!(c.flags & LEFT)) {
        out.repeat(' ', spaces);
    }
    if (sign) {
        out.put(sign);
    }
    for (const char* p = word; *p; ++p) {
        out.put(*p);
    }
    if (c.flags & LEFT) {
        out.repeat(' ', spaces);
    }
}

void formatFloat(Sink& out, double value, const Conversion& c) {
    int precision = c.precision < 0 ? 6 : c.precision;
    if (precision > kMaxFloatPrecision) {
        precision = kMaxFloatPrecision;
    }
    char sign = signFor(value < 0, c.flags);
    if (!std::isfinite(value)) {
        formatNonFinite(out, std::isnan(value), sign, c);
        return;
    }
    const double magnitude = value < 0 ? -value : value;

    int64_t scale = 1;
    for (int i = 0; i < precision; ++i) {
        scale *= 10;
    }
    double whole;
    const double scaled = splitWhole(magnitude, &whole) * static_cast<double>(scale);
    int64_t fraction = static_cast<int64_t>(scaled);
    if (scaled - static_cast<double>(fraction) >= 0.5) {
        ++fraction;
    }
    if (fraction >= scale) {
        whole += 1.0;
        fraction -= scale;
    }

    char wholeDigitBuf[kMaxWholeDigits];
    const int wholeCount = wholeDigits(whole, wholeDigitBuf, kMaxWholeDigits);
    char fractionDigitBuf[kMaxFloatPrecision + 1];
    const int fractionCount = fraction == 0 ? 0
                                            : wholeDigits(static_cast<double>(fraction),
                                                          fractionDigitBuf, kMaxFloatPrecision + 1);

    // The point is always counted, also when no point is printed.
    int64_t padding =
        atLeastZero(static_cast<int64_t>(c.width) - wholeCount - precision - 1 - (sign ? 1 : 0));
    const int64_t fractionZeros = atLeastZero(precision - fractionCount);

    if (!(c.flags & LEFT)) {
        if ((c.flags & ZERO) && padding > 0) {
            if (sign) {
                out.put(sign);
                sign = '\0';
            }
            out.repeat('0', padding);
        } else {
            out.repeat(' ', padding);
        }
        padding = 0;
    }
    if (sign) {
        out.put(sign);
    }
    for (int i = wholeCount; i > 0; --i) {
        out.put(wholeDigitBuf[i - 1]);
    }
    if (precision > 0) {
        out.put('.');
        out.repeat('0', fractionZeros);
        for (int i = fractionCount; i > 0; --i) {
            out.put(fractionDigitBuf[i - 1]);
        }
    }
    out.repeat(' ', padding);
}

void storeCount(const Conversion& c, size_t count, void* target) {
    if (target == nullptr) {
        return;
    }
    switch (c.length) {
        case Length::SHORT:
            *static_cast<short*>(target) = static_cast<short>(count);
            break;
        case Length::LONG:
        case Length::LONG_LONG:
            *static_cast<long*>(target) = static_cast<long>(count);
            break;
        default:
            *static_cast<int*>(target) = static_cast<int>(count);
            break;
    }
}

bool isWide(const Conversion& c) {
    return c.length == Length::LONG || c.length == Length::LONG_LONG;
}

// Prints one conversion whose character is `ch`. `format` points after `ch` and moves on
// when "%w" swallows a character.
void convert(Sink& out, char ch, Conversion& c, const char*& format, Arguments& args) {
    switch (ch) {
        case 'd':
        case 'i': {
            const int64_t v = isWide(c) ? args.next<long>() : args.next<int>();
            const bool negative = v < 0;
            const uint64_t magnitude =
                negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
            formatInteger(out, magnitude, negative, 10, c);
            break;
        }
        case 'u':
        case 'o':
        case 'x':
        case 'X': {
            c.flags |= UNSIGNED;
            if (ch == 'X') {
                c.flags |= UPPER;
            }
            const uint64_t v = isWide(c) ? args.next<unsigned long>() : args.next<unsigned>();
            formatInteger(out, v, false, ch == 'u' ? 10 : ch == 'o' ? 8 : 16, c);
            break;
        }
        case 'p': {
            // The address is printed as a signed value, without a prefix.
            const int64_t v = static_cast<int64_t>(reinterpret_cast<intptr_t>(args.next<void*>()));
            const bool negative = v < 0;
            const uint64_t magnitude =
                negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
            formatInteger(out, magnitude, negative, 16, c);
            break;
        }
        case 'c':
            out.put(static_cast<char>(args.next<int>()));
            break;
        case 's':
            formatString(out, args.next<const char*>(), c);
            break;
        case 'f':
        case 'e':
        case 'E':
        case 'g':
        case 'G': {
            if (ch == 'E' || ch == 'G') {
                c.flags |= UPPER;
            }
            const double v = c.length == Length::LONG_DOUBLE
                                 ? static_cast<double>(args.next<long double>())
                                 : args.next<double>();
            formatFloat(out, v, c);
            break;
        }
        case 'n':
            storeCount(c, out.count(), args.next<void*>());
            break;
        case '%':
            out.put('%');
            break;
        case 'w':
            if (*format != '\0') {
                ++format;
            }
            break;
        default:
            // Unknown conversions print nothing.
            break;
    }
}

size_t formatInto(char* buf, size_t size, const char* format, va_list callerArgs) {
    Arguments args(callerArgs);
    Sink out(buf, size);
    if (format == nullptr) {
        out.terminate();
        return 0;
    }
    Conversion c;
    State state = State::TEXT;
    char ch = *format++;
    // The end of the format ends the walk in any state: an unfinished conversion prints
    // nothing.
    while (ch != '\0') {
        switch (state) {
            case State::TEXT:
                if (ch == '%') {
                    state = State::FLAGS;
                    ch = *format++;
                } else {
                    // The whole run of plain text up to the next conversion at once.
                    const char* run = format - 1;
                    const char* end = strchrnul(format, '%');
                    out.append(run, static_cast<size_t>(end - run));
                    format = end;
                    ch = *format++;
                }
                break;
            case State::FLAGS:
                switch (ch) {
                    case '-':
                        c.flags |= LEFT;
                        break;
                    case '+':
                        c.flags |= PLUS;
                        break;
                    case ' ':
                        c.flags |= SPACE;
                        break;
                    case '#':
                        c.flags |= ALTERNATE;
                        break;
                    case '0':
                        c.flags |= ZERO;
                        break;
                    default:
                        state = State::WIDTH;
                        continue;
                }
                ch = *format++;
                break;
            case State::WIDTH:
                if (ch >= '0' && ch <= '9') {
                    c.width = addDigit(c.width, ch);
                    ch = *format++;
                } else if (ch == '*') {
                    c.width = args.next<int>();
                    ch = *format++;
                    state = State::DOT;
                } else {
                    state = State::DOT;
                }
                break;
            case State::DOT:
                if (ch == '.') {
                    state = State::PRECISION;
                    ch = *format++;
                } else {
                    state = State::LENGTH;
                }
                break;
            case State::PRECISION:
                if (ch >= '0' && ch <= '9') {
                    c.precision = addDigit(c.precision < 0 ? 0 : c.precision, ch);
                    ch = *format++;
                } else if (ch == '*') {
                    c.precision = args.next<int>();
                    ch = *format++;
                    state = State::LENGTH;
                } else {
                    state = State::LENGTH;
                }
                break;
            case State::LENGTH:
                if (ch == 'h') {
                    c.length = Length::SHORT;
                    ch = *format++;
                } else if (ch == 'L') {
                    c.length = Length::LONG_DOUBLE;
                    ch = *format++;
                } else if (ch == 'l') {
                    c.length = Length::LONG;
                    ch = *format++;
                    if (ch == 'l') {
                        c.length = Length::LONG_LONG;
                        ch = *format++;
                    }
                }
                state = State::CONVERSION;
                break;
            case State::CONVERSION:
                convert(out, ch, c, format, args);
                c = Conversion();
                state = State::TEXT;
                ch = *format++;
                break;
        }
    }
    out.terminate();
    return out.count();
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) size_t vsnprintf(char* buf, size_t size, const char* format,
                                                        va_list args) noexcept {
    return formatInto(buf, size, format, args);
}

__attribute__((visibility("default"))) int snprintf(char* buf, size_t size, const char* format,
                                                    ...) noexcept {
    va_list args;
    va_start(args, format);
    const size_t count = formatInto(buf, size, format, args);
    va_end(args);
    return static_cast<int>(count);
}

}  // extern "C"

namespace zfw {

int64_t snprintf64(char* buf, size_t size, const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    const size_t count = formatInto(buf, size, format, args);
    va_end(args);
    return static_cast<int64_t>(count);
}

}  // namespace zfw
