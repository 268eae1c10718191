#include <gtest/gtest.h>

#include <memory>

#include "Captures.hpp"
#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/PubSubFactory.hpp"

/// Steers every component onto one endpoint that delivers on the publishing thread.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    kiro::web::PubSubFactory::setPubSubCreationFcn(
        [] { return std::make_shared<kiro::web::test::FakePubSub>(); });
    support::ExpectNoSurprises::install();
    return RUN_ALL_TESTS();
}
