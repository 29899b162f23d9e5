// Assertions of the lock classes and the trace helper. They stay on in every
// build type (NDEBUG included): a misused lock must abort, not run on. Any
// thread; no lock.
#pragma once

namespace vel {

// Prints "<program>: <source>:<line>: <function>: Assertion `<text>' failed."
// to standard error, as the C library's assert does, then aborts.
[[noreturn]] void AssertionFailed(const char* text, const char* source, unsigned line,
                                  const char* function);

} // namespace vel

// `text` is the assertion's message, byte for byte; `source` names the unit.
#define VEL_ASSERT(condition, text, source)                                                        \
    ((condition) ? void(0) : ::vel::AssertionFailed(text, source, __LINE__, __PRETTY_FUNCTION__))
