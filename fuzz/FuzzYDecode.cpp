// The yEnc decoder on any text and counted length, checked against a plain
// model of the decoding, and the round trip of any bytes through the encoder.
// Texts on which the decoder must abort (an "=" with nothing after it inside
// the counted length) are skipped: that abort is required, not a finding.
//
// Input: two bytes giving the counted length (0xFFFF: the text's own length),
// then the text.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "FuzzLink.h"
#include "transport/yenc.h"

namespace {

// (c - 42) for a plain byte, (e - 64 - 42) for an escaped one.
std::string ModelDecode(const char* text, size_t size) {
    std::string out;
    for (size_t i = 0; i < size && text[i] != '\0';) {
        if (text[i] == '=') {
            out += char(static_cast<unsigned char>(text[i + 1]) - 106);
            i += 2;
        } else {
            out += char(static_cast<unsigned char>(text[i]) - 42);
            ++i;
        }
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 1 << 20) {
        return -1;
    }
    const unsigned asked = unsigned(data[0]) << 8 | data[1];
    const std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
    const int counted = asked == 0xFFFF ? int(text.size()) : int(asked);
    if (ndfuzz::YencTextWouldAbort(text.c_str(), size_t(counted))) {
        return -1;
    }
    unsigned char* decoded = nullptr;
    const int produced = yDecode(text.c_str(), counted, &decoded);
    const std::string expected = ModelDecode(text.c_str(), size_t(counted));
    if (decoded == nullptr || produced != int(expected.size()) ||
        memcmp(decoded, expected.data(), expected.size()) != 0) {
        __builtin_trap();
    }
    free(decoded);

    // Encoding any bytes gives a text that decodes back to them.
    char* encoded = nullptr;
    const int encodedLength = yEncode(data, int(size), &encoded);
    if (encoded == nullptr || encodedLength != int(strlen(encoded)) ||
        strpbrk(encoded, "\t\r\n.") != nullptr) {
        __builtin_trap();
    }
    const int back = yDecode(encoded, encodedLength, &decoded);
    if (back != int(size) || memcmp(decoded, data, size) != 0) {
        __builtin_trap();
    }
    free(decoded);
    free(encoded);
    return 0;
}
