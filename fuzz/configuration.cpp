// The configuration file, with the checker looking on.
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/input.h"
#include "lbcheck/findings.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("configuration", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
        return -1;
    }
    const lbcheck::Checked checked = lbcheck::check(path);
    lbcheck::as_json(path, checked.findings);
    lbcheck::explain(checked.data);
    return 0;
}
