// The daemon over a simulated year, or any number of days: uplinks of both families with outages of
// several kinds, and hiccups that are too short for a verdict; a wall clock that is set back and
// forth, beyond the year 2038 too; packet identifiers that begin just before their end. What the
// daemon told must be these outages, each in time, and nothing else.
//
//     simulated_year [--days N] [--uplinks N] [--seed N] [--show]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "lbsim/apart.h"
#include "lbsim/packed.h"
#include "probe/probes_in_flight.h"
#include "property/outage_judge.h"

namespace {

using lbsim::Change;
using property::Outage;

constexpr std::int64_t second_us = 1'000'000;
constexpr std::int64_t day_s = 86'400;

struct Options {
    std::int64_t days = 365;
    std::int64_t uplinks = 20;
    std::uint64_t seed = 1;
    bool is_shown = false;
};

/// Uplinks in turn: one of IPv4 with a lease, one of IPv4 without, and one of IPv6.
std::string configuration_of(std::int64_t uplinks) {
    std::string health;
    std::string members4;
    std::string members6;
    for (std::int64_t i = 1; i <= uplinks; ++i) {
        const std::string number = std::to_string(i);
        const std::string name = "gi1_" + number;
        const bool is_ipv6 = i % 3 == 0;
        const std::string word = is_ipv6 ? "interface6 " : "interface ";
        health += word + name + " {\nnexthop " +
                  (is_ipv6      ? "fe80::" + number
                   : i % 3 == 1 ? "dhcp"
                                : "192.0.2." + number) +
                  "\nsuccess-ct " + std::to_string(1 + i % 4) + "\nfailure-ct " +
                  std::to_string(3 + i % 3) + "\nrule 1 {\ntype ping {\ntarget " +
                  (is_ipv6 ? "2001:db8::" : "203.0.113.") + number + "\nresp-time 500\n}\n}\n}\n";
        (is_ipv6 ? members6 : members4) += word + name + " {\nweight 1\n}\n";
    }
    return "health {\n" + health + "}\nrule 1_ipv4 {\n" + members4 +
           "target {\naddress 0.0.0.0/0\n}\n}\n" +
           (members6.empty() ? ""
                             : "rule 2_ipv6 {\n" + members6 + "target {\naddress ::/0\n}\n}\n");
}

class Course {
  public:
    Course(const std::vector<lbsim::Uplink>& uplinks, const Options& options)
        : dice_(options.seed), end_us_(options.days * day_s * second_us) {
        for (std::size_t i = 0; i < uplinks.size(); ++i) {
            draw_outages(uplinks[i], i);
        }
        draw_clock();
        const auto is_earlier = [](const auto& one, const auto& other) {
            return one.at_us < other.at_us;
        };
        std::stable_sort(events.begin(), events.end(), is_earlier);
    }

    std::vector<Outage> outages;  ///< uplink by uplink, each in time's order
    lbsim::Scenario events;
    std::int64_t hiccups = 0;
    std::int64_t clock_steps = 0;

  private:
    std::int64_t between_s(std::int64_t least_s, std::int64_t most_s) {
        const auto count = static_cast<std::uint64_t>(most_s - least_s + 1);
        return least_s + static_cast<std::int64_t>(dice_() % count);
    }

    /// Of no family: each name is one of one family only, and a link is of both.
    void enter(std::int64_t at_us, const lbsim::Uplink& uplink, Change change, const char* text) {
        lbsim::Event event{.at_us = at_us, .uplink = uplink.name, .change = change};
        event.text = uplink.name + " " + text;
        event.percent = change == Change::loss ? 100 : 0;
        events.push_back(event);
    }

