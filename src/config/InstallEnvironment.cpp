#include "config/InstallEnvironment.h"

#include <cstring>
#include <mutex>

namespace {

// Replacing the install path is meant for start-up only; the mutex still
// keeps a late replacement from racing a reader.
std::mutex gInstallMutex;

std::string cached_install_path = "/usr/sxa/";
const std::string cached_platform = "GNU/Linux";
const std::string cached_product_identifier = "SXAClient";
const std::string cached_product_name_short = "Corvane Notify";
const std::string cached_product_name = "Corvane Notify Client for Linux";

// strncpy semantics: zero-padded to size, unterminated when the value fills it.
void CopyToBuffer(const std::string& value, char* buffer, int size) {
    if (buffer == nullptr || size <= 0) {
        return;
    }
    const size_t room = static_cast<size_t>(size);
    const size_t count = value.size() < room ? value.size() : room;
    std::memcpy(buffer, value.data(), count);
    std::memset(buffer + count, 0, room - count);
}

} // namespace

namespace vel {

void install_path(std::string& out) {
    std::lock_guard<std::mutex> lock(gInstallMutex);
    out = cached_install_path;
}

void install_platform(std::string& out) {
    out = cached_platform;
}
void install_product_identifier(std::string& out) {
    out = cached_product_identifier;
}
void install_product_short(std::string& out) {
    out = cached_product_name_short;
}
void install_product(std::string& out) {
    out = cached_product_name;
}

// Taken as given: no trailing "/" is added.
void initialise_install_details(const std::string& path) {
    std::lock_guard<std::mutex> lock(gInstallMutex);
    cached_install_path = path;
}

} // namespace vel

void vel_install_product_identifier(char* buffer, int size) {
    CopyToBuffer(cached_product_identifier, buffer, size);
}

void vel_install_product_short(char* buffer, int size) {
    CopyToBuffer(cached_product_name_short, buffer, size);
}

void vel_install_product(char* buffer, int size) {
    CopyToBuffer(cached_product_name, buffer, size);
}

extern "C" void vel_install_path(char* buffer, int size) {
    std::string path;
    vel::install_path(path);
    CopyToBuffer(path, buffer, size);
}

extern "C" void vel_install_platform(char* buffer, int size) {
    CopyToBuffer(cached_platform, buffer, size);
}

extern "C" void vel_initialise_install_details(const char* path) {
    if (path != nullptr) {
        vel::initialise_install_details(path);
    }
}
