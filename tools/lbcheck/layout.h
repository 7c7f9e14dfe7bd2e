#pragma once

#include <string>
#include <vector>

#include "lbcheck/findings.h"

/// The faults of a file's layout, each of which makes the loader misread everything behind it: how
/// the text is encoded, where brackets stand, which words open blocks. Looks at lines and words
/// only; what the loader makes of the text that is mended so is the loader's own word. Pure.
namespace lbcheck {

struct MendedText {
    std::string text;              ///< as it would stand without the faults
    std::vector<int> line_before;  ///< of each of its lines, the line of the file that it was
    std::vector<Finding> causes;   ///< one a fault; empty: `text` is the file itself
};

/// `path` is what the mending commands name.
MendedText mend_layout(const std::string& bytes, const std::string& path);

}  // namespace lbcheck
