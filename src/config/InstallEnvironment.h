// Install facts: install directory, platform and product names. Read from any
// thread; the install path is meant to be replaced at start-up only, and a
// module-private mutex guards it all the same.
#pragma once

#include <string>

namespace vel {

void install_path(std::string& out);
void install_platform(std::string& out);
void install_product_identifier(std::string& out);
void install_product_short(std::string& out);
void install_product(std::string& out);
void initialise_install_details(const std::string& path);

} // namespace vel

// strncpy-style copies into a caller's buffer: zero-padded, and without a
// terminator when the value fills the buffer.
void vel_install_product_identifier(char* buffer, int size);
void vel_install_product_short(char* buffer, int size);
void vel_install_product(char* buffer, int size);

extern "C" {
void vel_install_path(char* buffer, int size);
void vel_install_platform(char* buffer, int size);
void vel_initialise_install_details(const char* path);
}
