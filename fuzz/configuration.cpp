// The configuration file, with the checker looking on.
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fuzz/input.h"
#include "lbcheck/findings.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = [] {
        std::string name = "/tmp/lb-fuzz-XXXXXX";
        close(mkstemp(name.data()));
        return name;
    }();
    FILE* const file = fopen(path.c_str(), "w");
    fwrite(data, 1, size, file);
    fclose(file);
    const lbcheck::Checked checked = lbcheck::check(path);
    lbcheck::as_json(path, checked.findings);
    lbcheck::explain(checked.data);
    return 0;
}
