#include "kiro/web/FakePubSub.hpp"

namespace kiro::web::test {

FakePubSub::FakePubSub() = default;
FakePubSub::~FakePubSub() = default;

void FakePubSub::doPublish(const std::string& channel, PayloadInterface& payload) {
    handlePublishCallback(channel, payload);
}

std::unique_ptr<InternalSubscriberData> FakePubSub::doSubscribe(const std::string& /*channel*/,
                                                                CallbackType /*callback*/) {
    return nullptr;
}

}  // namespace kiro::web::test
