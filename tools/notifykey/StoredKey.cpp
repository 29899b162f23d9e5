#include "StoredKey.h"

#include "transport/password.h"

namespace notifykey {

namespace {

// Room for the longest stored form the daemon can read (two letters a byte).
constexpr int kBufferBytes = 2 * int(kMaxKeyBytes) + 2;

std::string TooLong(size_t bytes) {
    return "the key is " + std::to_string(bytes) + " bytes long; the daemon reads at most " +
           std::to_string(kMaxKeyBytes) + " (it decodes the stored key into a 16-byte buffer)";
}

} // namespace

bool EncodeStoredKey(const std::string& clear, std::string& stored, std::string& error) {
    if (clear.empty()) {
        error = "the key is empty";
        return false;
    }
    if (clear.find('\0') != std::string::npos) {
        error = "the key contains a NUL byte";
        return false;
    }
    if (clear.size() > kMaxKeyBytes) {
        error = TooLong(clear.size());
        return false;
    }
    char out[kBufferBytes] = {};
    _EncryptPassword(kPasswordSeed, clear.c_str(), out, int(sizeof out));
    stored = out;
    return true;
}

bool DecodeStoredKey(const std::string& stored, std::string& clear, std::string& error) {
    if (stored.empty() || stored.size() % 2 != 0) {
        error = "a stored key has an even number of letters, at least two";
        return false;
    }
    if (stored.size() / 2 > kMaxKeyBytes) {
        error = TooLong(stored.size() / 2);
        return false;
    }
    for (size_t i = 0; i < stored.size(); i += 2) {
        const char high = stored[i];
        const char low = stored[i + 1];
        if (!((high >= 'A' && high <= 'H') || (high >= '9' && high <= '@')) || low < 'A' ||
            low > 'P') {
            error = "not a stored key: unexpected letters at position " + std::to_string(i + 1);
            return false;
        }
    }
    char out[kBufferBytes] = {};
    _DecryptPassword(kPasswordSeed, stored.c_str(), out, int(kMaxKeyBytes) + 1);
    const std::string decoded(out, stored.size() / 2);
    std::string again;
    if (decoded.find('\0') != std::string::npos || !EncodeStoredKey(decoded, again, error) ||
        again != stored) {
        error = "not a stored key: it does not decode to a key that encodes back to it";
        return false;
    }
    clear = decoded;
    return true;
}

} // namespace notifykey
