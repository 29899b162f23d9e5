// devgateway: the development gateway as a program. Prints the port it
// listens on and every request it records, and takes commands on standard
// input. The main thread reads commands; the gateway's IO thread prints its
// events; gOutMutex keeps their lines whole.
#include "Console.h"
#include "DevGateway.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

namespace {

std::mutex gOutMutex;

void Print(const std::string& text) {
    std::lock_guard<std::mutex> lock(gOutMutex);
    std::cout << text;
    if (text.empty() || text.back() != '\n') {
        std::cout << '\n';
    }
    std::cout.flush();
}

const char kUsage[] =
    "usage: devgateway [options]\n"
    "A development gateway on 127.0.0.1: answers the client's registration, prints\n"
    "every request it receives, serves files over plain HTTP GET on the same port,\n"
    "and sends what you type on standard input to the connected clients.\n"
    "\n"
    "options:\n"
    "  --port N               port to listen on (default 0: any free one, printed)\n"
    "  --cmpi S               keep-alive period in seconds given in the OPEN_REPLY\n"
    "  --protocol-version V   PROTOCOL_VER of the OPEN_REPLY (default 1.1; \"\" leaves it out)\n"
    "  --server-version V     SERVER_VERSION of the OPEN_REPLY\n"
    "  --result N             RESULT of the OPEN_REPLY (default 0)\n"
    "  --failed-reason N      adds FAILED_REASON=N to the OPEN_REPLY\n"
    "  --no-open              leave OPEN unanswered\n"
    "  --ack                  answer every other request with CMD=ACK\n"
    "  --serve PATH=FILE      answer GET /PATH with the contents of FILE (repeatable)\n"
    "  --quiet                print only the listening line and command answers\n"
    "  --help                 this text\n"
    "\n";

bool ReadFile(const std::string& path, std::string& content) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    std::ostringstream data;
    data << file.rdbuf();
    content = data.str();
    return true;
}

bool ToNumber(const std::string& text, long& value) {
    char* end = nullptr;
    value = std::strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0';
}

int Fail(const std::string& message) {
    std::cerr << "devgateway: " << message << "\n(try --help)\n";
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    devgw::Options options;
    long port = 0;
    bool quiet = false;
    std::map<std::string, std::string> files;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool hasValue = false;
        if (size_t eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
            hasValue = true;
        }
        auto takeValue = [&]() {
            if (!hasValue && i + 1 < argc) {
                value = argv[++i];
                hasValue = true;
            }
            return hasValue;
        };
        long number = 0;
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage << devgw::Console::Help();
            return 0;
        } else if (arg == "--quiet") {
            quiet = true;
        } else if (arg == "--no-open") {
            options.answerOpen = false;
        } else if (arg == "--ack") {
            options.ackRequests = true;
        } else if (arg == "--port") {
            if (!takeValue() || !ToNumber(value, port) || port < 0 || port > 65535) {
                return Fail("--port needs a number from 0 to 65535");
            }
        } else if (arg == "--cmpi") {
            if (!takeValue()) {
                return Fail("--cmpi needs a value");
            }
            options.cmpi = value;
        } else if (arg == "--protocol-version") {
            if (!takeValue()) {
                return Fail("--protocol-version needs a value");
            }
            options.protocolVersion = value;
        } else if (arg == "--server-version") {
            if (!takeValue()) {
                return Fail("--server-version needs a value");
            }
            options.serverVersion = value;
        } else if (arg == "--result" || arg == "--failed-reason") {
            if (!takeValue() || !ToNumber(value, number) || number < -0x7FFFFFFF ||
                number > 0x7FFFFFFF) {
                return Fail(arg + " needs a number");
            }
            (arg == "--result" ? options.result : options.failedReason) = int(number);
        } else if (arg == "--serve") {
            size_t eq = takeValue() ? value.find('=') : std::string::npos;
            std::string content;
            if (eq == std::string::npos) {
                return Fail("--serve needs PATH=FILE");
            }
            if (!ReadFile(value.substr(eq + 1), content)) {
                return Fail("cannot read " + value.substr(eq + 1));
            }
            files[value.substr(0, eq)] = content;
        } else {
            return Fail("unknown option " + arg);
        }
    }

    devgw::DevGateway gateway(options);
    for (const auto& [path, content] : files) {
        gateway.ServeFile(path, content);
    }
    if (!quiet) {
        gateway.SetEventSink(Print);
    }
    int bound = gateway.Start(uint16_t(port));
    if (bound < 0) {
        std::cerr << "devgateway: cannot listen on 127.0.0.1:" << port << "\n";
        return 1;
    }
    Print("listening on 127.0.0.1:" + std::to_string(bound));

    devgw::Console console(gateway);
    std::string line;
    while (std::getline(std::cin, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        std::ostringstream answer;
        bool more = console.Run(line, answer);
        if (!answer.str().empty()) {
            Print(answer.str());
        }
        if (!more) {
            break;
        }
    }
    gateway.Stop();
    return 0;
}
