#include <gtest/gtest.h>

#include "HostAdapter.hpp"
#include "Watchdog.hpp"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // A host has threads of its own, which a plain fork would leave behind.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    conformance::adoptSignalThread();
    testing::UnitTest::GetInstance()->listeners().Append(new conformance::Watchdog);  // owned there
    return RUN_ALL_TESTS();
}
