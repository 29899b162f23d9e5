#include "TextLayout.h"

#include <algorithm>

namespace notifymsg {

namespace {

// Length of the sequence a lead byte starts, and the lowest value it may
// encode (to refuse overlong forms); 0 for a byte that cannot lead.
size_t SequenceLength(unsigned char lead, char32_t& minimum) {
    if (lead < 0x80) {
        minimum = 0;
        return 1;
    }
    if ((lead & 0xE0) == 0xC0) {
        minimum = 0x80;
        return 2;
    }
    if ((lead & 0xF0) == 0xE0) {
        minimum = 0x800;
        return 3;
    }
    if ((lead & 0xF8) == 0xF0) {
        minimum = 0x10000;
        return 4;
    }
    return 0;
}

bool IsControl(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c <= 0x9F);
}

void TrimTrailingBlanks(std::u32string& line) {
    while (!line.empty() && (line.back() == U' ' || line.back() == U'\n')) {
        line.pop_back();
    }
}

// The longest prefix that fits with an ellipsis after it (found by halving:
// the cost stays small even for a very long line).
std::u32string WithEllipsis(std::u32string line, int width, const MeasureText& measure) {
    size_t fits = 0;
    size_t tooLong = line.size() + 1;
    while (tooLong - fits > 1) {
        const size_t middle = fits + (tooLong - fits) / 2;
        if (measure(line.substr(0, middle) + kEllipsis) <= width) {
            fits = middle;
        } else {
            tooLong = middle;
        }
    }
    line.resize(fits);
    TrimTrailingBlanks(line);
    return line + kEllipsis;
}

} // namespace

std::u32string DecodeUtf8(const std::string& bytes) {
    std::u32string text;
    text.reserve(bytes.size());
    size_t i = 0;
    while (i < bytes.size()) {
        char32_t minimum = 0;
        const unsigned char lead = static_cast<unsigned char>(bytes[i]);
        const size_t length = SequenceLength(lead, minimum);
        bool valid = length != 0 && i + length <= bytes.size();
        char32_t value = length == 1 ? lead : lead & (0x7F >> length);
        for (size_t k = 1; valid && k < length; ++k) {
            const unsigned char next = static_cast<unsigned char>(bytes[i + k]);
            valid = (next & 0xC0) == 0x80;
            value = (value << 6) | (next & 0x3F);
        }
        valid =
            valid && value >= minimum && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
        text += valid ? value : kReplacementCharacter;
        i += valid ? length : 1;
    }
    return text;
}

std::string EncodeUtf8(const std::u32string& text) {
    std::string bytes;
    for (char32_t c : text) {
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            c = kReplacementCharacter;
        }
        if (c < 0x80) {
            bytes += char(c);
        } else if (c < 0x800) {
            bytes += char(0xC0 | (c >> 6));
            bytes += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            bytes += char(0xE0 | (c >> 12));
            bytes += char(0x80 | ((c >> 6) & 0x3F));
            bytes += char(0x80 | (c & 0x3F));
        } else {
            bytes += char(0xF0 | (c >> 18));
            bytes += char(0x80 | ((c >> 12) & 0x3F));
            bytes += char(0x80 | ((c >> 6) & 0x3F));
            bytes += char(0x80 | (c & 0x3F));
        }
    }
    return bytes;
}

std::u32string Printable(const std::u32string& text, bool keepLineBreaks) {
    std::u32string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char32_t c = text[i];
        if (c == U'\r' || c == U'\n') {
            if (c == U'\r' && i + 1 < text.size() && text[i + 1] == U'\n') {
                ++i;
            }
            out += keepLineBreaks ? U'\n' : U' ';
        } else if (c == U'\t') {
            out += U' ';
        } else if (!IsControl(c)) {
            out += c;
        }
    }
    TrimTrailingBlanks(out);
    return out;
}

std::vector<std::u32string> WrapText(const std::u32string& text, int width, size_t maxLines,
                                     const MeasureText& measure) {
    std::vector<std::u32string> lines;
    size_t pos = 0;
    while (pos < text.size() && lines.size() < maxLines) {
        const size_t lineBreak = std::min(text.find(U'\n', pos), text.size());
        const size_t limit = std::min(lineBreak, pos + kMaxLineCharacters);
        // The longest run from pos that fits, found by halving: widths only
        // grow as characters are added, and even characters of no width
        // (which never overflow) cost a bounded number of measures.
        size_t fit = pos;
        size_t over = limit + 1;
        while (over - fit > 1) {
            const size_t middle = fit + (over - fit) / 2;
            if (measure(text.substr(pos, middle - pos)) <= width) {
                fit = middle;
            } else {
                over = middle;
            }
        }
        size_t end = fit;
        size_t next;
        const size_t blank = fit > pos ? text.rfind(U' ', fit - 1) : std::u32string::npos;
        if (fit == lineBreak || text[fit] == U' ') {
            next = fit + 1; // past the line break, the end, or the blank that did not fit
        } else if (blank != std::u32string::npos && blank > pos) {
            end = blank;
            next = blank + 1;
        } else {
            end = std::max(fit, pos + 1); // a word (or character) too wide: cut it
            next = end;
        }
        std::u32string line = text.substr(pos, end - pos);
        TrimTrailingBlanks(line);
        lines.push_back(line);
        pos = next;
        const bool softBreak = pos > 0 && pos <= text.size() && text[pos - 1] != U'\n';
        while (softBreak && pos < text.size() && text[pos] == U' ') {
            ++pos;
        }
    }
    if (pos < text.size() && !lines.empty()) {
        lines.back() = WithEllipsis(lines.back(), width, measure);
    }
    return lines;
}

std::u32string FitLine(const std::u32string& text, int width, const MeasureText& measure) {
    if (measure(text) <= width) {
        return text;
    }
    return WithEllipsis(text, width, measure);
}

} // namespace notifymsg
