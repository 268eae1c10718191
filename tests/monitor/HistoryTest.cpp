#include "History.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <string>

#include "kiroutils/Logger.hpp"

namespace {

using namespace monitor;

// A page may report errors of megabytes, as often as it likes.
TEST(History, IsBoundedInAllThatAPageCanFill) {
    History large;
    for (int i = 0; i < 40; ++i) large.add(std::string(3'000'000, 'x'));
    EXPECT_EQ(large.records().front().as_string().size(), History::kMostBytesOfOne + 3);
    std::size_t bytes = 0;
    for (const auto& record : large.records()) bytes += record.as_string().size();
    EXPECT_LE(bytes, History::kMostBytes);
    EXPECT_GT(bytes, History::kMostBytes / 2);
    EXPECT_EQ(large.leftOut(), 40 - large.records().size());
    // Nor does the host keep them meanwhile.
    for (int i = 0; i < 3; ++i) kiroutils::Logger::instance().log("DrawnowTimeout", "x");
    EXPECT_LE(kiroutils::Logger::instance().history("DrawnowTimeout").size(), 1U);

    History small;
    for (std::size_t i = 0; i < History::kMostRecords + 2; ++i) small.add(std::to_string(i));
    EXPECT_EQ(small.records().size(), History::kMostRecords);
    EXPECT_EQ(small.records().front(), "2");
    EXPECT_EQ(small.leftOut(), 2U);
}

}  // namespace
