#pragma once

#include <optional>
#include <string>

namespace shared {

/// What a file holds; none, with an errno in `error`, where it cannot be opened or read: a folder,
/// a process of /proc that has just ended. Never waits: a pipe reads as what is in it now. (A
/// stream iterator of the C++ library ends the program by an exception where reading fails.)
std::optional<std::string> text_of_file(const std::string& path, int& error);
/// The same where a file that cannot be read means as much as an empty one.
std::string text_of_file(const std::string& path);

}  // namespace shared
