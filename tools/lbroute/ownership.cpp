#include "lbroute/ownership.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include "decision/route_text.h"
#include "shared/processes.h"
#include <nlohmann/json.hpp>

namespace lbroute {

namespace {

using nlohmann::json;
using Outcome = Ownership::Outcome;

constexpr const char* lock_name = "lock";
constexpr const char* record_name = "instances";
constexpr mode_t owner_writes_all_enter = 0755;
constexpr mode_t owner_writes_all_read = 0644;

std::int64_t modified_ns(const struct stat& found) {
    constexpr std::int64_t ns_per_s = 1000000000;
    return std::int64_t{found.st_mtim.tv_sec} * ns_per_s + found.st_mtim.tv_nsec;
}

std::string failure(const std::string& what, int error) {
    return "cannot " + what + ": " + strerror(error);
}

/// Makes the folder of a file, and those above it; gives what failed.
std::string make_folders_of(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        if (mkdir(folder.c_str(), owner_writes_all_enter) == 0) {
            chmod(folder.c_str(), owner_writes_all_enter);  // whatever the umask took away
        } else if (errno != EEXIST) {
            // On a read-only file system the folders that exist are refused as well.
            const int error = errno;
            struct stat found {};
            if (stat(folder.c_str(), &found) != 0) {
                return failure("make " + folder, error);
            }
        }
    }
    return "";
}

/// The first bytes of a regular file; none where there is no file.
std::optional<std::string> beginning_of(const std::string& path) {
    constexpr std::size_t longest = 64;
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.is_open()) {
        return std::nullopt;
    }
    struct stat found {};
    std::array<char, longest> text{};
    const bool is_file = fstat(file.get(), &found) == 0 && S_ISREG(found.st_mode);
    const ssize_t size = is_file ? read(file.get(), text.data(), text.size()) : 0;
    return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

/// What a process number file holds, after a short while if it may just be being written.
std::optional<std::string> settled_text(const std::string& path) {
    constexpr int looks = 4;
    constexpr int pause_ms = 50;
    std::optional<std::string> text = beginning_of(path);
    for (int look = 1; look < looks && text && !text->ends_with('\n'); ++look) {
        poll(nullptr, 0, pause_ms);
        text = beginning_of(path);
    }
    return text;
}

/// The number that the text begins with, as `lb` takes it; none where it signals nobody.
std::optional<pid_t> number_in(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n"), text.size()));
    pid_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || number <= 0) {
        return std::nullopt;
    }
    return number;
}

std::string refusal(const std::string& path, pid_t pid) {
    return path + " names process " + std::to_string(pid) + " (" + shared::process_name(pid) +
           "), which is running; two routing daemons would undo each other's routes: stop it first "
           "(kill " +
           std::to_string(pid) + "), or where it is no routing daemon: rm " + path;
}

/// The files of a namespace that hold the process number.
std::array<std::string, 2> pid_paths(const std::string& root, const std::string& name) {
    return {root + pid_path(name, false), root + pid_path(name, true)};
}

}  // namespace

Ownership::Ownership(const StateFolder& folder, std::string root)
    : folder_(folder),
      root_(std::move(root)),
      own_{.pid = getpid(), .start = shared::start_of(getpid()), .files = {}} {}

Outcome Ownership::begin() {
    std::string problem;
    lock_ = folder_.lock(lock_name, StateFolder::Wait::not_at_all, problem);
    if (!problem.empty()) {
        return {.kind = Outcome::Kind::failed, .reason = problem, .notes = {}};
    }
    const auto content = folder_.read(record_name);
    predecessors_ = parse_instances(content.text.value_or(""));
    if (!lock_.is_open()) {
        const std::string number =
            predecessors_.empty() ? "" : ", process " + std::to_string(predecessors_.back().pid);
        return {.kind = Outcome::Kind::refused,
                .reason = "another lbroute runs already" + number +
                          "; stop it first: systemctl stop lbroute",
                .notes = {}};
    }
    for (Instance& predecessor : predecessors_) {
        std::erase_if(predecessor.files, [](const Written& file) { return !is_unchanged(file); });
    }
    std::erase_if(predecessors_, [](const Instance& old) { return old.files.empty(); });
    Outcome outcome;
    write_record(outcome);
    return outcome;
}

/// It serves to recognise leftovers: no reason to leave a router without its routes.
void Ownership::write_record(Outcome& outcome) const {
    if (const std::string problem = folder_.write(record_name, record()); !problem.empty()) {
        outcome.notes.push_back(
            problem +
            "; where lbroute is killed, the next one will take its process number files "
            "for another's if their number has been given again, see: df -h " +
            folder_.path());
    }
}

Outcome Ownership::claim(const std::string& namespace_name) {
    // Once: who waits for a file at each try keeps the routes of all namespaces waiting.
    const bool is_patient = tried_.insert(namespace_name).second;
    if (namespace_name.find('/') != std::string::npos || namespace_name == "..") {
        return {
            .kind = Outcome::Kind::failed,
            .reason = "'" + namespace_name +
                      "' is no name of a namespace; lbcheck tells where the configuration has it",
            .notes = {}};
    }
    Outcome outcome;
    const auto paths = pid_paths(root_, namespace_name);
    for (const std::string& path : paths) {
        outcome.reason = obstacle(path, outcome.notes, is_patient);
        if (!outcome.reason.empty()) {
            outcome.kind = Outcome::Kind::refused;
            // Where another one took one of both files over, the other is not to name us any more.
            release(namespace_name);
            return outcome;
        }
    }
    outcome.reason = make_folders_of(root_ + fragment_path(namespace_name, false));
    for (const std::string& path : paths) {
        if (outcome.reason.empty()) {
            outcome.reason = write(path);
        }
    }
    if (outcome.reason.empty()) {
        write_record(outcome);
    }
    if (!outcome.reason.empty()) {
        outcome.kind = Outcome::Kind::failed;
        release(namespace_name);
    } else {
        tried_.erase(namespace_name);
    }
    return outcome;
}

