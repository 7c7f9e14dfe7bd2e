#pragma once

#include <set>
#include <string>
#include <vector>

#include "lbcheck/findings.h"

/// Blocks that do not begin or do not end, and brackets that end nothing. Pure.
namespace lbcheck {

/// A line's words, or one of its closing brackets.
struct Statement {
    int line = 0;
    int indentation = 0;
    std::vector<std::string> words{};
    bool opens = false;         ///< a block begins behind it
    bool closes = false;        ///< it is a "}"
    bool is_first = false;      ///< in its line
    bool is_inserted = false;   ///< a bracket that was missing; it stands before `line`
    bool is_taken_out = false;  ///< nothing is left of it

    std::string text() const;
};

/// Opens the blocks whose bracket is missing: what has one by its keyword and is indented less than
/// the line behind it. In a text without any indentation, those that the closing brackets ask for.
/// `changed` gets their lines.
void open_missing(std::vector<Statement>& statements, std::set<int>& changed,
                  std::vector<Finding>& causes);

/// Where brackets do not match, puts in those that are missing and takes out those too many: where
/// the indentation tells, else where a keyword stands that belongs further out. Where neither does,
/// nothing changes, and the loader's own complaint has to do.
void balance(std::vector<Statement>& statements, std::vector<Finding>& causes);

}  // namespace lbcheck
