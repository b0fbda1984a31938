#include "common/container/ByteArray.h"

#include <gtest/gtest.h>

#include <stdexcept>

using Common::Container::ByteArray;

namespace {

TEST(ByteArrayTest, BoundsResizeCopyAndMove)
{
    ByteArray array;
    EXPECT_EQ(array.data(), nullptr);
    EXPECT_THROW(array.at(0), std::out_of_range);
    for (uint8_t i = 0; i < 8; ++i) {
        array.resize(i + 1u)[i] = i; // every growth keeps what was there
    }
    array.resize(4);
    EXPECT_THROW(array.at(4), std::out_of_range);
    uint8_t* const grown = array.resize(16);
    array.at(15) = 9;
    EXPECT_THROW(array.at(16), std::out_of_range);
    EXPECT_EQ(array.resize(16), grown);
    EXPECT_EQ(std::vector<uint8_t>(grown, grown + 4), (std::vector<uint8_t>{0, 1, 2, 3}));

    ByteArray copy(array), assigned;
    assigned = array;
    array.at(0) = 7;
    EXPECT_EQ(copy.at(0), 0);
    EXPECT_EQ(assigned.at(0), 0);
    EXPECT_EQ(assigned.at(15), 9);
    EXPECT_EQ(assigned.size(), 16u);
    assigned = std::move(array);
    EXPECT_EQ(array.size() + (array.data() != nullptr), 0u);
    EXPECT_EQ(assigned.at(0), 7);
    EXPECT_EQ(assigned.resize(0), nullptr);
    EXPECT_EQ(assigned.size() + (assigned.data() != nullptr), 0u);
}

} // namespace
