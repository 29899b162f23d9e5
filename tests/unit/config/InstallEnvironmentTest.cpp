#include "config/InstallEnvironment.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// The C forms copy like strncpy: zero-padded, unterminated when the value fills the buffer.
TEST(InstallEnvironment, ValuesAndTheirBufferForms) {
    std::string path = "old";
    vel::install_product(path);
    EXPECT_EQ(path, "Corvane Notify Client for Linux");
    vel::install_product_identifier(path);
    EXPECT_EQ(path, "SXAClient");
    for (int size : {0, 4, 9, 10}) {
        char buffer[11];
        std::memset(buffer, 'z', sizeof buffer);
        vel_install_product_identifier(buffer, size);
        const std::string expected = std::string("SXAClient\0", 10).substr(0, size_t(size));
        EXPECT_EQ(std::string(buffer, size_t(size) + 1), expected + "z") << size;
    }

    vel_initialise_install_details("/srv/y/");
    vel_initialise_install_details(nullptr); // ignored
    char buffer[10];
    vel_install_path(buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("/srv/y/\0\0\0", 10));
    vel::initialise_install_details("/opt/x"); // taken as given, no slash added
    vel::install_path(path);
    EXPECT_EQ(path, "/opt/x");
    vel::initialise_install_details("/usr/sxa/");
}

} // namespace
