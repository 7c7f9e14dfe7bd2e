#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "lbshow/views.h"
#include "shared/plain_text.h"

namespace lbshow {

namespace {

std::string label_value(const std::string& text) {
    std::string escaped;
    for (const char character : shared::harmless(text)) {
        if (character == '\\' || character == '"') {
            escaped += '\\';
        }
        escaped += character;
    }
    return escaped;
}

using Labels = std::vector<std::pair<const char*, std::string>>;

/// `value` / 10^`digits`, without the rounding of binary fractions.
std::string fraction(int value, int digits) {
    std::int64_t divisor = 1;
    for (int i = 0; i < digits; ++i) {
        divisor *= 10;
    }
    const std::int64_t positive = std::abs(static_cast<std::int64_t>(value));
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%s%" PRId64 ".%0*" PRId64, value < 0 ? "-" : "",
             positive / divisor, digits, positive % divisor);
    return text.data();
}

/// Samples by metric: the format wants all of a metric behind its head.
class Metrics {
  public:
    /// A series that stands there already is left alone: a scraper refuses the whole text for one
    /// that comes twice.
    void add(const char* name, const char* help, const Labels& labels, const std::string& value) {
        Metric& metric = metrics_[name];
        metric.help = help;
        std::string joined;
        for (const auto& [label, text] : labels) {
            joined.append(joined.empty() ? "" : ",").append(label);
            joined.append("=\"").append(label_value(text)).append("\"");
        }
        metric.samples.try_emplace(joined, value);
        if (metric.samples.size() > metric.order.size()) {
            metric.order.push_back(joined);
        }
    }
    void add(const char* name, const char* help, const Labels& labels, std::int64_t value) {
        add(name, help, labels, std::to_string(value));
    }

    std::string text() const {
        std::string all;
        for (const auto& [name, metric] : metrics_) {
            all += "# HELP " + name + " " + metric.help + "\n# TYPE " + name + " gauge\n";
            for (const std::string& labels : metric.order) {
                all += name;
                all += "{" + labels + "} " + metric.samples.at(labels) + "\n";
            }
        }
        return all;
    }

  private:
    struct Metric {
        std::string help;
        std::map<std::string, std::string> samples;  // value by labels
        std::vector<std::string> order;
    };
    std::map<std::string, Metric> metrics_;
};

void add_probe(Metrics& all, Labels labels, const dumps::Probe& probe) {
    labels.emplace_back("probe", std::to_string(probe.position));
    labels.emplace_back("type", probe.type());
    labels.emplace_back("target", probe.target);
    all.add("lb_probe_answered", "1 when the last collected probe was answered", labels,
            probe.last_result == dumps::Result::answered ? 1 : 0);
    all.add("lb_probe_success_run", "answered probes of the target in a row", labels,
            probe.success_run);
    all.add("lb_probe_failure_run", "unanswered probes of the target in a row", labels,
            probe.failure_run);
    if (probe.quality) {
        all.add("lb_probe_loss_ratio", "part of the last run's echoes that were lost", labels,
                fraction(probe.quality->loss_percent, 2));
        all.add("lb_probe_rtt_seconds", "mean round-trip time of the last run", labels,
                fraction(probe.quality->rtt_ms, 3));
        all.add("lb_probe_jitter_seconds", "longest less mean round-trip time of the last run",
                labels, fraction(probe.quality->jitter_ms, 3));
    }
}

Labels labels_of(const dumps::Interface& one) {
    return {{"interface", one.name},
            {"family", dumps::family_name(one.family)},
            {"namespace", one.namespace_name}};
}

void add_stalled(Metrics& all, const dumps::Interface& one, int value) {
    all.add("lb_interface_worker_stalled",
            "1 when the interface is judged no more although its family's dump is fresh",
            labels_of(one), value);
}

void add_interface(Metrics& all, const dumps::Interface& one) {
    const Labels labels = labels_of(one);
    add_stalled(all, one, 0);
    all.add("lb_interface_active",
            "1 when the interface is healthy, that is, enough of its probes are answered", labels,
            one.is_active ? 1 : 0);
    all.add("lb_interface_routed", "1 when the daemon hands out a route that uses the interface",
            labels, one.is_routed ? 1 : 0);
    if (one.since_success_s) {
        all.add("lb_interface_seconds_since_success", "age of the last evaluation that found it up",
                labels, *one.since_success_s);
    }
    if (one.since_failure_s) {
        all.add("lb_interface_seconds_since_failure",
                "age of the last evaluation that found it down", labels, *one.since_failure_s);
    }
    for (const dumps::Probe& probe : one.probes) {
        add_probe(all, labels, probe);
    }
}

void add_family(Metrics& all, const dumps::Family& one) {
    const Labels labels{{"family", dumps::family_name(one.family)}};
    all.add("lb_up", "1 when the daemon writes the family's dumps, 0 when they are stale", labels,
            one.is_stale ? 0 : 1);
    all.add("lb_dump_age_seconds", "age of the oldest dump that tells of the family", labels,
            one.age_s);
}

void add_rule(Metrics& all, const dumps::Rule& rule) {
    for (const dumps::Member& member : rule.members) {
        all.add("lb_rule_member_weight", "configured weight, its lowest byte",
                {{"rule", rule.name()},
                 {"namespace", rule.namespace_name},
                 {"interface", member.interface},
                 {"family", dumps::family_name(member.family)}},
                member.weight);
    }
}

}  // namespace

std::string metrics(const dumps::State& state, const std::string& version) {
    Metrics all;
    all.add("lb_build_info", "1, with the version of the programs", {{"version", version}}, 1);
    for (const dumps::Family& one : state.families) {
        add_family(all, one);
    }
    for (const dumps::Interface& one : state.unjudged) {
        add_stalled(all, one, 1);
    }
    for (const dumps::Interface& one : state.interfaces) {
        add_interface(all, one);
    }
    for (const dumps::Rule& rule : state.rules) {
        add_rule(all, rule);
    }
    for (const dumps::Route& route : state.routes) {
        if (!route.nexthop.empty()) {
            all.add(
                "lb_route_chosen", "1 for the next hop that a failover rule chose",
                {{"rule", route.rule_name()}, {"prefix", route.prefix}, {"nexthop", route.nexthop}},
                1);
        }
    }
    return all.text();
}

}  // namespace lbshow
