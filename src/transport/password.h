// Reversible obfuscation of short passwords into capital letters. The seed
// used for stored gateway keys is kPasswordSeed. Re-entrant.
#pragma once

constexpr int kPasswordSeed = 91;

extern "C" {
void _EncryptPassword(int seed, const char* plain, char* out, int size);
void _DecryptPassword(int seed, const char* cipher, char* out, int size);
}
