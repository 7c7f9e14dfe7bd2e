#include "lbroute/work.h"

#include <unistd.h>

#include <algorithm>

#include "lbroute/findings.h"
#include "shared/processes.h"

namespace lbroute {

Work::Work(const Options& options, const StateFolder& folder, Journal& journal, EventLoop& loop)
    : folder_(folder),
      journal_(journal),
      site_(options.configuration, options.output_directory),
      namespaces_(options, folder, journal, loop),
      routing_(options, journal) {
    record_.pid = getpid();
    record_.start = shared::start_of(record_.pid);
    record_.table = options.table;
    record_.is_sticky = options.is_sticky;
    record_.bird2_file = options.bird2_file;
}

void Work::run(const Due& due, WatchedFiles& files) {
    bool is_for_all = false;
    // Before anything is read: what is written from now on wakes us.
    files.watch(namespaces_.served());
    if (due.configuration) {
        is_for_all |= site_.read_configuration();
        journal_.tell("configuration", site_.problems());
    }
    if (due.dumps) {
        is_for_all |= site_.read_dumps(boottime_ms());
    }
    if (due.holds) {
        is_for_all |= read_holds_anew();
    }
    std::set<std::string> to_route = due.routes;
    std::set<std::string> to_read = due.fragments;
    if (due.configuration || due.namespaces) {
        to_read.merge(namespaces_.follow(served_names(), due.configuration));
    }
    files.watch(namespaces_.served());  // with the fragments of namespaces that have just come
    if (namespaces_.is_refused()) {
        return;
    }
    for (const std::string& name : to_read) {
        read_fragments(name);
        to_route.insert(name);
    }
    for (auto& [name, served] : namespaces_.served()) {
        const bool is_ours = served.is_claimed && served.kernel.is_entered();
        if (is_ours && (is_for_all || to_route.contains(name))) {
            route(name, served);
        }
    }
    files.watch(namespaces_.served());
    files.tell_of_blindness();
    leave_record(due.configuration);
}

void Work::route(const std::string& name, Served& served) {
    const auto result = routing_.route(served, surroundings_of(name, site_.uplinks(), holds_));
    if (result.is_whole()) {
        note_refusals(record_, name, result.view);
    }
    Journal::Problems unwatched;
    for (const FragmentFile& file : served.kernel.fragments()) {
        const std::string text = unwatched_text(file, name, site_.uplinks());
        if (site_.problems().empty() && !text.empty()) {
            unwatched[text] = Level::warning;
        }
    }
    journal_.tell("watched " + name, unwatched);
}

/// `tries_again`: also what could not be written. Not at every wake: each try wakes us, by its
/// change of the folder.
void Work::leave_record(bool tries_again) {
    record_.not_served = namespaces_.not_served();
    if (record_ != left_ || (tries_again && !is_record_left_)) {
        Journal::Problems problems;
        const std::string problem = write_record(folder_, record_);
        if (!problem.empty()) {
            problems["lbroute status will lack the kernel's reasons: " + problem] = Level::warning;
        }
        journal_.tell("record", problems);
        left_ = record_;
        is_record_left_ = problem.empty();
    }
}

/// The namespaces that are to be served.
std::set<std::string> Work::served_names() {
    std::set<std::string> names = site_.uplinks().namespaces;
    if (!routing_.is_for_bird()) {
        return names;
    }
    names.erase("");
    Journal::Problems problems;
    for (const std::string& name : names) {
        problems["namespace " + name + " is not served: bird is given the default one only"] =
            Level::warning;
    }
    journal_.tell("namespaces", problems);
    return {""};
}

void Work::read_fragments(const std::string& name) {
    const auto found = namespaces_.served().find(name);
    if (found == namespaces_.served().end()) {
        return;
    }
    for (FragmentFile& file : found->second.kernel.fragments()) {
        const auto before = file.in_force();
        file.read(boottime_ms());
        journal_.tell(file.path(), file.problems());
        if (file.in_force() != before) {
            found->second.uncertain_until_ms.reset();
        }
    }
}

bool Work::read_holds_anew() {
    std::string problem;
    const StateFolder folder =
        StateFolder::open(StateFolder::usual_path, StateFolder::IfMissing::leave, problem);
    HoldsReading reading = read_holds(folder, boottime_ms());
    Journal::Problems problems;
    for (const std::string& one : {problem, reading.problem}) {
        if (!one.empty()) {
            problems[one] = Level::error;
        }
    }
    journal_.tell("holds", problems);
    are_holds_read_ = problem.empty() && !reading.is_unread;
    are_holds_whole_ = problems.empty();
    if (!are_holds_read_) {
        // What is held stays held, until its time is over.
        const std::size_t before = holds_.size();
        drop_ended(holds_, boottime_ms());
        return holds_.size() != before;
    }
    const bool differs = reading.holds != holds_;
    holds_ = std::move(reading.holds);
    return differs;
}

bool Work::is_wanting() const {
    return !site_.is_read() || !are_holds_read_ || !is_record_left_ ||
           std::ranges::any_of(namespaces_.served(), [](const auto& entry) {
               const Served& served = entry.second;
               return !served.is_claimed || !served.kernel.is_entered() || !served.is_good ||
                      std::ranges::any_of(served.kernel.fragments(), [](const FragmentFile& file) {
                          return !file.problems().empty();
                      });
           });
}

bool Work::is_waiting_for_files() const {
    return site_.read_again_at_ms() ||
           std::ranges::any_of(namespaces_.served(), [](const auto& entry) {
               return entry.second.is_uncertain ||
                      std::ranges::any_of(entry.second.kernel.fragments(),
                                          [](const FragmentFile& file) {
                                              return file.read_again_at_ms().has_value();
                                          });
           });
}

bool Work::is_good() const {
    bool is_good = site_.is_read() && are_holds_whole_;
    for (const auto& [name, served] : namespaces_.served()) {
        is_good &= served.is_good;
        for (const FragmentFile& file : served.kernel.fragments()) {
            is_good &= file.problems().empty();
        }
    }
    return is_good;
}

bool Work::prepare_flush() {
    site_.read_configuration();
    namespaces_.follow(served_names(), false);
    return namespaces_.not_served().empty();
}

std::vector<std::string> Work::flush() {
    return routing_.is_for_bird() ? routing_.flush_bird() : namespaces_.flush();
}

}  // namespace lbroute
