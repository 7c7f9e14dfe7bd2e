#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "dumps/freshness.h"
#include "lbshow/views.h"
#include "shared/dump_file.h"
#include "shared/plain_text.h"

namespace lbshow {

namespace {

std::string length(std::int64_t seconds) {
    // No clock and no foreign file makes it negative.
    const auto all = static_cast<std::uint64_t>(seconds);
    if (all >= 86400) {
        return std::to_string(all / 86400) + "d" + std::to_string(all / 3600 % 24) + "h";
    }
    if (all >= 3600) {
        return std::to_string(all / 3600) + "h" + std::to_string(all / 60 % 60) + "m";
    }
    return all >= 60 ? std::to_string(all / 60) + "m" + std::to_string(all % 60) + "s"
                     : std::to_string(all) + "s";
}

const char* shown_result(dumps::Result result) {
    switch (result) {
        case dumps::Result::none:
            return "not yet";
        case dumps::Result::answered:
            return "answered";
        case dumps::Result::timed_out:
            return "no answer";
    }
    return "not yet";
}

std::string age(const std::optional<int>& seconds) {
    if (!seconds) {
        return "never";
    }
    // A date in the future, of before the clock was set back.
    const auto size = static_cast<unsigned>(std::abs(std::int64_t{*seconds}));
    std::string text = *seconds < 0 ? "-" : "";
    text += length(size);
    return text;
}

/// "> 3d2h" where nobody saw it begin.
std::string since_text(const std::optional<dumps::Past>& past) {
    return past ? (past->is_begin_seen ? "" : "> ") + length(past->since_s) : "-";
}

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

