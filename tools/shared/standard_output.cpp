#include "shared/standard_output.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace shared {

bool end_output(std::string_view program) {
    errno = 0;
    if (std::cout.flush()) {
        return true;
    }
    // It failed before, and a stream does not tell why: what is cut off anyway gets one more
    // letter.
    if (errno == 0 && write(STDOUT_FILENO, "\n", 1) == 1) {
        errno = EIO;
    }
    if (errno != EPIPE) {
        std::cerr << program << ": standard output cannot be written: " << strerror(errno)
                  << std::endl;
    }
    return false;
}

}  // namespace shared
