// Hands every file of the given folders to a fuzz target, in any build: the seeds, and what once
// made a parser fall.
//
//     replay_TARGET FOLDER...

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/input.h"

namespace {

std::vector<std::uint8_t> content_of(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int argc, char* argv[]) {
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            printf("%s\n", entry.path().c_str());
            fflush(stdout);  // the last line names the input that falls
            const std::vector<std::uint8_t> input = content_of(entry.path());
            LLVMFuzzerTestOneInput(input.data(), input.size());
            ++inputs;
        }
    }
    if (inputs == 0) {
        fprintf(stderr, "no input to replay\n");
        return 1;
    }
    return 0;
}
