#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dumps/state.h"
#include "shared/dump_file.h"

namespace lbwatch {

using shared::dump_files;
using shared::DumpFile;
using shared::name_of;
using shared::outbounds_of;

/// One look at a dump that the daemon rewrites in place.
struct Look {
    enum class Outcome {
        whole,
        absent,
        torn,     ///< it is just being rewritten: look again
        refused,  ///< no dump of the daemon on this machine; `problem` says why
    };
    Outcome outcome = Outcome::absent;
    std::string problem;
    std::int64_t written_ms = 0;  ///< since the epoch, by the file system's clock
};

/// The latest whole dump of each kind below an output directory. A dump that cannot be believed
/// leaves the one before in place.
class Dumps {
  public:
    explicit Dumps(std::string folder) : folder_(std::move(folder)) {}

    const std::string& folder() const { return folder_; }
    std::string path_of(DumpFile file) const { return folder_ + "/" + name_of(file); }

    /// Reads the file whole or not at all. Costs one open, one read and two stats.
    Look look(DumpFile file);

    const std::vector<dumps::Interface>& interfaces(int family) const {
        return family == 6 ? interfaces6_ : interfaces4_;
    }
    const std::vector<dumps::Rule>& rules() const { return rules_; }
    const std::vector<dumps::Route>& routes() const { return routes_; }

  private:
    std::string folder_;
    std::vector<std::uint8_t> bytes_;  ///< kept, so that a look need not ask for memory
    std::vector<dumps::Interface> interfaces4_;
    std::vector<dumps::Interface> interfaces6_;
    std::vector<dumps::Rule> rules_;
    std::vector<dumps::Route> routes_;
};

/// How long the daemon may leave its files alone. An extended ping holds its worker until all its
/// echoes are answered or given up, and the dumps do not tell how many those are; so each of a
/// worker's extended pings is given a minute, all together ten.
std::int64_t patience_ms(const std::vector<dumps::Interface>& interfaces4,
                         const std::vector<dumps::Interface>& interfaces6);

}  // namespace lbwatch
