#include "Console.h"

#include "GatewayWire.h"

#include <cctype>
#include <cstdlib>

namespace devgw {

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = char(std::tolower(static_cast<unsigned char>(c)));
    return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

// text[i] is a backslash; appends what the escape stands for and returns the
// index after it. An unknown escape stands for the character itself.
size_t TakeEscape(const std::string& text, size_t i, std::string& out) {
    if (i + 1 >= text.size()) {
        out += '\\';
        return i + 1;
    }
    char c = text[i + 1];
    switch (c) {
    case 'n':
        out += '\n';
        return i + 2;
    case 'r':
        out += '\r';
        return i + 2;
    case 't':
        out += '\t';
        return i + 2;
    case '0':
        out += '\0';
        return i + 2;
    case 'x':
        if (i + 3 < text.size() && HexDigit(text[i + 2]) >= 0 && HexDigit(text[i + 3]) >= 0) {
            out += char(HexDigit(text[i + 2]) * 16 + HexDigit(text[i + 3]));
            return i + 4;
        }
        break;
    default:
        break;
    }
    out += c;
    return i + 2;
}

bool ToUnsigned(const std::string& text, uint64_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 19) {
        return false;
    }
    value = std::strtoull(text.c_str(), nullptr, 10);
    return true;
}

bool ToU32(const std::string& text, unsigned& value) {
    uint64_t wide = 0;
    if (!ToUnsigned(text, wide) || wide > 0xFFFFFFFFu) {
        return false;
    }
    value = unsigned(wide);
    return true;
}

bool ToInt(const std::string& text, int& value) {
    bool negative = !text.empty() && text[0] == '-';
    uint64_t wide = 0;
    if (!ToUnsigned(negative ? text.substr(1) : text, wide) || wide > 0x7FFFFFFF) {
        return false;
    }
    value = negative ? -int(wide) : int(wide);
    return true;
}

// The line after its first word and the blanks that follow it.
std::string RestOfLine(const std::string& line) {
    size_t word = line.find_first_not_of(" \t");
    size_t gap = line.find_first_of(" \t", word);
    size_t rest = gap == std::string::npos ? std::string::npos : line.find_first_not_of(" \t", gap);
    return rest == std::string::npos ? std::string() : line.substr(rest);
}

} // namespace

std::string Unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == '\\') {
            i = TakeEscape(text, i, out);
        } else {
            out += text[i++];
        }
    }
    return out;
}

std::vector<std::string> Tokenise(const std::string& line) {
    std::vector<std::string> tokens;
    std::string current;
    bool inToken = false;
    bool quoted = false;
    for (size_t i = 0; i < line.size();) {
        char c = line[i];
        if (c == '\\') {
            i = TakeEscape(line, i, current);
            inToken = true;
        } else if (c == '"') {
            quoted = !quoted;
            inToken = true;
            ++i;
        } else if (!quoted && (c == ' ' || c == '\t')) {
            if (inToken) {
                tokens.push_back(current);
                current.clear();
                inToken = false;
            }
            ++i;
        } else {
            current += c;
            inToken = true;
            ++i;
        }
    }
    if (inToken) {
        tokens.push_back(current);
    }
    return tokens;
}

bool FromHex(const std::string& hex, std::string& bytes) {
    bytes.clear();
    int high = -1;
    for (char c : hex) {
        if (c == ' ' || c == ':') {
            if (high >= 0) {
                return false;
            }
            continue;
        }
        int digit = HexDigit(c);
        if (digit < 0) {
            return false;
        }
        if (high < 0) {
            high = digit;
        } else {
            bytes += char(high * 16 + digit);
            high = -1;
        }
    }
    return high < 0;
}

const char* Console::Help() {
    return "commands (texts may be \"quoted\"; \\n \\r \\t \\0 \\\\ \\\" \\xNN are unescaped):\n"
           "  message <id> <text> [<timeout>|<caption> [<flags>]]  send a notification\n"
           "  config-update <seconds>            set the client's keep-alive period\n"
           "  fileinfo <link> <fname> <lwt> [size]  send a GETFILEINFO_REPLY\n"
           "  connect <id> <name> <addr>         open a session (CONNECT)\n"
           "  hangup <id>                        end a session (HANGUP)\n"
           "  close                              end every session (CLOSE)\n"
           "  ncdata-a <cid> <hex>               data frame in the HTTP form\n"
           "  ncdata-b <cid> <hex>               data frame in the bare form\n"
           "  body <escaped text>                send a body wrapped in a 200 response\n"
           "  raw <escaped text>                 send bytes as they are\n"
           "  requests                           list the recorded requests\n"
           "  clients                            list the connected clients\n"
           "  drop                               reset every client connection\n"
           "  help                               this list\n"
           "  quit                               stop (so does the end of input)\n";
}

