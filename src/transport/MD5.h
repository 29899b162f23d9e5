// MD5 message digest (RFC 1321). Re-entrant.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace vel {

class MD5 {
public:
    MD5();
    void Update(const void* data, size_t len);
    void Final(unsigned char digest[16]);

private:
    void Transform(const unsigned char block[64]);
    uint32_t m_state[4];
    uint64_t m_count; // bytes hashed so far
    unsigned char m_buffer[64];
};

void MD5Digest(const void* data, size_t len, unsigned char digest[16]);

} // namespace vel
