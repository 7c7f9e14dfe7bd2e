#pragma once

#include <string>

namespace lbshow {

/// What of a foreign text may reach a terminal or a log: printable ASCII; every other byte comes
/// out as \xNN.
std::string harmless(const std::string& text);

}  // namespace lbshow
