#include "lbroute/site.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "config/lb_data_factory.h"
#include "shared/dump_file.h"
#include "shared/quiet_log.h"

namespace lbroute {

namespace {

constexpr std::int64_t dump_patience_ms = 200;
constexpr std::size_t largest_dump = std::size_t{32} << 20;

bool is_missing(int error) {
    return error == ENOENT || error == ENOTDIR;
}

}  // namespace

Site::Site(std::string configuration, std::string output_directory)
    : configuration_(std::move(configuration)),
      dump_folder_(shared::dump_folder(output_directory)) {}

std::optional<Site::Stamp> Site::stamp_of(const std::string& path, int& error) {
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) {
        error = errno;
        return is_missing(error) ? std::make_optional(Stamp{}) : std::nullopt;
    }
    return Stamp{found.st_dev, found.st_ino, found.st_size, found.st_mtim.tv_sec,
                 found.st_mtim.tv_nsec};
}

bool Site::read_configuration() {
    int error = 0;
    const std::optional<Stamp> stamp = stamp_of(configuration_, error);
    // What was wrong may have ended without the file's being touched: a limit, say.
    if (stamp && loaded_ == stamp && problems_.empty()) {
        return false;
    }
    problems_.clear();
    if (!stamp) {
        problems_[configuration_ + " cannot be read: " + strerror(error) +
                  "; what it was before counts"] = Level::error;
        return false;
    }
    const bool is_first = !loaded_;
    loaded_ = stamp;
    if (stamp == Stamp{}) {
        configured_ = {};
        return combine();
    }
    // What the loader complains of is the business of the daemon and of lbcheck(8).
    const shared::QuietLog quiet;
    LBDataFactory loader;
    const bool is_whole = loader.load(configuration_);
    if (!is_whole) {
        problems_[configuration_ + " is not whole: see lbcheck " + configuration_ +
                  (is_first ? "; what could be read counts" : "; what it was before counts")] =
            Level::error;
    }
    if (is_whole || is_first) {
        configured_ = uplinks_of(loader.data);
    }
    return combine();
}

bool Site::read_dumps(std::int64_t now_ms) {
    read_again_at_ms_.reset();
    bool is_cut = false;
    are_dumps_read_ = true;
    for (const int family : {4, 6}) {
        const std::string path = dump_folder_ + "/" + shared::name_of(shared::outbounds_of(family));
        auto& dumped = dumped_[family == 4 ? 0 : 1];
        const shared::DumpBytes dump = shared::read_dump(path, largest_dump);
        if (dump.problem != shared::DumpBytes::Problem::none) {
            if (is_missing(dump.error)) {
                dumped.clear();
            } else {
                are_dumps_read_ = false;
            }
            continue;
        }
        auto read = dumps::read_interfaces(dump.bytes, family, false);
        if (dump.is_rewritten || read.is_truncated || dump.bytes.empty()) {
            is_cut = true;
        } else if (read.problem.empty()) {
            dumped = std::move(read.items);
        }
    }
    // Once: whoever goes on writing it later is noticed, and a full disk may leave it so for long.
    if (is_cut && !was_read_again_) {
        read_again_at_ms_ = now_ms + dump_patience_ms;
    }
    was_read_again_ = is_cut && !was_read_again_;
    return combine();
}

bool Site::combine() {
    std::vector<dumps::Interface> dumped = dumped_[0];
    std::ranges::copy(dumped_[1], std::back_inserter(dumped));
    Uplinks uplinks = with_dumps(configured_, dumped);
    const bool differs = uplinks != uplinks_;
    uplinks_ = std::move(uplinks);
    return differs;
}

bool Site::has_learning_uplinks() const {
    return std::ranges::any_of(uplinks_.uplinks, &Uplink::is_learning);
}

}  // namespace lbroute
