#include "lbshow/views.h"

#include <algorithm>
#include <functional>
#include <map>

#include "lbshow/harmless.h"
#include <nlohmann/json.hpp>

namespace lbshow {

namespace {

std::string or_dash(const std::string& text) {
    return text.empty() ? "-" : harmless(text);
}

std::string age(const std::optional<int>& seconds) {
    if (!seconds) {
        return "never";
    }
    const auto all = static_cast<unsigned>(*seconds);
    if (all >= 86400) {
        return std::to_string(all / 86400) + "d" + std::to_string(all / 3600 % 24) + "h";
    }
    if (all >= 3600) {
        return std::to_string(all / 3600) + "h" + std::to_string(all / 60 % 60) + "m";
    }
    return all >= 60 ? std::to_string(all / 60) + "m" + std::to_string(all % 60) + "s"
                     : std::to_string(all) + "s";
}

const char* word_of(Result result) {
    switch (result) {
        case Result::none:
            return "none";
        case Result::answered:
            return "answered";
        case Result::timed_out:
            return "timed_out";
    }
    return "none";
}

const char* shown_result(Result result) {
    switch (result) {
        case Result::none:
            return "not yet";
        case Result::answered:
            return "answered";
        case Result::timed_out:
            return "no answer";
    }
    return "not yet";
}

// Tables.

enum class Colour { plain, good, bad };

struct Cell {
    std::string text;
    Colour colour = Colour::plain;
};

class Table {
  public:
    explicit Table(std::vector<std::string> head) {
        std::vector<Cell> cells;
        for (std::string& title : head) {
            cells.push_back({std::move(title)});
        }
        rows_.push_back(std::move(cells));
    }

    void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }

    std::string text(bool is_coloured) const {
        std::vector<std::size_t> widths(rows_.front().size());
        for (const auto& row : rows_) {
            for (std::size_t i = 0; i < row.size(); ++i) {
                widths[i] = std::max(widths[i], row[i].text.size());
            }
        }
        std::string all;
        for (const auto& row : rows_) {
            std::string line;
            for (std::size_t i = 0; i < row.size(); ++i) {
                line += painted(row[i], is_coloured);
                if (i + 1 < row.size()) {
                    line += std::string(widths[i] - row[i].text.size() + 2, ' ');
                }
            }
            all += line + "\n";
        }
        return all;
    }

  private:
    static std::string painted(const Cell& cell, bool is_coloured) {
        if (!is_coloured || cell.colour == Colour::plain) {
            return cell.text;
        }
        return (cell.colour == Colour::good ? "\033[32m" : "\033[31m") + cell.text + "\033[0m";
    }

