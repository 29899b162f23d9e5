// Reflected CRC-32 (polynomial 0xEDB88320), no initial value or final
// inversion applied here. Re-entrant.
#pragma once

#include <stdint.h>

extern "C" uint32_t CRC32_Update(uint32_t crc, const void* p, int n);
