// Reader of the settings file format ("config.dat"): sections, key=value lines
// and a running checksum of the significant lines. Main thread only.
#pragma once

#include <istream>
#include <string>

#include "config/Preferences.h"

extern "C" const unsigned short crctab[32];

// Checksum of linelen 16-bit little-endian words at p, chained from seed.
unsigned long nc_checksum(unsigned char* p, short linelen, unsigned long seed);

namespace vel {

// Reads every line of input into prefs (null: checksum only). Returns true at
// the end of the stream or at a line longer than 1024 bytes.
bool ReadLines(std::istream& input, unsigned long& checksum, Preferences* prefs,
               unsigned long checksum_mask);

// Stores one line (already stripped of leading blanks and its line ending).
bool ParseLine(Preferences& prefs, const std::string& line, std::string& section);

} // namespace vel
