#include "transport/yenc.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr char kAlphabet64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789()";

struct DecodeTable {
    signed char value[256];
    constexpr DecodeTable() : value{} {
        for (int i = 0; i < 256; ++i) {
            value[i] = -1;
        }
        for (int i = 0; i < 64; ++i) {
            value[static_cast<unsigned char>(kAlphabet64[i])] = static_cast<signed char>(i);
        }
    }
};

constexpr DecodeTable kDecode64;

// A character's six bits already in place for each position of a group, and
// a bit above the group's 24 for a character outside the alphabet, so that a
// whole group is four look-ups, three ORs and one test.
constexpr uint32_t kOutsideAlphabet = 1u << 24;

struct PlacedTable {
    uint32_t placed[4][256];
    constexpr PlacedTable() : placed{} {
        for (int position = 0; position < 4; ++position) {
            for (int c = 0; c < 256; ++c) {
                const int v = kDecode64.value[c];
                placed[position][c] =
                    v < 0 ? kOutsideAlphabet : uint32_t(v) << (6 * (3 - position));
            }
        }
    }
};

constexpr PlacedTable kPlaced;

// The two characters of every 12-bit value, so that a group of three bytes
// takes two look-ups instead of four.
struct PairTable {
    char pair[4096][2];
    constexpr PairTable() : pair{} {
        for (int i = 0; i < 4096; ++i) {
            pair[i][0] = kAlphabet64[i >> 6];
            pair[i][1] = kAlphabet64[i & 63];
        }
    }
};

constexpr PairTable kPairs;

// Four characters for the 24 bits of group.
inline void EncodeGroup(uint32_t group, char* o) {
    memcpy(o, kPairs.pair[(group >> 12) & 0xFFF], 2);
    memcpy(o + 2, kPairs.pair[group & 0xFFF], 2);
}

// The yEnc shift and the escape set of the data channel.
constexpr unsigned kYencShift = 42;
constexpr unsigned kYencEscapeShift = 64;

constexpr bool NeedsYencEscape(unsigned char c) {
    return c == 0x00 || c == 0x09 || c == 0x0A || c == 0x0D || c == 0x2E || c == 0x3D;
}

struct YencEscapeTable {
    bool escape[256];
    constexpr YencEscapeTable() : escape{} {
        for (int c = 0; c < 256; ++c) {
            escape[c] = NeedsYencEscape(static_cast<unsigned char>(c));
        }
    }
};

constexpr YencEscapeTable kYencEscapes;

// Unlike assert() this also holds in release builds: a malformed frame must
// never be decoded past its end.
[[noreturn]] void DecoderAssertionFailed(const char* expression, int line) {
    fprintf(stderr, "%s:%d: yDecode: Assertion `%s' failed.\n", __FILE__, line, expression);
    abort();
}

#define YDECODE_ASSERT(expr)                                                                       \
    do {                                                                                           \
        if (!(expr)) {                                                                             \
            DecoderAssertionFailed(#expr, __LINE__);                                               \
        }                                                                                          \
    } while (0)

} // namespace

extern "C" char* Encode64(const unsigned char* src, int n) {
    const size_t count = n > 0 ? size_t(n) : 0;
    char* out = static_cast<char*>(malloc(4 * ((count + 2) / 3) + 1));
    if (out == nullptr) {
        return nullptr;
    }
    char* o = out;
    size_t i = 0;
    for (; i + 3 <= count; i += 3, o += 4) {
        EncodeGroup(uint32_t(src[i]) << 16 | uint32_t(src[i + 1]) << 8 | src[i + 2], o);
    }
    // A last group of one or two bytes is completed with zero bits.
    if (i < count) {
        const bool two = count - i == 2;
        EncodeGroup(uint32_t(src[i]) << 16 | (two ? uint32_t(src[i + 1]) << 8 : 0), o);
        o += 4;
    }
    *o = '\0';
    return out;
}