    /// About one in twelve hours, from some twenty seconds to four hours long, and as many hiccups.
    void draw_outages(const lbsim::Uplink& uplink, std::size_t number) {
        struct Kind {
            Change change;
            const char* text;
        };
        const std::vector<Kind> kinds{{Change::dead, "dead"},
                                      {Change::nexthop_dead, "nexthop dead"},
                                      {Change::loss, "loss 100%"},
                                      {Change::link_down, "link down"}};
        // B83: an IPv6 uplink does not come back by itself when its link was down.
        const std::int64_t last_kind = uplink.is_ipv6 ? 2 : 3;
        const std::int64_t settled_us = std::max(uplink.settle_us, uplink.start_us) + 5 * second_us;
        // The first outage of a short run comes soon.
        std::int64_t at_us = settled_us + between_s(0, 3600) * second_us;
        while (true) {
            // Anywhere within a cycle.
            at_us += between_s(0, 999) * 1000;
            const bool is_hiccup = between_s(0, 1) == 0;
            const std::int64_t longest_s = between_s(0, 9) == 0 ? 4 * 3600 : 300;
            const std::int64_t length_us =
                is_hiccup ? 900'000 : settled_us + between_s(0, longest_s) * second_us;
            if (at_us + length_us + settled_us >= end_us_) {
                return;
            }
            const Kind& kind = kinds[static_cast<std::size_t>(between_s(0, last_kind))];
            enter(at_us, uplink, kind.change, kind.text);
            enter(at_us + length_us, uplink, Change::clean, "clean");
            if (is_hiccup) {
                ++hiccups;
            } else {
                outages.push_back({number, at_us, at_us + length_us});
            }
            at_us += length_us + settled_us + between_s(0, 43'200) * second_us;
        }
    }

    /// Twice in three days, to the right time or another one: within the second, hours, over a year
    /// back, and beyond what a signed number of 32 bits counts.
    void draw_clock() {
        const std::vector<std::int64_t> offsets_s{0,     1,     -1,           90,
                                                  -3600, day_s, -400 * day_s, 12 * 366 * day_s};
        std::int64_t offset_s = 0;
        std::int64_t at_us = 600 * second_us;
        while (at_us < end_us_) {
            const std::int64_t next_s = offsets_s[static_cast<std::size_t>(between_s(0, 7))];
            if (next_s != offset_s) {
                lbsim::Event event{.at_us = at_us, .change = Change::clock};
                event.clock_step_us = (next_s - offset_s) * second_us;
                event.text = std::string("clock ") + (next_s < offset_s ? "back " : "forward ") +
                             std::to_string(std::abs(next_s - offset_s)) + "s";
                events.push_back(event);
                offset_s = next_s;
                ++clock_steps;
            }
            at_us += between_s(0, 3 * day_s) * second_us;
        }
    }

    std::mt19937_64 dice_;
    std::int64_t end_us_;
};

void show(const std::string& configuration, const lbsim::Scenario& events) {
    printf("%s\n", configuration.c_str());
    for (const lbsim::Event& event : events) {
        printf("%lldms %s\n", static_cast<long long>(event.at_us / 1000), event.text.c_str());
    }
}

bool read_options(int argc, char* argv[], Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--show") {
            options.is_shown = true;
            continue;
        }
        const std::int64_t value = i + 1 < argc ? strtoll(argv[++i], nullptr, 10) : 0;
        if (option == "--days" && value >= 1) {
            options.days = value;
        } else if (option == "--uplinks" && value >= 1 && value <= 200) {
            options.uplinks = value;
        } else if (option == "--seed" && value >= 1) {
            options.seed = static_cast<std::uint64_t>(value);
        } else {
            return false;
        }
    }
    return true;
}

/// Identifiers have so many values; the last ones come within a minute.
void begin_counters_near_their_end() {
    for (const ProbeFamily* family : {&ipv4_probes, &ipv6_probes}) {
        family->packet_id = packet_id_count - 20;
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!read_options(argc, argv, options)) {
        fprintf(stderr, "usage: %s [--days N] [--uplinks N] [--seed N] [--show]\n", argv[0]);
        return 2;
    }
    const std::string configuration = configuration_of(options.uplinks);
    const auto loaded =
        lbsim::run_apart([&configuration] { return lbsim::packed(lbsim::load(configuration)); });
    if (!loaded.error.empty()) {
        printf("%s\n", loaded.error.c_str());
        return 1;
    }
    const auto uplinks = lbsim::unpacked_loaded(loaded.result).uplinks;
    if (static_cast<std::int64_t>(uplinks.size()) != options.uplinks) {
        printf("%zu of %lld uplinks were loaded\n", uplinks.size(),
               static_cast<long long>(options.uplinks));
        return 1;
    }
    const Course course(uplinks, options);
    if (options.is_shown) {
        show(configuration, course.events);
        return 0;
    }
    const auto begin = std::chrono::steady_clock::now();
    const auto answer = lbsim::run_apart([&] {
        begin_counters_near_their_end();
        return lbsim::packed(lbsim::simulate({.configuration = configuration,
                                              .scenario = course.events,
                                              .duration_us = options.days * day_s * second_us,
                                              .seed = options.seed},
                                             uplinks));
    });
    if (!answer.error.empty()) {
        printf("%s\n", answer.error.c_str());
        return 1;
    }
    const lbsim::Run run = lbsim::unpacked_run(answer.result);
    const property::Judgement judgement = property::judge(course.outages, uplinks, run);
    constexpr std::size_t most_told = 20;
    for (std::size_t i = 0; i < std::min(judgement.faults.size(), most_told); ++i) {
        printf("%s\n", judgement.faults[i].c_str());
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    printf(
        "%lld days, %zu uplinks, seed %llu: %lld cycles, %lld echoes, %zu outages, %lld hiccups, "
        "%lld clock steps; %lld changes told in time (%.1f s at most), %zu faults, in %.0f s\n",
        static_cast<long long>(options.days), uplinks.size(),
        static_cast<unsigned long long>(options.seed), static_cast<long long>(run.cycles),
        static_cast<long long>(run.echoes), course.outages.size(),
        static_cast<long long>(course.hiccups), static_cast<long long>(course.clock_steps),
        static_cast<long long>(judgement.told), static_cast<double>(judgement.longest_us) / 1e6,
        judgement.faults.size(), took.count());
    // Days without an outage prove nothing.
    return judgement.faults.empty() && !course.outages.empty() && course.clock_steps > 0 ? 0 : 1;
}
