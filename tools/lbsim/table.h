#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lbsim {

/// Columns that are as wide as their widest cell: the first ones flush left, the others right.
class Table {
  public:
    explicit Table(std::vector<std::string> head, std::size_t flush_left);
    /// As many cells as the head has.
    void add(std::vector<std::string> cells);
    std::string text() const;

  private:
    std::vector<std::vector<std::string>> lines_;
    std::size_t flush_left_;
};

/// "12.5 s".
std::string shown_seconds(std::int64_t duration_us);

}  // namespace lbsim