extern "C" unsigned char* Decode64(const char* text, int* len) {
    const size_t textLength = text != nullptr ? strlen(text) : 0;
    // At least one byte, so that even a text too short to yield anything
    // gives the caller a block to free.
    const size_t capacity = textLength * 3 / 4;
    unsigned char* out = static_cast<unsigned char*>(malloc(capacity > 0 ? capacity : 1));
    size_t produced = 0;
    if (out != nullptr) {
        size_t i = 0;
        // Whole groups of four alphabet characters, the bulk of any text.
        for (; i + 4 <= textLength; i += 4, produced += 3) {
            const uint32_t group = kPlaced.placed[0][static_cast<unsigned char>(text[i])] |
                                   kPlaced.placed[1][static_cast<unsigned char>(text[i + 1])] |
                                   kPlaced.placed[2][static_cast<unsigned char>(text[i + 2])] |
                                   kPlaced.placed[3][static_cast<unsigned char>(text[i + 3])];
            if (group & kOutsideAlphabet) {
                break; // one is outside the alphabet: the careful path below
            }
            out[produced] = static_cast<unsigned char>(group >> 16);
            out[produced + 1] = static_cast<unsigned char>(group >> 8);
            out[produced + 2] = static_cast<unsigned char>(group);
        }
        for (; i < textLength; i += 4) {
            uint32_t group = 0;
            int digits = 0;
            while (digits < 4 && i + digits < textLength) {
                const int v = kDecode64.value[static_cast<unsigned char>(text[i + digits])];
                if (v < 0) {
                    break;
                }
                group = group << 6 | uint32_t(v);
                ++digits;
            }
            group <<= 6 * (4 - digits);
            // Two digits give one byte, three give two, four give three.
            for (int b = 0; b < digits - 1; ++b) {
                out[produced++] = static_cast<unsigned char>(group >> (16 - 8 * b));
            }
            if (digits < 4) {
                break;
            }
        }
    }
    if (len != nullptr) {
        *len = produced > size_t(INT_MAX) ? INT_MAX : int(produced);
    }
    return out;
}

extern "C" int yEncode(const unsigned char* src, int n, char** out) {
    *out = nullptr;
    // The result's length must fit the int return value.
    if (n <= 0 || n > (INT_MAX - 1) / 2) {
        return 0;
    }
    char* encoded = static_cast<char*>(malloc(2 * size_t(n) + 1));
    if (encoded == nullptr) {
        return 0;
    }
    char* o = encoded;
    // Without a branch on the escape (a few in a hundred random bytes, too
    // irregular to predict): both bytes of an escape are always written, and
    // the output advances by one or two. At most two bytes per input byte, so
    // the second write stays inside the block.
    for (int i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(src[i] + kYencShift);
        const bool escape = kYencEscapes.escape[c];
        o[0] = escape ? '=' : static_cast<char>(c);
        o[1] = static_cast<char>(static_cast<unsigned char>(c + kYencEscapeShift));
        o += 1 + escape;
    }
    *o = '\0';
    *out = encoded;
    return int(o - encoded);
}

extern "C" int yDecode(const char* text, int size, unsigned char** out) {
    const int limit = text != nullptr && size > 0 ? size : 0;
    unsigned char* dstbuf = static_cast<unsigned char*>(malloc(limit > 0 ? size_t(limit) : 1));
    YDECODE_ASSERT(dstbuf);
    *out = dstbuf;
    int produced = 0;
    int i = 0;
    while (i < limit && text[i] != '\0') {
        if (text[i] == '=') {
            // An escape cut off by the end of the text or of its counted
            // length is malformed input.
            const char c = i + 1 < limit ? text[i + 1] : '\0';
            YDECODE_ASSERT(c != '\0');
            dstbuf[produced++] = static_cast<unsigned char>(static_cast<unsigned char>(c) -
                                                            kYencEscapeShift - kYencShift);
            i += 2;
        } else {
            dstbuf[produced++] =
                static_cast<unsigned char>(static_cast<unsigned char>(text[i]) - kYencShift);
            ++i;
        }
    }
    return produced;
}
