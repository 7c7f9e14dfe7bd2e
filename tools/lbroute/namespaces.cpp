#include "lbroute/namespaces.h"

#include <algorithm>
#include <iterator>

#include "lbroute/left_behind.h"

namespace lbroute {

Namespaces::Namespaces(const Options& options, const StateFolder& folder, Journal& journal,
                       EventLoop& loop)
    : options_(options), journal_(journal), loop_(loop), ownership_(folder) {}

bool Namespaces::begin() {
    return told(ownership_.begin());
}

bool Namespaces::told(const Ownership::Outcome& outcome) const {
    for (const std::string& note : outcome.notes) {
        journal_.say(Level::notice, note);
    }
    if (outcome.kind != Ownership::Outcome::Kind::owned) {
        journal_.say(Level::error, outcome.reason);
    }
    return outcome.kind == Ownership::Outcome::Kind::owned;
}

/// Takes the place of the routing daemon in one namespace, or notes why not.
void Namespaces::claim(const std::string& name, Served& served, bool is_new) {
    const Ownership::Outcome outcome = ownership_.claim(name);
    served.is_claimed = outcome.kind == Ownership::Outcome::Kind::owned;
    if (!served.is_claimed) {
        not_served_[name] = outcome.reason;
        // Later it serves others, and is tried again.
        is_refused_ |= is_new && name.empty() && outcome.kind == Ownership::Outcome::Kind::refused;
        return;
    }
    not_served_.erase(name);
    told(outcome);
}

void Namespaces::leave_all_but(const std::set<std::string>& named) {
    Journal::Problems left_behind;
    for (auto& [name, served] : served_) {
        if (!named.contains(name)) {
            ownership_.release(name);
            not_served_.erase(name);
            for (const char* subject : {"namespace ", "routes ", "flows ", "watched "}) {
                journal_.forget(subject + name);
            }
            left_behind.merge(left_behind_in(served.kernel));
        }
    }
    std::erase_if(served_, [&](const auto& entry) { return !named.contains(entry.first); });
    journal_.tell("left namespaces", left_behind);
}

std::set<std::string> Namespaces::follow(const std::set<std::string>& named, bool claims_again) {
    leave_all_but(named);
    std::set<std::string> to_read;
    std::map<NamespaceIdentity, std::string> names_of;
    for (const std::string& name : named) {
        if (const auto identity = namespace_identity(name)) {
            const auto [first, is_first] = names_of.try_emplace(*identity, name);
            if (!is_first) {
                leave_second_name(name, first->second);
                continue;
            }
        }
        const auto [entry, is_new] = served_.try_emplace(name, name, options_);
        Served& served = entry->second;
        // Another routing daemon that comes later writes its number in the place of ours.
        const bool is_to_claim =
            served.is_claimed ? ownership_.is_disturbed(name) : is_new || claims_again;
        if (is_to_claim) {
            claim(name, served, is_new);
        }
        std::string problem;
        const bool has_changed = served.is_claimed && served.kernel.follow(problem);
        tell_state(name, served, problem);
        if (has_changed && served.kernel.is_entered()) {
            loop_.watch(served.kernel.monitor_descriptor());
        } else if (has_changed) {
            journal_.forget("routes " + name);
        }
        if (is_refused_) {
            return to_read;
        }
        if (has_changed || (is_to_claim && served.is_claimed)) {
            to_read.insert(name);
            served.paths.clear();
        }
    }
    return to_read;
}

/// Under both names the one would take the other's routes for leftovers of its own.
void Namespaces::leave_second_name(const std::string& name, const std::string& first) {
    if (const auto served = served_.find(name); served != served_.end()) {
        ownership_.release(name);
        journal_.forget("routes " + name);
        served_.erase(served);
    }
    not_served_[name] = "it is " +
                        (first.empty() ? "the default namespace" : "namespace " + first) +
                        " by another name; name its uplinks there, or remove the name: ip netns "
                        "del " +
                        name;
    journal_.tell("namespace " + name,
                  {{"namespace " + name + " is not served: " + not_served_[name], Level::error}});
}

void Namespaces::tell_state(const std::string& name, const Served& served,
                            const std::string& problem) {
    Journal::Problems problems;
    if (!served.is_claimed) {
        problems[(name.empty() ? "the default namespace" : "namespace " + name) +
                 " is not served: " + not_served_[name]] = Level::error;
    } else if (!problem.empty()) {
        problems[problem] = Level::error;
    } else if (!served.kernel.is_entered()) {
        problems["namespace " + name + " is not there: its routes wait for it"] = Level::notice;
    }
    journal_.tell("namespace " + name, problems);
}

std::vector<std::string> Namespaces::flush() {
    std::vector<std::string> problems;
    std::set<std::string> names;
    for (auto& [name, served] : served_) {
        names.insert(name);
        std::string problem;
        if (!served.is_claimed) {
            // What is ours there is ours to take away.
            served.kernel.follow(problem);
        }
        if (!problem.empty()) {
            problems.push_back(problem);
        }
        if (served.kernel.is_entered()) {
            std::ranges::move(lbroute::flush(served.kernel), std::back_inserter(problems));
        }
    }
    std::ranges::move(flush_others(names, options_), std::back_inserter(problems));
    return problems;
}

}  // namespace lbroute