    std::vector<std::vector<Cell>> rows_;
};

std::string quality_text(const std::optional<Quality>& quality) {
    if (!quality) {
        return "-";
    }
    const auto against = [](int measured, int limit, const char* unit) {
        return std::to_string(measured) + "/" + std::to_string(limit) + unit;
    };
    return "loss " + against(quality->loss_percent, quality->loss_limit, "%") + " rtt " +
           against(quality->rtt_ms, quality->rtt_limit, "ms") + " jitter " +
           against(quality->jitter_ms, quality->jitter_limit, "ms");
}

Cell state_cell(bool is_active) {
    return is_active ? Cell{"active", Colour::good} : Cell{"failed", Colour::bad};
}

Cell result_cell(Result result) {
    const Colour colour = result == Result::answered    ? Colour::good
                          : result == Result::timed_out ? Colour::bad
                                                        : Colour::plain;
    return {shown_result(result), colour};
}

std::string run_text(int run, int threshold) {
    return std::to_string(run) + "/" + std::to_string(threshold);
}

Table interface_table(const std::vector<Interface>& interfaces) {
    Table table({"INTERFACE", "FAMILY", "NAMESPACE", "STATE", "NEXT HOP", "FROM", "SOURCE",
                 "LAST UP", "LAST DOWN"});
    for (const Interface& one : interfaces) {
        table.add({{harmless(one.name)},
                   {"ipv" + std::to_string(one.family)},
                   {or_dash(one.namespace_name)},
                   state_cell(one.is_active),
                   {or_dash(one.nexthop)},
                   {one.nexthop_from},
                   {or_dash(one.source_address)},
                   {age(one.since_success_s)},
                   {age(one.since_failure_s)}});
    }
    return table;
}

Table probe_table(const std::vector<Interface>& interfaces) {
    Table table({"INTERFACE", "TARGET", "LAST PROBE", "SUCCESSES", "FAILURES", "QUALITY"});
    for (const Interface& one : interfaces) {
        for (const Probe& probe : one.probes) {
            table.add({{harmless(one.name)},
                       {or_dash(probe.target)},
                       result_cell(probe.last_result),
                       {run_text(probe.success_run, one.success_ct)},
                       {run_text(probe.failure_run, one.failure_ct)},
                       {quality_text(probe.quality)}});
        }
    }
    return table;
}

Table rule_table(const std::vector<Rule>& rules) {
    Table table({"RULE", "NAMESPACE", "MODE", "INTERFACE", "WEIGHT"});
    for (const Rule& rule : rules) {
        const std::string mode = rule.is_failover ? "failover" : "shared";
        if (rule.members.empty()) {
            table.add({{rule.name()}, {or_dash(rule.namespace_name)}, {mode}, {"-"}, {"-"}});
        }
        for (const Member& member : rule.members) {
            table.add({{rule.name()},
                       {or_dash(rule.namespace_name)},
                       {mode},
                       {harmless(member.interface) + (member.family == 6 ? " (ipv6)" : "")},
                       {std::to_string(member.weight)}});
        }
    }
    return table;
}

Table route_table(const std::vector<Route>& routes) {
    Table table({"RULE", "PREFIX", "METRIC", "CHOSEN NEXT HOP"});
    for (const Route& route : routes) {
        table.add({{route.rule_name()},
                   {harmless(route.prefix)},
                   {route.metric ? std::to_string(*route.metric) : "-"},
                   {or_dash(route.nexthop)}});
    }
    return table;
}

// JSON.

using Json = nlohmann::ordered_json;

Json optional_number(const std::optional<int>& number) {
    return number ? Json(*number) : Json(nullptr);
}

Json json_of(const std::optional<Quality>& quality) {
    if (!quality) {
        return nullptr;
    }
    return {{"loss_percent", quality->loss_percent}, {"rtt_ms", quality->rtt_ms},
            {"jitter_ms", quality->jitter_ms},       {"loss_limit", quality->loss_limit},
            {"rtt_limit", quality->rtt_limit},       {"jitter_limit", quality->jitter_limit}};
}

Json json_of(const Probe& probe) {
    return {{"target", probe.target},
            {"last_result", word_of(probe.last_result)},
            {"success_run", probe.success_run},
            {"failure_run", probe.failure_run},
            {"quality", json_of(probe.quality)}};
}

template <class Item>
Json json_list(const std::vector<Item>& items);

Json json_of(const Interface& one) {
    return {{"name", one.name},
            {"family", one.family},
            {"namespace", one.namespace_name},
            {"active", one.is_active},
            {"nexthop", one.nexthop},
            {"nexthop_from", one.nexthop_from},
            {"source_address", one.source_address},
            {"since_success_s", optional_number(one.since_success_s)},
            {"since_failure_s", optional_number(one.since_failure_s)},
            {"success_ct", one.success_ct},
            {"failure_ct", one.failure_ct},
            {"probes", json_list(one.probes)}};
}

Json json_of(const Member& member) {
    return {{"interface", member.interface}, {"family", member.family}, {"weight", member.weight}};
}

Json json_of(const Rule& rule) {
    return {{"name", rule.name()},          {"number", rule.number},
            {"family", rule.family},        {"namespace", rule.namespace_name},
            {"failover", rule.is_failover}, {"members", json_list(rule.members)}};
}

Json json_of(const Route& route) {
    return {{"rule", route.rule_name()},
            {"family", route.family},
            {"position", route.position},
            {"prefix", route.prefix},
            {"metric", optional_number(route.metric)},
            {"nexthop", route.nexthop.empty() ? Json(nullptr) : Json(route.nexthop)}};
}

template <class Item>
Json json_list(const std::vector<Item>& items) {
    Json list = Json::array();
    for (const Item& item : items) {
        list.push_back(json_of(item));
    }
    return list;
}

// Metrics.

std::string label_value(const std::string& text) {
    std::string escaped;
    for (const char character : harmless(text)) {
        if (character == '\\' || character == '"') {
            escaped += '\\';
        }
        escaped += character;
    }
    return escaped;
}

using Labels = std::vector<std::pair<const char*, std::string>>;

/// Samples by metric: the format wants all of a metric behind its head.
class Metrics {
  public:
    void add(const char* name, const char* help, const Labels& labels, int value) {
        Metric& metric = metrics_[name];
        metric.help = help;
        std::string joined;
        for (const auto& [label, text] : labels) {
            joined +=
                (joined.empty() ? "" : ",") + std::string(label) + "=\"" + label_value(text) + "\"";
        }
        metric.samples += std::string(name) + "{" + joined + "} " + std::to_string(value) + "\n";
    }

    std::string text() const {
        std::string all;
        for (const auto& [name, metric] : metrics_) {
            all += "# HELP " + name + " " + metric.help + "\n# TYPE " + name + " gauge\n" +
                   metric.samples;
        }
        return all;
    }

