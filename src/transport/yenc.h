// The line-safe encodings of the wire: base-64 with its own alphabet and no
// padding, and the yEnc-style escape coding of data frames. Results are
// malloc'd; callers free them (null only when memory runs out; yDecode aborts
// then, and on an escape cut off at the end of its text). Re-entrant.
#pragma once

extern "C" {
char* Encode64(const unsigned char* src, int n);
unsigned char* Decode64(const char* text, int* len);
int yEncode(const unsigned char* src, int n, char** out);
int yDecode(const char* text, int size, unsigned char** out);
}
