#pragma once

#include <string>
#include <vector>

/// What became of a statement of the configuration.
enum class Handled {
    ignored,  ///< no keyword acts here, or nothing is current that it could act on
    acted,
    refused,  ///< the value was refused with a message
    kept,     ///< what it declares was declared before and goes on
    dropped,  ///< a probe whose number is taken
    strayed,  ///< no rule block, but where it stands it makes a rule of its own
};

/// One line's words, as the loader acted on them.
struct HandledStatement {
    const std::vector<std::string>& blocks;  ///< the keyword of the latest line at each depth
    int depth = 0;                           ///< after the line's brackets
    const std::string& key;
    const std::string& value;
    const std::string&
        surplus;  ///< the first word behind the value: it and the rest act on nothing
    Handled handled = Handled::ignored;
};

/// Watches the loader at work; for tools that tell an operator what the daemon would understand.
/// The daemon itself has none.
class LoadObserver {
  public:
    virtual ~LoadObserver() = default;
    /// Each read: a line as it stands in the file. A line longer than a read comes as several, all
    /// but the last of them cut.
    virtual void line(const std::string& read, bool is_cut) = 0;
    /// Each statement, after it was handled.
    virtual void statement(const HandledStatement& statement) = 0;
};
