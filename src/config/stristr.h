// Case-insensitive substring search. Re-entrant.
#pragma once

extern "C" const char* stristr(const char* haystack, const char* needle);
