// These tests write login records and start look-alike desktop processes:
// they must only ever run inside the sandbox, never against the host.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    const char* inner = getenv("ND_SANDBOX_INNER");
    if (inner == nullptr || strcmp(inner, "1") != 0) {
        fprintf(stderr, "run this inside tests/support/sandbox\n");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
