#include "lbcheck/findings.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include "config/lb_data_factory.h"
#include "config/load_observer.h"
#include "decision/lb_decision.h"
#include "decision/route_text.h"
#include "platform/log.h"
#include "probe/lb_test.h"
#include "probe/lb_test6.h"
#include "probe/lb_test_ping.h"
#include <nlohmann/json.hpp>

namespace lbcheck {

namespace {

/// What the loader logs is found here in its own words.
thread_local std::vector<std::string> logged;

void keep_line(int /*severity*/, const char* line) {
    logged.emplace_back(line);
}

const std::set<std::string> number_keywords{"success-ct", "failure-ct", "resp-time", "period",
                                            "timeout",    "count",      "loss",      "rtt",
                                            "jitter",     "weight",     "metric"};
const std::set<std::string> extended_keywords{"period", "timeout", "count",
                                              "loss",   "rtt",     "jitter"};

bool is_number(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char character) {
        return std::isdigit(character) != 0;
    });
}

bool parses(int family, const std::string& text) {
    in6_addr binary{};
    return inet_pton(family, text.c_str(), &binary) == 1;
}

bool is_prefix(int family, const std::string& text) {
    const std::size_t slash = text.find('/');
    const std::string length = slash == std::string::npos ? "" : text.substr(slash + 1);
    return slash != std::string::npos && parses(family, text.substr(0, slash)) &&
           is_number(length) && std::stoul(length.substr(0, 4)) <= (family == AF_INET ? 32U : 128U);
}

int family_of(bool is_ipv6) {
    return is_ipv6 ? AF_INET6 : AF_INET;
}

/// Follows the loader through the file.
class Watcher : public LoadObserver {
  public:
    explicit Watcher(std::vector<Finding>& findings) : findings_(findings) {}

    void line(const std::string& read) override {
        if (is_new_line_) {
            ++line_;
            has_comment_ = false;
        } else {
            judge_cut_line(read);
        }
        is_new_line_ = read.ends_with('\n');
        read_ = read.substr(0, read.find('\n'));
        has_comment_ = has_comment_ || read.find('#') != std::string::npos;
        if (!read_.empty() && read_.back() == '\r' && !has_reported_return_) {
            has_reported_return_ = true;
            add(Severity::error, read_.substr(0, read_.size() - 1),
                "lines end in carriage returns: no bracket is seen, and so no block");
        }
    }

    void statement(int depth, const std::string& key, const std::string& value,
                   Handled handled) override {
        note_place(depth, key, value);
        report_log();
        switch (handled) {
            case Handled::acted:
                judge_value(key, value);
                break;
            case Handled::kept:
                add(Severity::warning, key + " " + value,
                    "declared before: the lines of both blocks act on one entry");
                break;
            case Handled::dropped:
                add(Severity::warning, key + " " + value,
                    "the number of this rule has a probe already: this one is dropped");
                break;
            case Handled::ignored:
                judge_ignored(key, value);
                break;
            case Handled::refused:
                break;  // the loader has said why
        }
    }

    /// What was logged since the last statement, at the line of it.
    void report_log() {
        for (const std::string& text : logged) {
            const bool is_error = text.find("illegal") == std::string::npos;
            add(is_error ? Severity::error : Severity::warning, "",
                text.substr(text.find(": ") + 2));
        }
        logged.clear();
    }

    int line_of(const std::string& place) const {
        const auto found = lines_.find(place);
        return found == lines_.end() ? 0 : found->second;
    }

  private:
    void add(Severity severity, const std::string& text, const std::string& message) {
        findings_.push_back(
            {.line = line_, .severity = severity, .text = text, .message = message});
    }

    void judge_cut_line(const std::string& /*read*/) {
        add(Severity::warning, "",
            has_comment_ ? "the line is longer than a read of 1,023 characters: the rest of its "
                           "comment is read as a line of its own"
                         : "the line is longer than a read of 1,023 characters: the rest is read "
                           "as a line of its own");
    }

