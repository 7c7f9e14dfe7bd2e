#include "lbwatch/metrics.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "shared/plain_text.h"

namespace lbwatch {

namespace {

using Labels = std::vector<prometheus::ClientMetric::Label>;

/// Families in the order of their making; the serializer wants each as a whole.
class Families {
  public:
    void gauge(const char* name, const char* help, Labels labels, double value) {
        prometheus::ClientMetric metric;
        metric.label = std::move(labels);
        metric.gauge.value = value;
        family(name, help, prometheus::MetricType::Gauge).metric.push_back(std::move(metric));
    }
    void counter(const char* name, const char* help, Labels labels, double value) {
        prometheus::ClientMetric metric;
        metric.label = std::move(labels);
        metric.counter.value = value;
        family(name, help, prometheus::MetricType::Counter).metric.push_back(std::move(metric));
    }
    std::string text() const { return prometheus::TextSerializer().Serialize(families_); }

  private:
    prometheus::MetricFamily& family(const char* name, const char* help,
                                     prometheus::MetricType type) {
        const auto found = std::find_if(families_.begin(), families_.end(),
                                        [name](const auto& one) { return one.name == name; });
        if (found != families_.end()) {
            return *found;
        }
        prometheus::MetricFamily made;
        made.name = name;
        made.help = help;
        made.type = type;
        families_.push_back(std::move(made));
        return families_.back();
    }

    std::vector<prometheus::MetricFamily> families_;
};

Labels labels_of(const UplinkKey& key) {
    return {{"uplink", shared::harmless(key.name)},
            {"family", "ipv" + std::to_string(key.family)},
            {"namespace", shared::harmless(key.namespace_name)}};
}

Labels with(Labels labels, const char* name, const std::string& value) {
    labels.push_back({name, shared::harmless(value)});
    return labels;
}

void add_quality(Families& all, const Labels& labels, const dumps::Quality& quality) {
    all.gauge("lb_quality_loss_ratio", "Loss of the last extended ping, 0 to 1.", labels,
              quality.loss_percent / 100.0);
    all.gauge("lb_quality_rtt_seconds", "Mean round-trip time of the last extended ping.", labels,
              quality.rtt_ms / 1000.0);
    all.gauge("lb_quality_jitter_seconds", "Jitter of the last extended ping.", labels,
              quality.jitter_ms / 1000.0);
    all.gauge("lb_quality_loss_limit_ratio", "Loss at which the extended ping fails, 0 to 1.",
              labels, quality.loss_limit / 100.0);
    all.gauge("lb_quality_rtt_limit_seconds", "Round-trip time at which the extended ping fails.",
              labels, quality.rtt_limit / 1000.0);
    all.gauge("lb_quality_jitter_limit_seconds", "Jitter at which the extended ping fails.", labels,
              quality.jitter_limit / 1000.0);
}

void add_uplink(Families& all, const UplinkKey& key, const Uplink& uplink) {
    const Labels labels = labels_of(key);
    for (const UplinkState state :
         {UplinkState::active, UplinkState::failed, UplinkState::unknown}) {
        all.gauge("lb_uplink_state", "1 for the state the uplink is in.",
                  with(labels, "state", word_of(state)), uplink.state == state ? 1 : 0);
    }
    all.gauge("lb_uplink_routed", "1 while some destination uses the uplink.", labels,
              uplink.is_routed ? 1 : 0);
    all.counter("lb_uplink_transitions_total",
                "Changes between active and failed, by the new state.",
                with(labels, "to", "active"), static_cast<double>(uplink.to_active));
    all.counter("lb_uplink_transitions_total", "", with(labels, "to", "failed"),
                static_cast<double>(uplink.to_failed));
    all.counter("lb_uplink_down_seconds_total", "Time in which the uplink was seen failed.", labels,
                static_cast<double>(uplink.down_ms) / 1000.0);
    for (const auto& [address, target] : uplink.targets) {
        const Labels asked = with(labels, "target", address);
        all.counter("lb_probe_answered_total",
                    "Cycles whose latest collected probe of the target was answered.", asked,
                    static_cast<double>(target.answered));
        all.counter("lb_probe_missed_total",
                    "Cycles whose latest collected probe of the target was not answered.", asked,
                    static_cast<double>(target.missed));
        if (target.quality) {
            add_quality(all, asked, *target.quality);
        }
    }
}

}  // namespace

std::string metrics_of(const View& view, const std::vector<Router>& routers,
                       const std::string& version, const Moment& now) {
    Families all;
    all.gauge("lb_build_info", "1, with the version of lbwatch.", {{"version", version}}, 1);
    all.gauge("lb_up", "1 while the daemon rewrites its dumps.", {},
              view.daemon == DaemonState::running ? 1 : 0);
    if (view.last_written_boot_ms) {
        all.gauge("lb_dump_age_seconds", "Time since a dump was last rewritten and believed.", {},
                  static_cast<double>(now.boot_ms - *view.last_written_boot_ms) / 1000.0);
    }
    for (const Router& router : routers) {
        all.gauge("lb_router_up",
                  "1 while the routing daemon runs that the balancing daemon tells of new routes.",
                  {{"family", "ipv" + std::to_string(router.family)},
                   {"namespace", shared::harmless(router.namespace_name)}},
                  router.is_running ? 1 : 0);
    }
    if (!view.history.empty()) {
        all.gauge("lb_history_written", "1 while the history is written to its file.", {},
                  view.history_state.problem.empty() ? 1 : 0);
        all.gauge("lb_history_waiting_rows",
                  "Rows of the history that wait in memory to be written.", {},
                  static_cast<double>(view.history_state.waiting_rows));
        all.counter("lb_history_lost_rows_total", "Rows of the history that were lost.", {},
                    static_cast<double>(view.history_state.lost_rows));
    }
    for (const auto& [key, uplink] : view.uplinks) {
        add_uplink(all, key, uplink);
    }
    for (const auto& [key, rule] : view.rules) {
        const Labels labels{{"rule", shared::harmless(key.name)},
                            {"namespace", shared::harmless(key.namespace_name)}};
        const auto count = [&view, &members = rule.members](UplinkState state) {
            return static_cast<double>(
                std::count_if(members.begin(), members.end(), [&view, state](const auto& member) {
                    const auto found = view.uplinks.find(member);
                    return found != view.uplinks.end() && found->second.state == state;
                }));
        };
        all.gauge("lb_rule_uplinks", "Uplinks of the rule.", labels,
                  static_cast<double>(rule.members.size()));
        all.gauge("lb_rule_uplinks_active", "Uplinks of the rule that are active.", labels,
                  count(UplinkState::active));
        all.gauge("lb_rule_uplinks_failed", "Uplinks of the rule that have failed.", labels,
                  count(UplinkState::failed));
    }
    return all.text();
}

}  // namespace lbwatch
