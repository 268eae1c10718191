#include <gmock/gmock.h>

#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace kiro {
namespace {

#if defined(KIROWEB_CHECKED)
TEST(PreconditionsDeathTest, StopTheProgramWhereTheyAreBroken) {
    web::JSONPayload payload;
    web::binary::BinaryDataPayload blocks;
    const char* const nothing = nullptr;
    EXPECT_DEATH(payload.addDataToPayload("k", nothing), "broken precondition: value");
    EXPECT_DEATH(blocks.addDataToPayloadInternal(nothing, 1), "broken precondition: data");
    EXPECT_DEATH(static_cast<void>(web::subscribe(nullptr, "c", {})),
                 "broken precondition: pubsub");
}
#endif

}  // namespace
}  // namespace kiro
