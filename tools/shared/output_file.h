#pragma once

#include <string>
#include <string_view>

namespace shared {

/// Writes a file that the caller named; what is wrong, for people, empty when all is well.
///
/// In a folder where others write too, somebody else's symbolic link in the file's place is not
/// followed: it would turn what is written against another file. One of root or of the caller is.
/// A pipe that nobody reads is not waited for.
std::string write_output(const std::string& path, std::string_view text);

}  // namespace shared
