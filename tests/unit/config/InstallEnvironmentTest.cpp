#include "config/InstallEnvironment.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

struct Fact {
    void (*getter)(std::string&);
    void (*buffer)(char*, int);
    const char* value;
};

TEST(InstallEnvironment, GettersAndStrncpyStyleBufferForms) {
    const std::vector<Fact> facts = {
        {vel::install_path, vel_install_path, "/usr/sxa/"},
        {vel::install_platform, vel_install_platform, "GNU/Linux"},
        {vel::install_product_identifier, vel_install_product_identifier, "SXAClient"},
        {vel::install_product_short, vel_install_product_short, "Corvane Notify"},
        {vel::install_product, vel_install_product, "Corvane Notify Client for Linux"},
    };
    for (const auto& fact : facts) {
        std::string out = "old";
        fact.getter(out);
        EXPECT_EQ(out, fact.value);
        const int length = static_cast<int>(std::strlen(fact.value));
        for (int size : {0, 1, length, length + 1, 64}) {
            char buffer[65];
            std::memset(buffer, 'z', sizeof(buffer));
            fact.buffer(buffer, size);
            const int copied = std::min(length, size);
            // Zero-padded up to size, unterminated when the value fills it.
            std::string expected =
                std::string(fact.value, copied) + std::string(size - copied, '\0');
            EXPECT_EQ(std::string(buffer, size), expected) << fact.value << " " << size;
            EXPECT_EQ(buffer[size], 'z') << fact.value << " wrote past " << size;
        }
    }
}

TEST(InstallEnvironment, InstallPathIsReplacedAsGiven) {
    std::string path;
    vel::initialise_install_details("/opt/x");
    vel::install_path(path);
    EXPECT_EQ(path, "/opt/x");

    vel_initialise_install_details("/srv/y/");
    vel_initialise_install_details(nullptr); // ignored
    char buffer[10];
    vel_install_path(buffer, sizeof(buffer));
    EXPECT_EQ(std::string(buffer, sizeof(buffer)), std::string("/srv/y/\0\0\0", 10));

    vel::initialise_install_details("/usr/sxa/");
}

} // namespace
