#include <gtest/gtest.h>

#include "Storm.hpp"

namespace link_test {
namespace {

class Seeds : public testing::TestWithParam<std::uint64_t> {};

// The proofs play many more of them.
TEST_P(Seeds, NothingIsLostDoubledOrReorderedAndEveryWaitEnds) { playStorm(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Storms, Seeds, testing::Range<std::uint64_t>(1, 13));

}  // namespace
}  // namespace link_test
