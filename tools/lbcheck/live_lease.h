#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace lbcheck {

/// When the last lease in a DHCP client's database ends, in seconds since the epoch, by its
/// "expire" lines (dhclient.leases(5)): "expire 6 2026/11/21 18:00:00;", in UTC, or
/// "expire epoch 1795284000;". Nothing where there is none, or it never ends. Pure.
std::optional<std::int64_t> end_of_lease(const std::string& database);

}  // namespace lbcheck