    void note_place(int depth, const std::string& key, const std::string& value) {
        if (key == "health") {
            is_in_health_ = true;
        } else if (key == "interface" || key == "interface6") {
            // The place of an interface is where it is declared, not where it is a rule's member.
            if (is_in_health_) {
                lines_.try_emplace(key + " " + value, line_);
            }
            is_ipv6_ = key == "interface6";
        } else if (key == "rule" && depth <= 1) {
            is_in_health_ = false;
            lines_.try_emplace("rule " + value, line_);
        } else if (key == "type") {
            type_ = value;
        }
        if (!key.empty()) {
            lines_.try_emplace(key + "=" + value, line_);
        }
    }

    void judge_value(const std::string& key, const std::string& value) {
        if (number_keywords.contains(key) && !is_number(value)) {
            add(Severity::warning, key + " " + value,
                "no plain number: the digits before the first other character count");
        }
        if (extended_keywords.contains(key) && (is_ipv6_ || type_ != "ping_ext")) {
            add(Severity::warning, key + " " + value, "acts on a probe of type ping_ext only");
        } else if (key == "loss" && value == "0") {
            add(Severity::warning, key + " " + value, "a loss limit of 0 fails every run");
        } else if (key == "count" && value == "0") {
            add(Severity::warning, key + " " + value, "a count of 0 fails every run");
        }
    }

    void judge_ignored(const std::string& key, const std::string& value) {
        if (key.empty()) {
            return;
        }
        const std::string text = value.empty() ? key : key + " " + value;
        if (key == "type" && is_ipv6_ && value == "ping_ext") {
            add(Severity::error, text, "there is no extended ping for IPv6: nothing is created");
        } else if (key == "type") {
            add(Severity::error, text, "no such type of probe: nothing is created");
        } else if (key != "health" && key != "target") {
            add(Severity::warning, text, "unknown or misplaced keyword: ignored");
        } else if (key == "target" && !value.empty()) {
            add(Severity::warning, text, "no probe is current: ignored");
        }
    }

    std::vector<Finding>& findings_;
    std::map<std::string, int> lines_;
    std::string read_;
    std::string type_;
    int line_ = 0;
    bool is_in_health_ = false;
    bool is_ipv6_ = false;
    bool is_new_line_ = true;
    bool has_comment_ = false;
    bool has_reported_return_ = false;
};

/// Judges what was loaded as a whole.
class Judge {
  public:
    Judge(const LBData& data, const Watcher& watcher, std::vector<Finding>& findings)
        : data_(data), watcher_(watcher), findings_(findings) {}

    void judge() {
        for (const bool is_ipv6 : {false, true}) {
            for (const auto& [name, health] : data_.family(is_ipv6)) {
                judge_interface(name, health, is_ipv6);
            }
        }
        for (const auto& [name, rule] : data_.rules) {
            judge_rule(name, rule);
        }
    }

  private:
    void add(const std::string& place, Severity severity, const std::string& text,
             const std::string& message) {
        findings_.push_back({.line = watcher_.line_of(place),
                             .severity = severity,
                             .text = text,
                             .message = message});
    }

    void judge_interface(const std::string& name, const LBHealth& health, bool is_ipv6) {
        const std::string place = (is_ipv6 ? "interface6 " : "interface ") + name;
        const int family = family_of(is_ipv6);
        if (health.success_ct == 0 || health.failure_ct == 0) {
            add(place, Severity::warning, place,
                "without success-ct or failure-ct every single result counts at once");
        }
        const bool is_learnt = health.nexthop == "dhcp" || health.nexthop == "tunnel";
        if (health.nexthop.empty()) {
            add(place, Severity::warning, place, "has no nexthop");
        } else if (is_ipv6 && is_learnt) {
            add(place, Severity::warning, "nexthop " + health.nexthop,
                "an IPv6 probe needs a configured next hop: it is never sent");
        } else if (!is_learnt && !parses(family, health.nexthop)) {
            add("nexthop=" + health.nexthop, Severity::error, "nexthop " + health.nexthop,
                "no address of the interface's family");
        }
        if (!health.source_address.empty() && !parses(family, health.source_address)) {
            add("source_address=" + health.source_address, Severity::error,
                "source_address " + health.source_address, "no address of the interface's family");
        }
        for (const auto& [number, probe] : health.tests) {
            judge_target(probe->target, family);
        }
        for (const auto& [number, probe] : health.tests6) {
            judge_target(probe->target, family);
        }
        if (!is_member(name, is_ipv6)) {
            add(place, Severity::warning, place, "is a member of no rule: probed, never routed");
        }
    }

