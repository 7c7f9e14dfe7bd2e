#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

/// A folder of a test's own, removed with everything in it at the end of scope.
class TemporaryFolder {
  public:
    TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "lb-unit-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) {
            std::abort();
        }
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

    /// Writes a file below the folder, and the folders that it needs.
    void put(const std::string& name, const std::string& text) const {
        const std::filesystem::path path = file(name);
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }

    /// A file's text; empty where there is none.
    std::string text(const std::string& name) const {
        std::ifstream stream(file(name));
        return {std::istreambuf_iterator<char>(stream), {}};
    }

  private:
    std::string path_;
};
