#include "lbroute/weights.h"

#include <algorithm>
#include <cstdint>
#include <numeric>

namespace lbroute {

std::vector<int> scaled_weights(std::span<const int> weights, int maximum) {
    std::vector<int> scaled(weights.begin(), weights.end());
    if (scaled.empty() || std::ranges::max(scaled) <= maximum) {
        return scaled;
    }
    const int divisor = std::accumulate(scaled.begin(), scaled.end(), 0, std::gcd<int, int>);
    std::ranges::transform(scaled, scaled.begin(), [divisor](int w) { return w / divisor; });
    const std::int64_t greatest = std::ranges::max(scaled);
    if (greatest <= maximum) {
        return scaled;
    }
    std::ranges::transform(scaled, scaled.begin(), [greatest, maximum](std::int64_t weight) {
        const std::int64_t nearest = (weight * maximum + greatest / 2) / greatest;
        return static_cast<int>(std::max<std::int64_t>(nearest, 1));
    });
    return scaled;
}

}  // namespace lbroute
