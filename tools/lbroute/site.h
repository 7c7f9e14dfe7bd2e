#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lbroute/journal.h"
#include "lbroute/uplinks.h"

/// What the daemon's configuration and dumps tell of the uplinks, as the files stand.
namespace lbroute {

class Site {
  public:
    Site(std::string configuration, std::string output_directory);

    const std::string& configuration_path() const { return configuration_; }
    /// The folder of the dumps.
    const std::string& dump_folder() const { return dump_folder_; }

    /// Reads the configuration by the daemon's own loader, where the file is another than at the
    /// last call, or that one was not read whole. True where the uplinks may differ now. A missing
    /// file means no uplinks, one that is broken leaves what was known, but at the first call.
    bool read_configuration();
    /// Reads the dumps; one that is just being rewritten leaves what was known and is to be read
    /// again. True where the uplinks differ now.
    bool read_dumps(std::int64_t now_ms);
    std::optional<std::int64_t> read_again_at_ms() const { return read_again_at_ms_; }

    const Uplinks& uplinks() const { return uplinks_; }
    /// Some next hop may come to mean another interface without a word in a fragment.
    bool has_learning_uplinks() const;
    const Journal::Problems& problems() const { return problems_; }
    /// Configuration and dumps were read, or are not there. Else reading again may help.
    bool is_read() const { return problems_.empty() && are_dumps_read_; }

  private:
    bool combine();

    /// Tells one content of a file from another without reading it.
    struct Stamp {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::int64_t size = -1;
        std::int64_t modified_s = 0;
        std::int64_t modified_ns = 0;

        bool operator==(const Stamp&) const = default;
    };
    /// That of a missing file is empty; none, with an error, where nobody can tell.
    static std::optional<Stamp> stamp_of(const std::string& path, int& error);

    std::string configuration_;
    std::string dump_folder_;
    std::optional<Stamp> loaded_;
    Uplinks configured_;
    std::array<std::vector<dumps::Interface>, 2> dumped_;  // by family
    Uplinks uplinks_;
    std::optional<std::int64_t> read_again_at_ms_;
    bool are_dumps_read_ = true;
    bool was_read_again_ = false;  // after some dump was found cut
    Journal::Problems problems_;
};

}  // namespace lbroute
