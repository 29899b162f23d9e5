// Reversible obfuscation of short passwords into capital letters. The seed
// used for stored gateway keys is kPasswordSeed. Re-entrant.
#pragma once

#include <string>

constexpr int kPasswordSeed = 91;

extern "C" {
void _EncryptPassword(int seed, const char* plain, char* out, int size);
void _DecryptPassword(int seed, const char* cipher, char* out, int size);
}

// The clear form of a stored gateway key, as every link holds it: read into
// 16 bytes, so at most 15 characters. Kept: a longer key is not cut to its
// first 15 characters but decoded with the count cut, which changes the first.
inline std::string ClearGatewayKey(const char* stored) {
    char key[16] = {};
    _DecryptPassword(kPasswordSeed, stored != nullptr ? stored : "", key, sizeof key);
    return key;
}
