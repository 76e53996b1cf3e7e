// main() of every test binary: the logging library gets a scratch root before
// any test runs, so no test touches the host's /dev/shm or configuration.
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "tests/support/kmod_standin.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    char pattern[] = "/tmp/vt_test_XXXXXX";
    const char *root = mkdtemp(pattern);
    if (root == nullptr) {
        perror("mkdtemp");
        return 2;
    }
    vt_test::InstallLoggingStandin(root, false);
    int rc = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return rc;
}
