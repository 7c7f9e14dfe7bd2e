#pragma once

#include <string>

/// What became of a statement of the configuration.
enum class Handled {
    ignored,  ///< no keyword acts here, or nothing is current that it could act on
    acted,
    refused,  ///< the value was refused with a message
    kept,     ///< the block was declared before and goes on
    dropped,  ///< a probe whose number is taken
};

/// Watches the loader at work; for tools that tell an operator what the daemon would understand.
/// The daemon itself has none.
class LoadObserver {
  public:
    virtual ~LoadObserver() = default;
    /// Each read: a line as it stands in the file, or a piece of a line longer than a read.
    virtual void line(const std::string& read) = 0;
    /// Each statement, after it was handled, with the depth after its line's brackets.
    virtual void statement(int depth, const std::string& key, const std::string& value,
                           Handled handled) = 0;
};
