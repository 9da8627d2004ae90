#pragma once

#include "kernel/Types.h"

namespace KovexEngine {

// The "C" conventions for the text the engine writes and reads, whatever
// locale the process has set. GUI toolkits set the user's own locale on
// their own; with it the C library prints and reads "0,5" and folds case
// by national rules, and files, state keys and generated shader code would
// no longer read back. All number text of the engine and its case folding
// go through here. Internal to the library (not exported); safe from any
// thread.
namespace CLocale {

// One floating-point conversion of printf ('f', 'F', 'e', 'E', 'g', 'G',
// 'a', 'A') with its flags, digit for digit what the C library prints in the
// "C" locale. A `precision` below 0 takes the default. Writes at most
// size - 1 characters and a terminator, and returns the count written.
unsigned FormatDouble(char* out, unsigned size, char conversion, double value, int precision,
                      bool plus, bool space, bool alt);

// strtod and strtof as they read in the "C" locale.
double ParseDouble(const char* text, char** end = nullptr);
float ParseFloat(const char* text, char** end = nullptr);

// Case mapping of the "C" locale: ASCII letters only.
char ToLower(char c);
char ToUpper(char c);
char16_t ToLower(char16_t c);
char16_t ToUpper(char16_t c);

} // namespace CLocale
} // namespace KovexEngine
