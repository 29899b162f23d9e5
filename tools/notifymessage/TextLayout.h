// Text from the network made safe to show: UTF-8 decoded (invalid bytes become
// U+FFFD), control characters removed, wrapped into the lines that fit. Pure
// functions; the caller supplies the font's measure. Single-threaded.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace notifymsg {

constexpr char32_t kReplacementCharacter = 0xFFFD;
constexpr char32_t kEllipsis = 0x2026;
// No line holds more characters than this, however narrow they are.
constexpr size_t kMaxLineCharacters = 1024;

// Width of a run of characters in pixels.
using MeasureText = std::function<int(const std::u32string&)>;

// Every byte that is not part of a well-formed sequence (overlong forms,
// surrogates and values above U+10FFFF included) becomes one U+FFFD.
std::u32string DecodeUtf8(const std::string& bytes);
std::string EncodeUtf8(const std::u32string& text);

// Tabs become blanks; line breaks (LF, CR LF, CR) become LF, or blanks when
// not kept; other C0 and C1 controls and DEL are dropped; trailing white space
// goes.
std::u32string Printable(const std::u32string& text, bool keepLineBreaks);

// Greedy word wrap into at most maxLines lines no wider than width (a single
// character wider than that still gets a line of its own). When text is left
// over, the last line ends in an ellipsis.
std::vector<std::u32string> WrapText(const std::u32string& text, int width, size_t maxLines,
                                     const MeasureText& measure);

// One line no wider than width, cut with an ellipsis if needed.
std::u32string FitLine(const std::u32string& text, int width, const MeasureText& measure);

} // namespace notifymsg
