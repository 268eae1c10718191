#include <memory>

#include "Captures.hpp"
#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/PubSubFactory.hpp"

/// Steers every component onto one endpoint that delivers on the publishing thread.
int main(int argc, char** argv) {
    kiro::web::PubSubFactory::setPubSubCreationFcn(
        [] { return std::make_shared<kiro::web::test::FakePubSub>(); });
    return support::runAllTests(argc, argv);
}
