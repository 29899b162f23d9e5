#include "host/PipeSubprocess.h"

#include <cstdio>
#include <cstring>

namespace vel {

int ReadCommandOutput(const std::string& command, std::string& text) {
    text.clear();
    // "e": the pipe must not leak into children that other threads start.
    FILE* pipe = popen(command.c_str(), "re");
    if (pipe == nullptr) {
        return -1;
    }
    char buffer[kCommandOutputLimit + 1] = {0};
    std::size_t got = fread(buffer, 1, kCommandOutputLimit, pipe);
    text.assign(buffer, strnlen(buffer, got));
    pclose(pipe);
    return 0;
}

int PipeSubprocess(const std::string& command, std::string& output) {
    int result = ReadCommandOutput(command, output);
    if (!output.empty()) {
        output.pop_back(); // meant to be the line feed; dropped whatever it is
    }
    return result;
}

} // namespace vel
