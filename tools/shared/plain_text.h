#pragma once

#include <string>

/// Texts as they may reach a terminal. Pure.
namespace shared {

/// Control characters, and all beyond ASCII, come out as \xNN: the texts are those of a foreign
/// file.
std::string harmless(const std::string& text);

/// A dash where there is nothing.
std::string or_dash(const std::string& text);

}  // namespace shared
