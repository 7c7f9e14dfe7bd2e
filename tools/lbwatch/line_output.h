#pragma once

#include <string>

namespace lbwatch {

/// Lines for whoever reads a descriptor, the standard output, say. What it does not take (a full
/// disk) waits in memory, up to a bound, and is offered again. Does not own the descriptor. One
/// thread.
class LineOutput {
  public:
    explicit LineOutput(int descriptor) : descriptor_(descriptor) {}

    void add(const std::string& line);
    /// Writes what waits. The outcome shows in those below.
    void flush();

    bool is_waiting() const { return !waiting_.empty(); }
    /// Nobody reads any more, or more waits than is kept: nothing more will be told.
    bool is_gone() const { return is_gone_; }
    /// What was not written and why, for people; empty where nothing waits. A pipe whose reader has
    /// gone is no failure: whoever closed it knows.
    std::string problem() const;

    /// More than a day of flapping makes.
    static constexpr std::size_t most_bytes = std::size_t{4} << 20;

  private:
    int descriptor_;
    std::string waiting_;
    int error_ = 0;  ///< errno of the latest write that failed
    bool is_gone_ = false;
};

}  // namespace lbwatch
