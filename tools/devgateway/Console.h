// The devgateway program's command language: one command per line, run
// against a gateway. Used from one thread (the program's main thread).
#pragma once

#include "DevGateway.h"

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace devgw {

class Console {
public:
    explicit Console(DevGateway& gateway) : m_gateway(gateway) {}

    // Runs one line and writes its answer to out; false when the line asks to quit.
    bool Run(const std::string& line, std::ostream& out);

    static const char* Help();

private:
    unsigned NextSeq(unsigned connectionId);

    DevGateway& m_gateway;
    std::map<unsigned, unsigned> m_nextSeq; // per connection id, data frames sent
};

// Splits at blanks; "double quotes" group, and \n \r \t \0 \\ \" \xNN are
// unescaped everywhere.
std::vector<std::string> Tokenise(const std::string& line);
std::string Unescape(const std::string& text);
// Hex digits (blanks allowed between bytes) to bytes; false if malformed.
bool FromHex(const std::string& hex, std::string& bytes);

} // namespace devgw
