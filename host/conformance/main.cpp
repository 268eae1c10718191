#include <gtest/gtest.h>

#include "HostAdapter.hpp"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    conformance::adoptSignalThread();
    return RUN_ALL_TESTS();
}
