// tests/zmailer/main.cpp: the zmailer group's tests run inside the installed
// view (see ZmailerSite.h), entered before any thread starts and left at
// the end.
#include <cstdio>

#include <gtest/gtest.h>

#include "ZmailerSite.h"

using namespace zmailer_test;

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    try {
        EnterInstalledView(CMAKE_COMMAND, BUILD_DIR);
    } catch (const std::exception& failure) {
        LeaveInstalledView();
        std::fprintf(stderr, "zmailer_tests: %s\n", failure.what());
        return 1;
    }
    const int status = RUN_ALL_TESTS();
    LeaveInstalledView();
    return status;
}
