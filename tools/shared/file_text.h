#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include "base/fd.h"

namespace shared {

/// What a file holds; none, with an errno in `error`, where it cannot be opened or read: a folder,
/// a process of /proc that has just ended. Never waits: a pipe reads as what is in it now. (A
/// stream iterator of the C++ library ends the program by an exception where reading fails.)
std::optional<std::string> text_of_file(const std::string& path, int& error);
/// The same where a file that cannot be read means as much as an empty one.
std::string text_of_file(const std::string& path);

/// Of a regular file of so many bytes at most; else EISDIR, EINVAL (a pipe, a device) or EFBIG.
std::optional<std::string> text_of_regular_file(const std::string& path, std::size_t most,
                                                int& error);
/// What is left to read of an open file; EFBIG where that is more.
std::optional<std::string> rest_of(const Fd& file, std::size_t most, int& error);

/// Fills the memory from a file, as far as what is left of it reaches: so many bytes; none, with an
/// errno, where it cannot be read.
std::optional<std::size_t> fill(const Fd& file, std::span<std::byte> memory, int& error);

}  // namespace shared
