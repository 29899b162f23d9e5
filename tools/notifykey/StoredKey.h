// The gateway key as config.dat stores it ("gatewaykey="): the clear key
// obfuscated with the seed for stored keys. Pure functions; re-entrant.
#pragma once

#include <string>

namespace notifykey {

// The daemon decodes the stored key into a 16-byte buffer: 15 bytes and a NUL.
constexpr size_t kMaxKeyBytes = 15;

// Refuses an empty key, a NUL byte, or more than kMaxKeyBytes bytes.
bool EncodeStoredKey(const std::string& clear, std::string& stored, std::string& error);
// Refuses anything that encoding a valid key could not have produced.
bool DecodeStoredKey(const std::string& stored, std::string& clear, std::string& error);

} // namespace notifykey