    void judge_target(const std::string& target, int family) {
        if (!target.empty() && !parses(family, target)) {
            add("target=" + target, Severity::error, "target " + target,
                "no address of the interface's family: the probe is never sent");
        }
    }

    bool is_member(const std::string& name, bool is_ipv6) const {
        return std::any_of(data_.rules.begin(), data_.rules.end(), [&](const auto& rule) {
            return rule.second.interfaces.contains({name, is_ipv6});
        });
    }

    bool has_interface_in(const std::string& ns_name, bool is_ipv6) const {
        const auto& interfaces = data_.family(is_ipv6);
        return std::any_of(interfaces.begin(), interfaces.end(), [&](const auto& entry) {
            return entry.second.namespace_name == ns_name;
        });
    }

    void judge_rule(const std::string& name, const LBRule& rule) {
        const std::string place = "rule " + name;
        const bool is_ipv6 = !is_ipv4_rule(name);
        if (rule.targets.empty()) {
            add(place, Severity::warning, place, "has no target: it routes nothing");
        }
        if (rule.interfaces.empty()) {
            add(place, Severity::warning, place, "has no interface: it routes nothing");
        }
        if (!has_interface_in(rule.namespace_name, is_ipv6)) {
            add(place, Severity::warning, place,
                "no interface of its family lies in its namespace: no worker serves it");
        }
        for (const auto& [prefix, metric] : rule.targets) {
            if (!is_prefix(family_of(is_ipv6), prefix)) {
                add("address=" + prefix, Severity::error, "address " + prefix,
                    "no prefix of the rule's family");
            }
        }
        for (const auto& [member, weight] : rule.interfaces) {
            judge_member(place, rule, member, weight);
        }
    }

    void judge_member(const std::string& place, const LBRule& rule,
                      const std::pair<std::string, bool>& member, int weight) {
        const auto& [name, is_ipv6] = member;
        const std::string text = (is_ipv6 ? "interface6 " : "interface ") + name;
        const auto& interfaces = data_.family(is_ipv6);
        const auto found = interfaces.find(name);
        if (found == interfaces.end()) {
            add(place, Severity::warning, text, "is not under health: never active");
        } else if (found->second.namespace_name != rule.namespace_name) {
            add(place, Severity::warning, text, "lies in another namespace than the rule");
        }
        if (weight == 0) {
            add(place, Severity::warning, text, "has no weight: never routed");
        }
    }

    const LBData& data_;
    const Watcher& watcher_;
    std::vector<Finding>& findings_;
};

const char* word_of(Severity severity) {
    switch (severity) {
        case Severity::warning:
            return "warning";
        case Severity::error:
            return "error";
    }
    return "error";
}

std::string shown_namespace(const std::string& name) {
    return name.empty() ? "the default namespace" : "namespace " + name;
}

template <class Probes>
std::string explain_probes(const Probes& probes) {
    std::string text;
    for (const auto& [number, probe] : probes) {
        text += "    probe " + std::to_string(number) + ": " + probe->name() + ", target " +
                (probe->target.empty() ? "the next hop" : probe->target) + ", " +
                std::to_string(probe->timeout) + " ms";
        if (const auto* ping = dynamic_cast<const LBTestPING*>(probe)) {
            text += "; " + std::to_string(ping->count) + " echoes of " +
                    std::to_string(ts2msecs(&ping->ping_timeout)) + " ms, limits loss " +
                    std::to_string(ping->loss) + "%, rtt " + std::to_string(ping->rtt) +
                    " ms, jitter " + std::to_string(ping->jitter) + " ms";
        }
        text += "\n";
    }
    return text;
}

