#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "lbroute/weights.h"

namespace {

using lbroute::scaled_weights;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<int> scaled(std::vector<int> weights, int maximum = 256) {
    return scaled_weights(weights, maximum);
}

TEST(LbrouteWeights, weights_that_fit_stay) {
    EXPECT_THAT(scaled({1, 3}), ElementsAre(1, 3));
    EXPECT_THAT(scaled({100, 200}), ElementsAre(100, 200));
    EXPECT_THAT(scaled({256, 1}), ElementsAre(256, 1));
    EXPECT_THAT(scaled({}), IsEmpty());
}

TEST(LbrouteWeights, common_divisor_keeps_proportions_exactly) {
    EXPECT_THAT(scaled({3000, 1000}), ElementsAre(3, 1));
    EXPECT_THAT(scaled({1000}), ElementsAre(1));
    EXPECT_THAT(scaled({2147483647, 2147483647}), ElementsAre(1, 1));
}

TEST(LbrouteWeights, greatest_becomes_the_maximum_and_others_follow) {
    EXPECT_THAT(scaled({512, 255}), ElementsAre(256, 128));
    EXPECT_THAT(scaled({301, 200, 100}), ElementsAre(256, 170, 85));
    EXPECT_THAT(scaled({7, 5}, 3), ElementsAre(3, 2));
}

TEST(LbrouteWeights, none_becomes_zero) {
    EXPECT_THAT(scaled({1, 1000}), ElementsAre(1, 256));
    EXPECT_THAT(scaled({1, std::numeric_limits<int>::max()}), ElementsAre(1, 256));
}

}  // namespace
