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
    char buffer[11] = "zzzzzzzzzz";
    vel_install_product_identifier(buffer, 9); // "SXAClient" fills it: no NUL
    EXPECT_EQ(std::string(buffer), "SXAClientz");

    vel_initialise_install_details("/srv/y/");
    vel_initialise_install_details(nullptr); // ignored
    vel_install_path(buffer, 10);
    EXPECT_EQ(std::string(buffer, 10), std::string("/srv/y/\0\0\0", 10));
    vel::initialise_install_details("/opt/x"); // taken as given, no slash added
    vel::install_path(path);
    EXPECT_EQ(path, "/opt/x");
    vel::initialise_install_details("/usr/sxa/");
}

} // namespace