std::string explain_workers(const LBData& data) {
    std::map<std::pair<std::string, bool>, std::pair<int, int>> needs;
    for (const bool is_ipv6 : {false, true}) {
        for (const auto& [name, health] : data.family(is_ipv6)) {
            ++needs[{health.namespace_name, is_ipv6}].first;
        }
    }
    for (const auto& [name, rule] : data.rules) {
        ++needs[{rule.namespace_name, !is_ipv4_rule(name)}].second;
    }
    std::string text = "Workers:\n";
    for (const auto& [key, counts] : needs) {
        text += "  " + shown_namespace(key.first) + ", " + (key.second ? "IPv6" : "IPv4") + ": " +
                std::to_string(counts.first) + " interfaces, " + std::to_string(counts.second) +
                " rules" +
                (counts.first != 0 && counts.second != 0 ? "" : " (no worker is started)") + "\n";
    }
    return text;
}

/// The route lines of a rule when all uplinks work; a next hop that is learnt stands as a word.
std::string explain_routes(LBData& data, std::map<std::string, LBRule>::iterator rule) {
    std::string text;
    for (const bool is_ipv6 : {false, true}) {
        std::string ns_name = rule->second.namespace_name;
        context ctx{.ipv6 = is_ipv6, .ns_name = &ns_name};
        LBDecision decision;
        const auto weights = decision.get_new_weights(data, rule->second, &ctx);
        for (auto target = rule->second.targets.begin(); target != rule->second.targets.end();
             ++target) {
            std::string line;
            bool is_added = false;
            for (const auto& [name, weight] : weights) {
                decision.generate_route(data.family(is_ipv6).find(name), &line, &is_added, rule,
                                        weights, target, &ctx);
            }
            if (is_added) {
                text += "    " + route_line(target->first, line, target->second);
            }
        }
    }
    return text.empty() ? "    no route\n" : text;
}

}  // namespace

Checked check(const std::string& path) {
    Checked checked;
    logged.clear();
    const LogSink before = set_log_sink(keep_line);
    Watcher watcher(checked.findings);
    LBDataFactory factory;
    factory.observer = &watcher;
    factory.load(path);
    watcher.report_log();
    set_log_sink(before);
    checked.data = LBData(factory.get());
    Judge(checked.data, watcher, checked.findings).judge();
    std::stable_sort(checked.findings.begin(), checked.findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    return checked;
}

std::string explain(const LBData& understood) {
    LBData data(understood);
    std::string text = explain_workers(data) + "Interfaces:\n";
    for (const bool is_ipv6 : {false, true}) {
        for (auto& [name, health] : data.family(is_ipv6)) {
            health.active = true;
            health.nexthop_addr = "<" + health.nexthop + ">";
            text += "  " + name + (is_ipv6 ? " (IPv6), " : " (IPv4), ") +
                    shown_namespace(health.namespace_name) + ", next hop " +
                    (health.nexthop.empty() ? "none" : health.nexthop) + ", up after " +
                    std::to_string(std::max(health.success_ct, 1)) + ", down after " +
                    std::to_string(std::max(health.failure_ct, 1)) +
                    (health.check_all ? ", all targets must answer" : "") + "\n" +
                    explain_probes(health.tests) + explain_probes(health.tests6);
        }
    }
    text += "Rules:\n";
    for (auto rule = data.rules.begin(); rule != data.rules.end(); ++rule) {
        text += "  " + rule->first + ", " + shown_namespace(rule->second.namespace_name) +
                (rule->second.failover != 0 ? ", failover" : ", shared by weight") + "\n" +
                explain_routes(data, rule);
    }
    return text;
}

std::string as_text(const std::string& path, const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        text += path + ":" + (finding.line == 0 ? "" : std::to_string(finding.line) + ":") + " " +
                word_of(finding.severity) + ": " +
                (finding.text.empty() ? "" : "'" + finding.text + "': ") + finding.message + "\n";
    }
    return text;
}

std::string as_json(const std::string& path, const std::vector<Finding>& findings) {
    using Json = nlohmann::ordered_json;
    Json list = Json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"line", finding.line},
                        {"severity", word_of(finding.severity)},
                        {"text", finding.text},
                        {"message", finding.message}});
    }
    const Json all{{"file", path}, {"findings", list}};
    return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

int exit_status(const std::vector<Finding>& findings, bool is_strict) {
    const bool has_error = std::any_of(findings.begin(), findings.end(), [](const Finding& one) {
        return one.severity == Severity::error;
    });
    if (has_error) {
        return 2;
    }
    return is_strict && !findings.empty() ? 1 : 0;
}

}  // namespace lbcheck
