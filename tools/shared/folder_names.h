#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace shared {

/// The names of what lies in a folder, but "." and "..", in no order. `error` tells why they are
/// not all of them: also what reading meets on the way, for which a loop over the C++ library's
/// iterator throws.
std::vector<std::string> names_in(const std::string& folder, std::error_code& error);

}  // namespace shared
