#include "shared/folder_names.h"

#include <filesystem>

namespace shared {

std::vector<std::string> names_in(const std::string& folder, std::error_code& error) {
    std::vector<std::string> names;
    std::filesystem::directory_iterator entries(folder, error);
    while (!error && entries != std::filesystem::directory_iterator()) {
        names.push_back(entries->path().filename());
        entries.increment(error);
    }
    return names;
}

}  // namespace shared