bool Ownership::is_disturbed(const std::string& namespace_name) const {
    const auto paths = pid_paths(root_, namespace_name);
    return std::ranges::any_of(paths, [this](const std::string& path) {
        return std::ranges::none_of(own_.files, [&path](const Written& file) {
            return file.path == path && is_unchanged(file);
        });
    });
}

void Ownership::release(const std::string& namespace_name) {
    for (const std::string& path : pid_paths(root_, namespace_name)) {
        remove_ours(path);
    }
}

void Ownership::release_all() {
    const std::vector<Written> files = own_.files;
    for (const Written& file : files) {
        remove_ours(file.path);
    }
    folder_.remove(record_name);
}

std::vector<Ownership::Instance> Ownership::parse_instances(const std::string& text) {
    std::vector<Instance> instances;
    try {
        for (const json& entry : json::parse(text)) {
            Instance instance{.pid = entry.at("pid").get<pid_t>(),
                              .start = entry.at("start").get<std::string>(),
                              .files = {}};
            for (const json& file : entry.at("files")) {
                instance.files.push_back({.path = file.at("path").get<std::string>(),
                                          .inode = file.at("inode").get<std::uint64_t>(),
                                          .modified_ns = file.at("modified_ns")});
            }
            instances.push_back(std::move(instance));
        }
    } catch (const json::exception&) {
        // Missing or damaged: what was read counts; files that name nobody alive still are
        // leftovers.
    }
    return instances;
}

std::string Ownership::record() const {
    json entries = json::array();
    const auto add = [&entries](const Instance& instance) {
        json files = json::array();
        for (const Written& file : instance.files) {
            files.push_back(
                {{"path", file.path}, {"inode", file.inode}, {"modified_ns", file.modified_ns}});
        }
        entries.push_back(
            {{"pid", instance.pid}, {"start", instance.start}, {"files", std::move(files)}});
    };
    for (const Instance& predecessor : predecessors_) {
        add(predecessor);
    }
    add(own_);
    return entries.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

bool Ownership::is_unchanged(const Written& file) {
    struct stat found {};
    return lstat(file.path.c_str(), &found) == 0 && found.st_ino == file.inode &&
           modified_ns(found) == file.modified_ns;
}

std::string Ownership::obstacle(const std::string& path, std::vector<std::string>& notes,
                                bool is_patient) const {
    const auto text = is_patient ? settled_text(path) : beginning_of(path);
    if (!text) {
        return "";
    }
    const auto named = number_in(*text);
    if (!named) {
        notes.push_back(path + " held no process number; it is written anew");
        return "";
    }
    const std::string number = std::to_string(*named);
    if (*named == own_.pid || is_predecessors(path, *named)) {
        notes.push_back(path + " was left by an lbroute that ended without removing it (process " +
                        number + "); it is written anew");
        return "";
    }
    if (!shared::is_running(*named)) {
        notes.push_back(path + " names process " + number +
                        ", which does not run; it is written anew");
        return "";
    }
    return refusal(path, *named);
}

bool Ownership::is_predecessors(const std::string& path, pid_t named) const {
    for (const Instance& predecessor : predecessors_) {
        if (predecessor.pid != named ||
            (shared::is_running(named) && shared::start_of(named) == predecessor.start)) {
            continue;
        }
        for (const Written& file : predecessor.files) {
            if (file.path == path && is_unchanged(file)) {
                return true;
            }
        }
    }
    return false;
}

std::string Ownership::write(const std::string& path) {
    if (std::string problem = make_folders_of(path); !problem.empty()) {
        return problem;
    }
    const std::string temporary = path + ".new";
    unlink(temporary.c_str());
    const Fd file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                       owner_writes_all_read));
    const std::string text = std::to_string(own_.pid) + "\n";
    struct stat written {};
    const bool is_written =
        file.is_open() && fchmod(file.get(), owner_writes_all_read) == 0 &&
        ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        fstat(file.get(), &written) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
    if (!is_written) {
        const int error = errno;
        unlink(temporary.c_str());
        return failure("write " + path, error);
    }
    const auto is_same = [&path](const Written& other) { return other.path == path; };
    for (Instance& predecessor : predecessors_) {
        std::erase_if(predecessor.files, is_same);
    }
    std::erase_if(own_.files, is_same);
    own_.files.push_back(
        {.path = path, .inode = written.st_ino, .modified_ns = modified_ns(written)});
    return "";
}

void Ownership::remove_ours(const std::string& path) {
    const auto text = beginning_of(path);
    if (text && number_in(*text) == own_.pid) {
        unlink(path.c_str());
    }
    std::erase_if(own_.files, [&path](const Written& file) { return file.path == path; });
}

}  // namespace lbroute
