#pragma once

#include <cstddef>
#include <string>

namespace lbcheck {

/// A file as it stands, or why it cannot be had.
struct Source {
    std::string bytes;
    std::string problem;  ///< not empty: `bytes` means nothing
};

/// Reads a whole file, a pipe too; a longer one than that is a problem.
Source read_source(const std::string& path, std::size_t most_bytes);

/// A text as a file that the loader can open, gone with this object.
class LoadableText {
  public:
    explicit LoadableText(const std::string& text);
    ~LoadableText();
    LoadableText(const LoadableText&) = delete;
    LoadableText& operator=(const LoadableText&) = delete;

    const std::string& path() const { return path_; }

  private:
    int file_;
    std::string path_;
};

}  // namespace lbcheck
