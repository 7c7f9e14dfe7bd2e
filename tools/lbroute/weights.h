#pragma once

#include <span>
#include <vector>

/// The weights of one route's next hops within the range that their taker knows.
namespace lbroute {

/// Weights of 1 to `maximum` in the proportions of the given ones, which are all above 0, in the
/// same order. Weights that fit stay as they are. Others lose their common divisor; where that is
/// not enough, the greatest becomes `maximum` and the others follow it to the nearest whole
/// number, none below 1: a next hop of little weight gets a little more than its share, never none.
std::vector<int> scaled_weights(std::span<const int> weights, int maximum);

}  // namespace lbroute
