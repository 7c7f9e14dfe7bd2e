#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Which keyword a word was meant to be. Pure.
namespace lbcheck {

/// The keywords that act directly inside these blocks, outermost first: {"health", "interface"} for
/// example. None where the loader knows no such nesting.
std::vector<std::string_view> keywords_inside(const std::vector<std::string>& blocks);

/// The one of the keywords that differs from the word by a slip or two, or by capital letters;
/// empty where none does, or two do alike.
std::string_view nearest(std::string_view word, const std::vector<std::string_view>& keywords);

/// "health { interface {", for each place where the keyword acts; empty for one that nowhere does.
std::string places_of(std::string_view keyword);

}  // namespace lbcheck
