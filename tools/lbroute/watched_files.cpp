#include "lbroute/watched_files.h"

#include <filesystem>

#include "decision/route_text.h"
#include "lbroute/holds.h"
#include "lbroute/state_folder.h"
#include "shared/dump_file.h"
#include "shared/usual_paths.h"

namespace lbroute {

namespace {

/// How often files are looked at that cannot be watched.
constexpr std::int64_t look_every_ms = 2'000;

std::string folder_of(const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path();
    return folder.empty() ? "." : folder;
}

}  // namespace

WatchedFiles::WatchedFiles(const Options& options, const Site& site, EventLoop& loop,
                           Journal& journal)
    : options_(options), site_(site), loop_(loop), journal_(journal) {}

void WatchedFiles::watch(const AllServed& all) {
    std::set<std::string> folders{folder_of(options_.configuration), shared::namespaces,
                                  StateFolder::usual_path};
    // Behind a symbolic link it is saved in another folder.
    std::error_code error;
    real_configuration_ = std::filesystem::canonical(options_.configuration, error);
    if (!error) {
        folders.insert(folder_of(real_configuration_));
    }
    bool is_shared = site_.has_learning_uplinks();
    for (const auto& [name, served] : all) {
        folders.insert(folder_of(fragment_path(name, false)));
        folders.insert(folder_of(pid_path(name, false)));
        is_shared |= served.is_shared;
    }
    // The daemon rewrites its dumps in every cycle; they wake us only where they tell more than
    // the fragments.
    if (is_shared) {
        folders.insert(site_.dump_folder());
    }
    files_.watch(folders);
    if (files_.descriptor() != watched_descriptor_) {
        watched_descriptor_ = files_.descriptor();
        loop_.watch(watched_descriptor_);
    }
}

void WatchedFiles::tell_of_blindness() {
    Journal::Problems problems;
    if (files_.is_blind()) {
        problems
            ["not all files that matter can be watched; they are looked at every few "
             "seconds instead: " +
             files_.blindness()] = Level::warning;
    }
    journal_.tell("watch", problems);
}

WatchedFiles::Changes WatchedFiles::take_changes(const AllServed& all) {
    Changes found;
    if (files_.is_blind() && look_at_ms_ <= boottime_ms()) {
        look_at_ms_ = boottime_ms() + look_every_ms;
        found.is_time_to_look = true;
    }
    const shared::FolderWatch::Changes changes = files_.drain();
    const auto has_changed = [&](const std::string& path) {
        return changes.is_all || changes.paths.contains(path);
    };
    found.configuration = has_changed(options_.configuration) || has_changed(real_configuration_);
    found.holds = has_changed(std::string(StateFolder::usual_path) + "/holds");
    for (const int family : {4, 6}) {
        found.dumps |=
            has_changed(site_.dump_folder() + "/" + shared::name_of(shared::outbounds_of(family)));
    }
    for (const auto& [name, served] : all) {
        for (const FragmentFile& file : served.kernel.fragments()) {
            if (has_changed(file.path())) {
                found.fragments.insert(name);
            }
        }
    }
    return found;
}

std::optional<std::int64_t> WatchedFiles::next_look_ms() const {
    return files_.is_blind() ? std::make_optional(look_at_ms_) : std::nullopt;
}

}  // namespace lbroute
