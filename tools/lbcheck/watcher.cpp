#include "lbcheck/watcher.h"

#include <algorithm>
#include <set>

#include "config/keywords.h"
#include "config/lb_data.h"
#include "lbcheck/spelling.h"
#include "lbcheck/values.h"
#include "probe/send_path.h"

namespace lbcheck {

namespace {

/// What the loader logged since the last look, in its own words.
thread_local std::vector<std::string> logged;

void keep_line(int /*severity*/, const char* line) {
    logged.emplace_back(line);
}

std::vector<std::string> take_logged() {
    std::vector<std::string> taken;
    taken.swap(logged);
    return taken;
}

bool takes_number(const std::string& name, bool is_in_health) {
    const auto keywords = all_keywords();
    return std::any_of(keywords.begin(), keywords.end(), [&](const Keyword& keyword) {
        const bool stands_in_health = keyword.place == KeywordPlace::health_interface ||
                                      keyword.place == KeywordPlace::health_probe;
        return keyword.name == name && keyword.value == KeywordValue::number &&
               stands_in_health == is_in_health;
    });
}

bool is_extended_only(const std::string& name) {
    const auto keywords = all_keywords();
    return std::any_of(keywords.begin(), keywords.end(), [&name](const Keyword& keyword) {
        return keyword.name == name && keyword.is_extended_only;
    });
}

constexpr const char* no_address = "not an address of the interface's family";
constexpr int heaviest = 256;  // what the routing daemon takes for a weight
constexpr int ms_per_s = 1000;

/// A log line without the log's own "%WAN-W-ERR: ".
std::string without_prefix(const std::string& line) {
    return line.starts_with('%') ? line.substr(line.find(": ") + 2) : line;
}

bool is_blank(const std::string& text) {
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

/// No name that would let IPv4 echoes leave by a socket.
bool is_unreachable_by_frames(const std::string& ifname) {
    return is_usually_without_ethernet(ifname) && !echoes_through_tunnel(ifname);
}

bool is_health(const HandledStatement& statement) {
    return statement.blocks[0] == "health";
}

}  // namespace

Watcher::Watcher(std::vector<Finding>& findings)
    : findings_(findings), sink_before_(set_log_sink(keep_line)) {
    logged.clear();
}

Watcher::~Watcher() {
    set_log_sink(sink_before_);
}

void Watcher::line(const std::string& read, bool is_cut) {
    if (!was_cut_) {
        if (!had_end_) {
            add(Severity::error, "", "holds a zero byte: the rest of the line is not read");
        }
        ++line_;
        is_in_comment_ = false;
        has_told_cut_ = false;
    } else if (!is_blank(read) && !has_told_cut_) {
        has_told_cut_ = true;
        add(Severity::warning, "",
            is_in_comment_ ? "the line is longer than a read of 1,023 characters: the rest of its "
                             "comment is read as a line of its own"
                           : "the line is longer than a read of 1,023 characters: the rest is read "
                             "as a line of its own");
    }
    is_in_comment_ = is_in_comment_ || read.find('#') != std::string::npos;
    had_end_ = read.ends_with('\n');
    was_cut_ = is_cut;
    text_ = read.substr(0, read.find_last_not_of("\r\n") + 1);
}

void Watcher::statement(const HandledStatement& statement) {
    const std::string text =
        statement.value.empty() ? statement.key : statement.key + " " + statement.value;
    note_place(statement);
    for (const std::string& words : take_logged()) {
        add(Severity::error, text, words);
    }
    if (!statement.surplus.empty()) {
        add(Severity::warning, statement.surplus,
            "one word and one value a line: from here on the line is ignored");
    }
    switch (statement.handled) {
        case Handled::acted:
            judge_acted(statement, text);
            break;
        case Handled::kept:
            add(Severity::warning, text,
                "declared before: the lines of both blocks act on one entry");
            judge_acted(statement, text);
            break;
        case Handled::dropped:
            is_extended_ = false;  // nothing tells what the first one is
            add(Severity::warning, text,
                "the number of this rule has a probe already: this one is dropped, its lines act "
                "on the first");
            break;
        case Handled::strayed:
            add(Severity::error, text, "lacks a block of its own: it makes a rule of this name");
            break;
        case Handled::ignored:
            judge_ignored(statement, text);
            break;
        case Handled::refused:
            break;  // the loader has said why
    }
}

void Watcher::end() {
    for (const std::string& words : take_logged()) {
        if (words.find("mismatched") == std::string::npos) {
            add(Severity::error, text_, words);
        } else {
            findings_.push_back({.line = opened_line_,
                                 .severity = Severity::error,
                                 .text = opened_text_,
                                 .message = without_prefix(words) + ": this block does not end"});
        }
    }
}

int Watcher::line_of(const std::string& place) const {
    const auto found = places_.find(place);
    return found == places_.end() ? 0 : found->second;
}

void Watcher::add(Severity severity, const std::string& text, const std::string& message) {
    findings_.push_back(
        {.line = line_, .severity = severity, .text = text, .message = without_prefix(message)});
}

void Watcher::note_place(const HandledStatement& statement) {
    const auto& [blocks, depth, key, value, surplus, handled] = statement;
    if (depth <= 1 && (key == "health" || key == "rule")) {
        opened_line_ = line_;
        opened_text_ = value.empty() ? key : key + " " + value;
    }
    const bool declares =
        handled == Handled::acted || handled == Handled::kept || handled == Handled::strayed;
    if (!declares) {
        return;
    }
    if (is_health(statement) && is_interface_keyword(key)) {
        interface_ = value;
        is_ipv6_ = key == "interface6";
        interface_place_ = key + " " + value;
        places_.try_emplace(interface_place_, line_);
    } else if (is_health(statement) && key == "target") {
        places_.try_emplace(interface_place_ + " target " + value, line_);
    } else if (!is_health(statement) && (key == "rule" || handled == Handled::strayed)) {
        rule_ = value;
        places_.try_emplace("rule " + value, line_);
    } else if (!is_health(statement) && is_interface_keyword(key)) {
        places_.try_emplace("rule " + rule_ + " " + key + " " + value, line_);
    }
}

void Watcher::judge_ignored(const HandledStatement& statement, const std::string& text) {
    const auto& [blocks, depth, key, value, surplus, handled] = statement;
    // Brackets alone, and the words that only open a block.
    const bool opens_health = is_health(statement) && key == "health" && depth <= 1;
    const bool opens_target = !is_health(statement) && key == "target" && blocks[1] == "target";
    if (key.empty() || opens_health || (opens_target && value.empty())) {
        return;
    }
    constexpr int probe_depth = 4;
    const std::string places = places_of(key);
    if (places.empty()) {
        add(Severity::warning, text, "unknown keyword: ignored");
        return;
    }
    const std::string misplaced = "acts on nothing here: it stands in " + places;
    if (opens_target) {
        add(Severity::warning, text, "a target block has no value: the prefix is its address line");
    } else if (!is_health(statement) || depth != probe_depth || interface_.empty()) {
        add(Severity::warning, text, misplaced);
    } else if (key == "type" && is_ipv6_ && value == "ping_ext") {
        add(Severity::error, text, "there is no extended ping for IPv6: nothing is created");
    } else if (key == "type") {
        add(Severity::error, text, "no such type of probe: nothing is created");
    } else if (key == "target" && value.empty()) {
        add(Severity::warning, text, "has no value: ignored");
    } else if (is_extended_only(key)) {
        add(Severity::warning, text, "acts on a probe of type ping_ext only: ignored");
    } else if (key == "target" || key == "resp-time") {
        add(Severity::warning, text, "no probe is current: ignored");
    } else {
        add(Severity::warning, text, misplaced);
    }
}

void Watcher::judge_acted(const HandledStatement& statement, const std::string& text) {
    const std::string& key = statement.key;
    const std::string& value = statement.value;
    judge_repetition(statement, text);
    const bool is_number = takes_number(key, is_health(statement));
    const std::string problem = is_number ? problem_of_number(value) : "";
    if (!problem.empty()) {
        add(Severity::warning, text, problem);
    } else if (is_number) {
        judge_limit(key, value, text);
    }
    if ((key == "failover" || key == "check_all") && !value.empty()) {
        add(Severity::warning, text, "has no value: it acts whatever stands behind it");
    }
    const std::string bad_name = is_interface_keyword(key) ? problem_of_interface_name(value)
                                 : key == "namespace"      ? problem_of_namespace_name(value)
                                                           : "";
    if (!bad_name.empty()) {
        add(Severity::error, text, bad_name);
    } else if (key == "namespace" && value.empty()) {
        add(Severity::warning, text, "has no value: the default namespace is meant");
    }
    if (is_health(statement)) {
        judge_way_of_echoes(key, value, text);
        judge_time_of_run(key, value, text);
    }
    if (!is_health(statement) && key == "metric") {
        add(Severity::warning, text,
            "bird 1.6 refuses the whole fragment for it; lbroute takes it, also with --bird2");
    }
    judge_address(statement, text);
}

/// What stands twice in one block, but has one value.
void Watcher::judge_repetition(const HandledStatement& statement, const std::string& text) {
    static const std::set<std::string> blocks{"interface", "interface6", "rule", "type", "address"};
    static const std::set<std::string> single{
        "nexthop",   "source_address", "success-ct", "failure-ct", "namespace",
        "resp-time", "period",         "timeout",    "count",      "loss",
        "rtt",       "jitter",         "weight",     "metric"};
    const std::string& key = statement.key;
    const int depth = statement.depth;
    if (blocks.contains(key)) {
        given_.erase(given_.lower_bound({depth, ""}), given_.end());
    } else if (single.contains(key)) {
        int& line = given_[{depth, key}];
        if (line != 0) {
            add(Severity::warning, text,
                "a second " + key + " in one block: this one counts, not that of line " +
                    std::to_string(line));
        }
        line = line_;
    }
}

/// B45, B46: some echoes leave as frames also where the interface's name tells of none.
void Watcher::judge_way_of_echoes(const std::string& key, const std::string& value,
                                  const std::string& text) {
    if (key == "interface6" && echoes_through_tunnel(value)) {
        add(Severity::warning, text,
            "a tunnel or modem by its name: its IPv6 probes leave as Ethernet frames, which "
            "neither can send; use an Ethernet interface for IPv6");
    } else if (is_interface_keyword(key) && is_unreachable_by_frames(value)) {
        add(Severity::warning, text,
            std::string("by its name a link without Ethernet addresses, into which frames are sent "
                        "in vain; ") +
                (key == "interface6" ? "use an Ethernet interface for IPv6"
                                     : "give it a name with 'gre' or 'ip4ip4' in it, or for type "
                                       "ping 'modem'"));
    } else if (key == "type" && value == "ping_ext" && echoes_through_tunnel(interface_) &&
               !pings_through_tunnel(interface_)) {
        add(Severity::warning, text,
            "a modem by its name: extended pings leave as Ethernet frames, which it cannot send; "
            "write type ping");
    }
}

/// B73: the dumps show the time all the same.
void Watcher::judge_time_of_run(const std::string& key, const std::string& value,
                                const std::string& text) {
    if (key == "type" || is_interface_keyword(key)) {
        is_extended_ = key == "type" && value == "ping_ext";
    } else if (key == "resp-time" && is_extended_) {
        add(Severity::warning, text,
            "acts on nothing in a ping_ext: how long each echo is waited for is its timeout");
    }
}

void Watcher::judge_address(const HandledStatement& statement, const std::string& text) {
    const std::string& key = statement.key;
    const std::string& value = statement.value;
    if (!is_health(statement)) {
        const std::string problem =
            key == "address" ? problem_of_prefix(family_of(!is_ipv4_rule(rule_)), value) : "";
        if (!problem.empty()) {
            add(Severity::error, text, problem);
        }
        return;
    }
    if (key == "nexthop") {
        judge_next_hop(value, text);
        return;
    }
    const bool is_literal = key == "source_address" || key == "target";
    if (!is_literal) {
        return;
    }
    if (!is_address(family_of(is_ipv6_), value)) {
        add(Severity::error, text,
            std::string(no_address) + (key == "target" ? ": the probe is never sent" : ""));
    } else if (!is_of_a_host(family_of(is_ipv6_), value)) {
        add(Severity::warning, text,
            key == "target" ? "no host has this address: nothing ever answers"
                            : "no host has this address: nothing can be answered to it");
    }
}

void Watcher::judge_next_hop(const std::string& value, const std::string& text) {
    const bool is_learnt = value == "dhcp" || value == "tunnel";
    if (is_learnt && is_ipv6_) {
        add(Severity::error, text, "an IPv6 probe needs a configured next hop: it is never sent");
        return;
    }
    if (value == "tunnel" && !echoes_through_tunnel(interface_) &&
        !is_unreachable_by_frames(interface_)) {
        add(Severity::warning, text,
            "probes of " + interface_ +
                " leave as Ethernet frames, as it is no tunnel by name: only names with 'gre', "
                "'ip4ip4' or 'modem' in them are");
    }
    if (is_learnt) {
        return;
    }
    const int family = family_of(is_ipv6_);
    const std::string problem =
        is_address(family, value) ? problem_of_next_hop(family, value) : no_address;
    if (!problem.empty()) {
        add(Severity::error, text, problem);
    }
    if (is_ipv6_ && is_link_local(value)) {
        add(Severity::warning, text,
            "a link-local next hop: only lbroute routes it (with --bird2 too), other routing "
            "daemons "
            "do not know its interface");
    }
}

/// Values that are numbers, but make no sense where they stand.
void Watcher::judge_limit(const std::string& key, const std::string& value,
                          const std::string& text) {
    const int number = configured_number(value);
    if ((key == "loss" || key == "rtt" || key == "jitter") && number <= 0) {
        add(Severity::warning, text, "a " + key + " limit of 0 fails every run");
    } else if (key == "count" && number <= 0) {
        add(Severity::warning, text, "a count of 0 fails every run");
    } else if ((key == "timeout" || (key == "resp-time" && !is_extended_)) && number <= 0) {
        add(Severity::warning, text, "leaves no time for an answer");
    } else if (key == "timeout" && number % ms_per_s != 0 && pings_through_tunnel(interface_)) {
        add(Severity::error, text, "on a tunnel only whole seconds work: every run fails");
    } else if (key == "weight" && number > heaviest) {
        add(Severity::warning, text, "the routing daemon takes weights up to 256");
    }
}

}  // namespace lbcheck
