#include "config/SettingsReader.h"

#include "config/StringUtilities.h"

#include <cstring>

extern "C" const unsigned short crctab[32] = {
    0xC60C, 0x8DC6, 0xD68D, 0x0ED6, 0xE70E, 0x8FE7, 0xF78F, 0x00F7, 0x0000, 0x8100, 0x1081,
    0x0210, 0x2102, 0x8321, 0x3183, 0x0431, 0x4204, 0x8542, 0x5285, 0x0652, 0x6306, 0x8763,
    0x7387, 0x0873, 0x8408, 0x8984, 0x9489, 0x0A94, 0xA50A, 0x8BA5, 0xB58B, 0xC6B5,
};

namespace {

unsigned int StepSum(unsigned int sum, unsigned int word) {
    const unsigned int mixed = ((crctab[sum & 31] ^ word) + sum) & 0xFFFF;
    return ((mixed << 1) | (mixed >> 15)) & 0xFFFF;
}

} // namespace

unsigned long nc_checksum(unsigned char* p, short linelen, unsigned long seed) {
    const unsigned int words = static_cast<unsigned int>(linelen) & 0x7FFF;
    if (words == 0 || p == nullptr) {
        return 1;
    }
    unsigned int lsw = seed & 0xFFFF;
    // Unpacking is deliberately not the inverse of the packing below: the
    // stored checksums depend on exactly this pair.
    const unsigned int b3 = (seed >> 24) & 0xFF;
    const unsigned int b2 = (seed >> 16) & 0xFF;
    unsigned int msw = (((b3 - b2) & 0xFF) << 8) | b2;

    for (unsigned int i = 0; i < words; ++i) {
        const unsigned int word = p[2 * i] | (static_cast<unsigned int>(p[2 * i + 1]) << 8);
        if (i % 2 == 0) {
            lsw = StepSum(lsw, word);
        } else {
            msw = StepSum(msw, word);
        }
    }

    const unsigned long msb = msw >> 8;
    const unsigned long lsb = (msw ^ (msw >> 8)) & 0xFF;
    const unsigned long cks = (msb << 24) | (lsb << 16) | lsw;
    return cks == 0 ? 1 : cks;
}

namespace vel {

namespace {

constexpr std::streamsize kMaxLineBytes = 1024;

} // namespace

bool ReadLines(std::istream& input, unsigned long& checksum, Preferences* prefs,
               unsigned long checksum_mask) {
    std::string section;
    // One byte beyond the longest line keeps room for the zero that an odd-length
    // line's last checksum word takes as its high byte.
    char buffer[kMaxLineBytes + 1] = {};
    for (;;) {
        // Fails at the end of the stream and on a line longer than the buffer;
        // either ends the file without complaint.
        input.getline(buffer, sizeof(buffer));
        if (input.fail() || input.bad()) {
            return true;
        }
        char* text = buffer;
        while (*text != '\0' && IsWhitespaceByte(*text)) {
            ++text;
        }
        if (*text == '\0' || *text == ';') {
            continue;
        }
        size_t length = std::strlen(text);
        if (text[length - 1] == '\n') {
            text[--length] = '\0';
        }
        if (length > 0 && text[length - 1] == '\r') {
            text[--length] = '\0';
        }

        // Reads (length + 1) / 2 words: at most the text and its zero.
        checksum = nc_checksum(reinterpret_cast<unsigned char*>(text),
                               static_cast<short>((length + 1) / 2), checksum) ^
                   checksum_mask;
        if (prefs == nullptr) {
            continue;
        }
        if (!ParseLine(*prefs, std::string(text, length), section)) {
            return false;
        }
    }
}

bool ParseLine(Preferences& prefs, const std::string& line, std::string& section) {
    if (line.size() <= 2 || line.compare(0, 2, "[[") == 0) {
        return true;
    }
    if (line[0] == '[') {
        const size_t close = line.find(']');
        section = line.substr(1, close == std::string::npos ? std::string::npos : close - 1);
        return true;
    }
    std::string key;
    std::string value;
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
        StripWhitespace(line, key);
    } else {
        StripWhitespace(line.substr(0, equals), key);
        StripWhitespace(line.substr(equals + 1), value);
    }
    if (!value.empty() || !key.empty()) {
        prefs.setConfigString(section, key, value);
    }
    return true;
}

} // namespace vel
