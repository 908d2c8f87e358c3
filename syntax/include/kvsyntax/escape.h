// The letters that stand for control characters after a backslash in the configuration
// files: one table for reading and writing them.
#ifndef KVSYNTAX_ESCAPE_H
#define KVSYNTAX_ESCAPE_H

namespace kvsyntax {

struct EscapeLetter {
    char letter;
    char control;
};

constexpr EscapeLetter kEscapeLetters[] = {
    {'t', '\t'}, {'n', '\n'}, {'r', '\r'}, {'v', '\v'}, {'f', '\f'},
};

// The control character that `letter` stands for, or '\0'.
inline char controlFor(char letter) {
    for (const EscapeLetter& e : kEscapeLetters) {
        if (e.letter == letter) {
            return e.control;
        }
    }
    return '\0';
}

// The letter that stands for `control`, or '\0'.
inline char letterFor(char control) {
    for (const EscapeLetter& e : kEscapeLetters) {
        if (e.control == control) {
            return e.letter;
        }
    }
    return '\0';
}

}  // namespace kvsyntax

#endif
