#include "lbsim/report.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "lbsim/scenario_text.h"
#include "lbsim/table.h"

namespace lbsim {

namespace {

/// What the columns mean, behind every table.
constexpr const char* legend =
    "state after: until the uplink became active or inactive; route after: until the fragment "
    "followed.\n"
    "into dead: a route led into the uplink while nothing could answer through it. left unused: it "
    "was\n"
    "inactive while it worked as at the start. flaps: changes of its state beyond the first one "
    "after\n"
    "each event.\n";

std::string seconds_or_dash(const std::optional<std::int64_t>& duration_us) {
    return duration_us ? shown_seconds(*duration_us) : "-";
}

std::string state_cell(const Row& row) {
    if (row.state_after_us) {
        return shown_seconds(*row.state_after_us);
    }
    return row.is_expected ? "never" : "unchanged";
}

std::string mean(std::int64_t sum_us, int count) {
    return count == 0 ? "-" : shown_seconds(sum_us / count);
}

/// Events of one sort share a row where there are too many of them: what happened, without where.
std::string kind_of(const Row& row) {
    switch (row.condition) {
        case Condition::good:
            return row.event == "start" ? "start" : "works again";
        case Condition::impaired:
            return "impaired";
        case Condition::dead:
            return "dead";
        case Condition::unknown:
            return "not watched";
    }
    return {};
}

std::map<std::pair<std::string, std::size_t>, Totals> by_kind(const Story& story) {
    std::map<std::pair<std::string, std::size_t>, Totals> kinds;
    for (const Row& row : story.summary.rows) {
        kinds[{kind_of(row), row.uplink}].add(row);
    }
    return kinds;
}

std::string kinds_text(const Story& story) {
    Table table({"event", "uplink", "times", "followed", "state after (mean)", "(longest)",
                 "route after (mean)", "into dead", "left unused", "flaps"},
                2);
    for (const auto& [place, totals] : by_kind(story)) {
        table.add({place.first, shown(story.uplinks[place.second]), std::to_string(totals.rows),
                   std::to_string(totals.followed), mean(totals.state_after_us, totals.followed),
                   totals.followed == 0 ? "-" : shown_seconds(totals.longest_state_after_us),
                   mean(totals.route_after_us, totals.routes_followed),
                   shown_seconds(totals.into_dead_us), shown_seconds(totals.left_unused_us),
                   std::to_string(totals.flaps)});
    }
    return table.text();
}

std::string rows_text(const Story& story) {
    Table table({"at", "event", "uplink", "state after", "route after", "into dead", "left unused",
                 "flaps"},
                3);
    for (const Row& row : story.summary.rows) {
        table.add({shown_duration(row.at_us), row.event, shown(story.uplinks[row.uplink]),
                   state_cell(row), seconds_or_dash(row.route_after_us),
                   shown_seconds(row.into_dead_us), shown_seconds(row.left_unused_us),
                   std::to_string(row.flaps)});
    }
    return table.text();
}

std::string totals_text(const Story& story) {
    const auto& totals = story.summary.uplinks;
    const bool is_replayed = std::any_of(totals.begin(), totals.end(),
                                         [](const auto& total) { return total.unwatched_us > 0; });
    std::vector<std::string> head{"in all",      "active",  "dead", "into dead",
                                  "left unused", "changes", "flaps"};
    if (is_replayed) {
        head.emplace_back("not watched");
    }
    Table table(std::move(head), 1);
    for (std::size_t i = 0; i < story.uplinks.size(); ++i) {
        const UplinkTotal& total = totals[i];
        std::vector<std::string> cells{shown(story.uplinks[i]),
                                       shown_seconds(total.active_us),
                                       shown_seconds(total.dead_us),
                                       shown_seconds(total.into_dead_us),
                                       shown_seconds(total.left_unused_us),
                                       std::to_string(total.changes),
                                       std::to_string(total.flaps)};
        if (is_replayed) {
            cells.push_back(shown_seconds(total.unwatched_us));
        }
        table.add(std::move(cells));
    }
    return table.text();
}

std::string at_text(std::int64_t at_us) {
    const std::string text = shown_seconds(at_us);
    return std::string(text.size() < 11 ? 11 - text.size() : 0, ' ') + text;
}

std::string indented(const std::string& lines, const std::string& before) {
    std::string text;
    std::size_t at = 0;
    while (at < lines.size()) {
        const std::size_t end = std::min(lines.find('\n', at), lines.size());
        text += before + lines.substr(at, end - at) + '\n';
        at = end + 1;
    }
    return text;
}

std::string told_text(const ObservedChange& told) {
    const std::string where = told.ns_name.empty() ? "" : " in " + told.ns_name;
    const std::string indent(17, ' ');
    switch (told.kind) {
        case ObservedChange::Kind::state:
        case ObservedChange::Kind::target:
            return at_text(told.at_us) + "    " + told.uplink + " " + family_word(told.is_ipv6) +
                   where + ": " +
                   (told.kind == ObservedChange::Kind::target ? told.text
                    : told.is_up                              ? "active"
                                                              : "inactive") +
                   '\n';
        case ObservedChange::Kind::routes:
            break;
    }
    return at_text(told.at_us) + "    " + family_word(told.is_ipv6) + " routes" + where + ":" +
           (told.text.empty() ? std::string(" none\n")
                              : std::string("\n").append(indented(told.text, indent)));
}

/// "7.0 s > 12.0 s (+5.0 s)": of the one, of the other.
std::string both(std::int64_t one_us, std::int64_t other_us) {
    const std::int64_t more_us = other_us - one_us;
    return more_us == 0 ? shown_seconds(one_us)
                        : shown_seconds(one_us) + " > " + shown_seconds(other_us) +
                              (more_us > 0 ? " (+" : " (") + shown_seconds(more_us) + ")";
}

std::string both(const std::string& one, const std::string& other) {
    return one == other ? one : one + " > " + other;
}

std::string both_means(const Totals& one, const Totals& other) {
    if (one.followed == 0 || other.followed == 0) {
        return both(mean(one.state_after_us, one.followed),
                    mean(other.state_after_us, other.followed));
    }
    return both(one.state_after_us / one.followed, other.state_after_us / other.followed);
}

const Uplink* find_same(const std::vector<Uplink>& among, const Uplink& uplink) {
    const auto found = std::find_if(among.begin(), among.end(), [&uplink](const Uplink& one) {
        return shown(one) == shown(uplink);
    });
    return found == among.end() ? nullptr : &*found;
}

/// The row of the same event and uplink in the other story.
const Row* find_same(const Story& other, const Story& one, const Row& row) {
    const auto found =
        std::find_if(other.summary.rows.begin(), other.summary.rows.end(), [&](const Row& its) {
            return its.at_us == row.at_us &&
                   shown(other.uplinks[its.uplink]) == shown(one.uplinks[row.uplink]);
        });
    return found == other.summary.rows.end() ? nullptr : &*found;
}

std::string compared_rows(const Story& one, const Story& other) {
    Table table({"at", "event", "uplink", "state after", "into dead", "left unused", "flaps"}, 3);
    for (const Row& row : one.summary.rows) {
        const Row* const its = find_same(other, one, row);
        if (its == nullptr) {
            continue;
        }
        table.add({shown_duration(row.at_us), row.event, shown(one.uplinks[row.uplink]),
                   row.state_after_us && its->state_after_us
                       ? both(*row.state_after_us, *its->state_after_us)
                       : both(state_cell(row), state_cell(*its)),
                   both(row.into_dead_us, its->into_dead_us),
                   both(row.left_unused_us, its->left_unused_us),
                   both(std::to_string(row.flaps), std::to_string(its->flaps))});
    }
    return table.text();
}

std::string compared_kinds(const Story& one, const Story& other) {
    Table table(
        {"event", "uplink", "times", "state after (mean)", "into dead", "left unused", "flaps"}, 2);
    std::map<std::pair<std::string, std::string>, Totals> others;
    for (const auto& [place, totals] : by_kind(other)) {
        others[{place.first, shown(other.uplinks[place.second])}] = totals;
    }
    for (const auto& [place, totals] : by_kind(one)) {
        const auto its = others.find({place.first, shown(one.uplinks[place.second])});
        if (its == others.end()) {
            continue;
        }
        table.add({place.first, its->first.second, std::to_string(totals.rows),
                   both_means(totals, its->second),
                   both(totals.into_dead_us, its->second.into_dead_us),
                   both(totals.left_unused_us, its->second.left_unused_us),
                   both(std::to_string(totals.flaps), std::to_string(its->second.flaps))});
    }
    return table.text();
}

}  // namespace

std::string head_text(const Story& story) {
    std::string text = story.configuration + ": " + shown_duration(story.run.duration_us) +
                       " simulated, seed " + std::to_string(story.seed) + ", " +
                       std::to_string(story.run.cycles) + " cycles, " +
                       std::to_string(story.run.echoes) + " echoes\n";
    for (const auto& [uplink, router] : story.run.made_up_routers) {
        text += "made up: the lease of " + uplink + " names the router " + router + "\n";
    }
    return text;
}

std::string timeline_text(const Story& story) {
    if (story.summary.rows.size() > most_rows) {
        return std::to_string(story.scenario.size()) + " events, " +
               std::to_string(story.run.told.size()) + " answers: --json has them all\n";
    }
    std::string text;
    auto event = story.scenario.begin();
    const auto tell_events_until = [&](std::int64_t until_us) {
        for (; event != story.scenario.end() && event->at_us <= until_us &&
               event->at_us < story.run.duration_us;
             ++event) {
            text += at_text(event->at_us) + "  " + event->text + '\n';
        }
    };
    for (const ObservedChange& told : story.run.told) {
        tell_events_until(told.at_us);
        text += told_text(told);
    }
    tell_events_until(story.run.duration_us);
    return text;
}

std::string table_text(const Story& story) {
    return (story.summary.rows.size() > most_rows ? kinds_text(story) : rows_text(story)) + '\n' +
           totals_text(story) + '\n' + legend;
}

std::string comparison_text(const Story& one, const Story& other) {
    std::string text = one.configuration + " > " + other.configuration +
                       ", in the same world with the same draws:\n\n";
    text += one.summary.rows.size() > most_rows ? compared_kinds(one, other)
                                                : compared_rows(one, other);
    Table table({"in all", "into dead", "left unused", "changes", "flaps"}, 1);
    for (std::size_t i = 0; i < one.uplinks.size(); ++i) {
        const Uplink* const its = find_same(other.uplinks, one.uplinks[i]);
        if (its == nullptr) {
            text += shown(one.uplinks[i]) + " is only in " + one.configuration + "\n";
            continue;
        }
        const UplinkTotal& total = one.summary.uplinks[i];
        const UplinkTotal& other_total =
            other.summary.uplinks[static_cast<std::size_t>(its - other.uplinks.data())];
        table.add({shown(one.uplinks[i]), both(total.into_dead_us, other_total.into_dead_us),
                   both(total.left_unused_us, other_total.left_unused_us),
                   both(std::to_string(total.changes), std::to_string(other_total.changes)),
                   both(std::to_string(total.flaps), std::to_string(other_total.flaps))});
    }
    for (const Uplink& uplink : other.uplinks) {
        if (find_same(one.uplinks, uplink) == nullptr) {
            text += shown(uplink) + " is only in " + other.configuration + "\n";
        }
    }
    return text + '\n' + table.text() + '\n' + legend;
}

}  // namespace lbsim
