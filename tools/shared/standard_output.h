#pragma once

#include <string_view>

namespace shared {

/// Ends what a program tells on std::cout. True where all of it has left; else says why on standard
/// error, in the program's name. A pipe whose reader has gone is nothing to complain of.
bool end_output(std::string_view program);

}  // namespace shared
