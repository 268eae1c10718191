#include <gtest/gtest.h>

#include "Captures.hpp"

/// The process-wide endpoint is the default one, over the host's message service.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    support::ExpectNoSurprises::install();
    return RUN_ALL_TESTS();
}