  private:
    struct Metric {
        std::string help;
        std::string samples;
    };
    std::map<std::string, Metric> metrics_;
};

void add_probe(Metrics& all, Labels labels, const Probe& probe) {
    labels.emplace_back("target", probe.target);
    all.add("lb_probe_answered", "1 when the last collected probe was answered", labels,
            probe.last_result == Result::answered ? 1 : 0);
    all.add("lb_probe_success_run", "answered probes in a row", labels, probe.success_run);
    all.add("lb_probe_failure_run", "unanswered probes in a row", labels, probe.failure_run);
    if (probe.quality) {
        all.add("lb_probe_loss_percent", "loss of the last run", labels,
                probe.quality->loss_percent);
        all.add("lb_probe_rtt_milliseconds", "mean round-trip time of the last run", labels,
                probe.quality->rtt_ms);
        all.add("lb_probe_jitter_milliseconds", "jitter of the last run", labels,
                probe.quality->jitter_ms);
    }
}

void add_interface(Metrics& all, const Interface& one) {
    const Labels labels{{"interface", one.name},
                        {"family", "ipv" + std::to_string(one.family)},
                        {"namespace", one.namespace_name}};
    all.add("lb_interface_active", "1 when the interface carries traffic", labels,
            one.is_active ? 1 : 0);
    if (one.since_success_s) {
        all.add("lb_interface_seconds_since_success", "age of the last evaluation that found it up",
                labels, *one.since_success_s);
    }
    if (one.since_failure_s) {
        all.add("lb_interface_seconds_since_failure",
                "age of the last evaluation that found it down", labels, *one.since_failure_s);
    }
    for (const Probe& probe : one.probes) {
        add_probe(all, labels, probe);
    }
}

template <class Item, class Keep>
void keep_if(std::vector<Item>& items, Keep keep) {
    std::erase_if(items, [&keep](const Item& item) { return !keep(item); });
}

}  // namespace

std::string select(State& state, const Selection& selection) {
    std::map<std::string, bool> is_known;
    for (const std::string& name : selection.names) {
        is_known[name] = false;
    }
    const auto keep_named = [&](auto& items, bool is_asked_for, auto has_name) {
        keep_if(items, [&](const auto& item) {
            bool is_named = selection.names.empty();
            for (auto& [name, known] : is_known) {
                if (is_asked_for && has_name(item, name)) {
                    known = true;
                    is_named = true;
                }
            }
            return is_asked_for && is_named;
        });
    };
    keep_named(state.interfaces, selection.interfaces,
               [](const Interface& item, const std::string& name) { return item.name == name; });
    keep_named(state.rules, selection.rules, [](const Rule& item, const std::string& name) {
        return item.name() == name || std::to_string(item.number) == name;
    });
    keep_named(state.routes, selection.routes, [](const Route& item, const std::string& name) {
        return item.prefix == name || item.rule_name() == name ||
               std::to_string(item.rule_number) == name;
    });
    const auto unknown =
        std::find_if(is_known.begin(), is_known.end(), [](const auto& one) { return !one.second; });
    return unknown == is_known.end() ? "" : unknown->first;
}

std::string tables(const State& state, const Selection& selection, bool is_coloured) {
    std::vector<std::string> parts;
    if (selection.interfaces) {
        parts.push_back(interface_table(state.interfaces).text(is_coloured));
        parts.push_back(probe_table(state.interfaces).text(is_coloured));
    }
    if (selection.rules) {
        parts.push_back(rule_table(state.rules).text(is_coloured));
    }
    if (selection.routes) {
        parts.push_back(route_table(state.routes).text(is_coloured));
    }
    std::string all;
    for (const std::string& part : parts) {
        all += (all.empty() ? "" : "\n") + part;
    }
    return all;
}

std::string json(const State& state, const Selection& selection) {
    Json all = Json::object();
    if (selection.interfaces) {
        all["interfaces"] = json_list(state.interfaces);
    }
    if (selection.rules) {
        all["rules"] = json_list(state.rules);
    }
    if (selection.routes) {
        all["routes"] = json_list(state.routes);
    }
    // Bytes that are no UTF-8 come out as U+FFFD rather than as an exception.
    return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string metrics(const State& state, const Selection& /*selection*/) {
    Metrics all;
    for (const Interface& one : state.interfaces) {
        add_interface(all, one);
    }
    for (const Rule& rule : state.rules) {
        for (const Member& member : rule.members) {
            all.add("lb_rule_member_weight", "configured weight, its lowest byte",
                    {{"rule", rule.name()},
                     {"namespace", rule.namespace_name},
                     {"interface", member.interface},
                     {"family", "ipv" + std::to_string(member.family)}},
                    member.weight);
        }
    }
    for (const Route& route : state.routes) {
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
