// notifykey: turns a clear gateway key into the form config.dat stores as
// "gatewaykey=", and back with --decode. Single-threaded.
#include "StoredKey.h"

#include <iostream>
#include <optional>
#include <string>

namespace {

constexpr int kExitInvalid = 1;
constexpr int kExitUsage = 2;

const char kUsage[] = "usage: notifykey [--decode] [--] [KEY]\n"
                      "\n"
                      "Prints the stored form of a clear gateway key, the text to put after\n"
                      "\"gatewaykey=\" in the [gateway] section of /usr/sxa/daemon/config.dat.\n"
                      "Without KEY it reads the key as one line from standard input, which keeps\n"
                      "it out of the shell history and the process list:\n"
                      "\n"
                      "    notifykey 'secret'\n"
                      "    read -rs key && printf '%s\\n' \"$key\" | notifykey\n"
                      "\n"
                      "A key is 1 to 15 bytes: the daemon reads no more. The case of its letters\n"
                      "does not matter: the daemon upper-cases the key before using it.\n"
                      "\n"
                      "options:\n"
                      "  -d, --decode   turn a stored key back into the clear key\n"
                      "  -h, --help     this text\n"
                      "  --             end of options (for a key that begins with \"-\")\n"
                      "\n"
                      "exit status: 0 done, 1 the key was refused, 2 usage error\n";

int UsageError(const std::string& message) {
    std::cerr << "notifykey: " << message << "\n(notifykey --help shows the usage)\n";
    return kExitUsage;
}

} // namespace

int main(int argc, char** argv) {
    bool decode = false;
    bool optionsEnded = false;
    std::optional<std::string> key;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (!optionsEnded && (arg == "-h" || arg == "--help")) {
            std::cout << kUsage;
            return 0;
        }
        if (!optionsEnded && (arg == "-d" || arg == "--decode")) {
            decode = true;
        } else if (!optionsEnded && arg == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && arg.size() > 1 && arg[0] == '-') {
            return UsageError("unknown option " + arg);
        } else if (key) {
            return UsageError("give one key only");
        } else {
            key = arg;
        }
    }
    if (!key) {
        std::string line;
        if (!std::getline(std::cin, line)) {
            return UsageError("no key given, as an argument or on standard input");
        }
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        key = line;
    }

    std::string result;
    std::string error;
    const bool ok = decode ? notifykey::DecodeStoredKey(*key, result, error)
                           : notifykey::EncodeStoredKey(*key, result, error);
    if (!ok) {
        std::cerr << "notifykey: " << error << "\n";
        return kExitInvalid;
    }
    std::cout << result << "\n";
    return 0;
}
