#pragma once

#include <string>
#include <vector>

/// Splits a line into words.
///
/// Tabs count as four blanks, the first line feed is dropped, and runs of the delimiter give no
/// empty words. The delimiter is replaced by "~" first, so a "~" in the text separates words too
/// (B27). Carriage returns stay on their word (B28).
class StrProc {
  public:
    StrProc(const std::string& text, const std::string& delim);

    /// Word `i`, or an empty string where there is none.
    std::string get(int i) const;
    /// The words from `from` up to but not including `to`, joined by single blanks.
    std::string get(int from, int to) const;
    std::vector<std::string> get() const { return tokens; }

    std::vector<std::string> tokens;
};