    bool is_empty() const { return rows_.size() == 1; }

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

std::string quality_text(const std::optional<dumps::Quality>& quality) {
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

/// What a stale dump tells was so once.
Cell state_cell(const dumps::Interface& one) {
    if (one.is_stale) {
        return {one.is_active ? "was active" : "was failed", Colour::bad};
    }
    return one.is_active ? Cell{"active", Colour::good} : Cell{"failed", Colour::bad};
}

std::string rule_text(const std::string& name, bool is_stale) {
    return name + (is_stale ? " (stale)" : "");
}

Cell result_cell(dumps::Result result) {
    const Colour colour = result == dumps::Result::answered    ? Colour::good
                          : result == dumps::Result::timed_out ? Colour::bad
                                                               : Colour::plain;
    return {shown_result(result), colour};
}

std::string run_text(int run, int threshold) {
    return std::to_string(run) + "/" + std::to_string(threshold);
}

Table interface_table(const std::vector<dumps::Interface>& interfaces, bool has_history) {
    std::vector<std::string> head{"INTERFACE", "FAMILY", "NAMESPACE", "STATE",   "ROUTED",
                                  "NEXT HOP",  "FROM",   "SOURCE",    "LAST UP", "LAST DOWN"};
    if (has_history) {
        head.insert(head.end(), {"SINCE", "FLAPS TODAY"});
    }
    Table table(std::move(head));
    for (const dumps::Interface& one : interfaces) {
        std::vector<Cell> row{{shared::harmless(one.name)},
                              {dumps::family_name(one.family)},
                              {shared::or_dash(one.namespace_name)},
                              state_cell(one),
                              {one.is_routed ? "yes" : "no"},
                              {shared::or_dash(one.nexthop)},
                              {one.nexthop_from},
                              {shared::or_dash(one.source_address)},
                              {age(one.since_success_s)},
                              {age(one.since_failure_s)}};
        if (has_history) {
            row.push_back({since_text(one.past)});
            row.push_back({one.past ? std::to_string(one.past->flaps_today) : "-"});
        }
        table.add(std::move(row));
    }
    return table;
}

Table probe_table(const std::vector<dumps::Interface>& interfaces) {
    Table table(
        {"INTERFACE", "PROBE", "TYPE", "TARGET", "LAST PROBE", "SUCCESSES", "FAILURES", "QUALITY"});
    for (const dumps::Interface& one : interfaces) {
        for (const dumps::Probe& probe : one.probes) {
            table.add({{shared::harmless(one.name)},
                       {std::to_string(probe.position)},
                       {probe.type()},
                       {shared::or_dash(probe.target)},
                       one.is_stale ? Cell{shown_result(probe.last_result)}
                                    : result_cell(probe.last_result),
                       {run_text(probe.success_run, one.success_ct)},
                       {run_text(probe.failure_run, one.failure_ct)},
                       {quality_text(probe.quality)}});
        }
    }
    return table;
}

Table rule_table(const std::vector<dumps::Rule>& rules) {
    Table table({"RULE", "NAMESPACE", "MODE", "INTERFACE", "WEIGHT"});
    for (const dumps::Rule& rule : rules) {
        const std::string mode = rule.is_failover ? "failover" : "shared";
        const std::string name = rule_text(rule.name(), rule.is_stale);
        if (rule.members.empty()) {
            table.add({{name}, {shared::or_dash(rule.namespace_name)}, {mode}, {"-"}, {"-"}});
        }
        for (const dumps::Member& member : rule.members) {
            table.add({{name},
                       {shared::or_dash(rule.namespace_name)},
                       {mode},
                       {shared::harmless(member.interface) + (member.family == 6 ? " (ipv6)" : "")},
                       {std::to_string(member.weight)}});
        }
    }
    return table;
}

/// As ip-route(8) writes next hops; a failover rule's one has no weight that counts.
std::string next_hops_text(const dumps::Route& route) {
    std::string text;
    for (const dumps::NextHop& hop : route.in_force) {
        text += (text.empty() ? "" : ", ") + shared::harmless(hop.address) + " dev " +
                shared::harmless(hop.interface) +
                (route.nexthop.empty() ? " weight " + std::to_string(hop.weight) : "");
    }
    return text.empty() ? "-" : text;
}

Table route_table(const std::vector<dumps::Route>& routes) {
    Table table({"RULE", "PREFIX", "METRIC", "NEXT HOPS"});
    for (const dumps::Route& route : routes) {
        table.add({{rule_text(route.rule_name(), route.is_stale)},
                   {shared::harmless(route.prefix)},
                   {route.metric ? std::to_string(*route.metric) : "-"},
                   {next_hops_text(route)}});
    }
    return table;
}

/// What the stale lines keep from being shown.
std::string left_out_line(const dumps::LeftOut& left_out) {
    if (left_out.interfaces + left_out.rules + left_out.routes == 0) {
        return "";
    }
    return "left out as stale (--all shows them): interfaces " +
           std::to_string(left_out.interfaces) + ", rules " + std::to_string(left_out.rules) +
           ", routes " + std::to_string(left_out.routes) + "\n";
}

std::string kind_of(const dumps::DumpFile& file) {
    for (const int family : {4, 6}) {
        if (file.name == dumps::outbounds_name(family)) {
            return dumps::family_name(family);
        }
    }
    return file.name == shared::name_of(shared::DumpFile::rules) ? "rules" : "routes";
}

/// When each file was written: the last line.
std::string written_line(const dumps::State& state) {
    std::string line;
    for (const dumps::DumpFile& file : state.files) {
        const std::int64_t age = dumps::age_s(file, state.seen);
        line +=
            (line.empty() ? "written: " : ", ") + kind_of(file) + " " +
            (age < 0 ? std::to_string(-age) + " s in the future" : std::to_string(age) + " s ago");
    }
    return line.empty() ? "" : "\n" + line + "\n";
}

}  // namespace

std::string tables(const dumps::State& state, const Selection& selection, bool is_coloured) {
    std::vector<Table> shown;
    if (selection.interfaces) {
        shown.push_back(interface_table(state.interfaces, state.has_history));
        shown.push_back(probe_table(state.interfaces));
    }
    if (selection.rules) {
        shown.push_back(rule_table(state.rules));
    }
    if (selection.routes) {
        shown.push_back(route_table(state.routes));
    }
    const bool is_stale = dumps::has_stale(state);
    std::string all = dumps::stale_lines(state) + left_out_line(state.left_out);
    for (const Table& table : shown) {
        // An empty table would say that there is nothing, where nothing is known.
        if (!is_stale || !table.is_empty()) {
            all.append(all.empty() ? "" : "\n").append(table.text(is_coloured));
        }
    }
    return all + written_line(state);
}

}  // namespace lbshow