unsigned Console::NextSeq(unsigned connectionId) {
    unsigned& next = m_nextSeq[connectionId];
    return ++next;
}

bool Console::Run(const std::string& line, std::ostream& out) {
    const std::vector<std::string> args = Tokenise(line);
    if (args.empty()) {
        return true;
    }
    const std::string& command = args[0];
    const size_t n = args.size();
    auto report = [&out](bool sent) { out << (sent ? "sent" : "not sent: no client") << "\n"; };
    auto usage = [&out](const char* text) { out << "usage: " << text << "\n"; };

    int id = 0;
    unsigned number = 0;
    uint64_t lwt = 0, size = 0;
    std::string bytes;
    if (command == "quit" || command == "exit") {
        return false;
    } else if (command == "help") {
        out << Help();
    } else if (command == "message") {
        if (n < 3 || n > 5 || !ToInt(args[1], id)) {
            usage("message <id> <text> [<timeout>|<caption> [<flags>]]");
        } else {
            report(m_gateway.SendNotification(id, args[2], n > 3 ? args[3] : "",
                                              n > 4 ? args[4] : ""));
        }
    } else if (command == "config-update") {
        if (n != 2 || !ToU32(args[1], number)) {
            usage("config-update <seconds>");
        } else {
            report(m_gateway.SendConfigUpdate(number));
        }
    } else if (command == "fileinfo") {
        if (n < 4 || n > 5 || !ToUnsigned(args[3], lwt) || (n == 5 && !ToUnsigned(args[4], size))) {
            usage("fileinfo <link> <fname> <lwt> [size]");
        } else {
            report(m_gateway.SendFileInfoReply(args[1], args[2], lwt, size));
        }
    } else if (command == "connect") {
        if (n != 4 || !ToU32(args[1], number)) {
            usage("connect <id> <name> <addr>");
        } else {
            m_nextSeq.erase(number);
            report(m_gateway.SendBody("CMD=CONNECT\nCONNECTION_ID=" + args[1] + "\nCONTROL_NAME=" +
                                      args[2] + "\nCONTROL_ADDR=" + args[3] + "\n"));
        }
    } else if (command == "hangup") {
        if (n != 2 || !ToU32(args[1], number)) {
            usage("hangup <id>");
        } else {
            report(m_gateway.SendBody("CMD=HANGUP\nCONNECTION_ID=" + args[1] + "\n"));
        }
    } else if (command == "close") {
        report(m_gateway.SendBody("CMD=CLOSE\n"));
    } else if (command == "ncdata-a" || command == "ncdata-b") {
        if (n < 3 || !ToU32(args[1], number) || !FromHex(RestOfLine(RestOfLine(line)), bytes)) {
            usage("ncdata-a|ncdata-b <cid> <hex>");
        } else if (command == "ncdata-a") {
            report(m_gateway.SendNCDataA(number, bytes, NextSeq(number)));
        } else {
            report(m_gateway.SendNCDataB(number, bytes, NextSeq(number)));
        }
    } else if (command == "body") {
        report(m_gateway.SendBody(Unescape(RestOfLine(line))));
    } else if (command == "raw") {
        report(m_gateway.SendRaw(Unescape(RestOfLine(line))));
    } else if (command == "requests") {
        const auto requests = m_gateway.Requests();
        for (const auto& request : requests) {
            out << wire::Describe(request) << "\n";
        }
        out << requests.size() << " request(s)\n";
    } else if (command == "clients") {
        const auto ids = m_gateway.ClientIds();
        out << ids.size() << " client(s)";
        for (int client : ids) {
            out << " " << (client ? std::to_string(client) : "(silent)");
        }
        out << "\n";
    } else if (command == "drop") {
        m_gateway.DropClients();
        out << "dropped\n";
    } else {
        out << "unknown command \"" << wire::Escape(command) << "\"; try help\n";
    }
    return true;
}

} // namespace devgw
