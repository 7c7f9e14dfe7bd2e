// The daemon on random routers: an hour of virtual time for each seed, after every step of which
// nothing may be that must not (invariants.h). Prints for each seed that fails what was broken and
// one command that repeats it.
//
//     property_tests [--from SEED] [--count N] [--minutes M] [--show]

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

#include "lbsim/apart.h"
#include "lbsim/packed.h"
#include "lbsim/scenario_text.h"
#include "lbsim/world.h"
#include "property/invariants.h"
#include "property/random_router.h"

namespace {

using namespace property;

constexpr std::int64_t minute_us = 60'000'000;

/// One seed, in a process of its own. What was broken, a line each.
std::string run_seed(std::uint64_t seed, const std::string& configuration,
                     const std::vector<lbsim::Uplink>& uplinks, std::int64_t duration_us) {
    const auto scenario = random_scenario(seed, uplinks, duration_us);
    const auto windows = random_faults(seed, uplinks, duration_us);
    Simulation machine;
    machine.set_seed(seed);
    lbsim::Daemon daemon(machine, configuration);
    const lbsim::World world(machine, uplinks, scenario);
    for (const FaultWindow& window : windows) {
        machine.after_us(window.from_us, [&machine, &window] { machine.faults = window.faults; });
        machine.after_us(window.to_us, [&machine] { machine.faults = {}; });
    }
    Invariants invariants(machine, daemon, uplinks, scenario, windows);
    daemon.start([&invariants](const context& ctx) { invariants.look(ctx); });
    machine.pass_us(duration_us / 2);
    invariants.note_memory();
    machine.pass_us(duration_us / 2);
    invariants.note_memory();
    invariants.judge_pace(duration_us);
    std::string text;
    for (const std::string& line : invariants.broken) {
        text += line + '\n';
    }
    return text;
}

void show(std::uint64_t seed, const std::string& configuration,
          const std::vector<lbsim::Uplink>& uplinks, std::int64_t duration_us) {
    printf("%s", configuration.c_str());
    for (const auto& event : random_scenario(seed, uplinks, duration_us)) {
        printf("%-12s %s\n", lbsim::shown_duration(event.at_us).c_str(), event.text.c_str());
    }
    for (const auto& window : random_faults(seed, uplinks, duration_us)) {
        printf("%-12s fails until %s: %s (%.0f%%)\n", lbsim::shown_duration(window.from_us).c_str(),
               lbsim::shown_duration(window.to_us).c_str(), window.text.c_str(),
               window.faults.percent);
    }
}

struct Options {
    std::uint64_t from = 1;
    std::uint64_t count = 1;
    std::int64_t minutes = 60;
    bool is_shown = false;
};

bool read_options(int argc, char* argv[], Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--show") {
            options.is_shown = true;
            continue;
        }
        if (i + 1 == argc) {
            return false;
        }
        const std::uint64_t value = strtoull(argv[++i], nullptr, 10);
        if (option == "--from") {
            options.from = value;
        } else if (option == "--count") {
            options.count = value;
        } else if (option == "--minutes") {
            options.minutes = static_cast<std::int64_t>(value);
        } else {
            return false;
        }
    }
    return options.count > 0 && options.minutes > 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!read_options(argc, argv, options)) {
        fprintf(stderr, "usage: %s [--from SEED] [--count N] [--minutes M] [--show]\n", argv[0]);
        return 2;
    }
    const std::int64_t duration_us = options.minutes * minute_us;
    std::uint64_t failed = 0;
    std::uint64_t simulated = 0;
    for (std::uint64_t seed = options.from; seed < options.from + options.count; ++seed) {
        const std::string configuration = random_configuration(seed);
        const auto loaded = lbsim::run_apart(
            [&configuration] { return lbsim::packed(lbsim::load(configuration)); });
        const auto uplinks = loaded.error.empty() ? lbsim::unpacked_loaded(loaded.result).uplinks
                                                  : std::vector<lbsim::Uplink>();
        if (options.is_shown) {
            show(seed, configuration, uplinks, duration_us);
        }
        simulated += uplinks.empty() ? 0 : 1;
        const auto answer =
            lbsim::run_apart([&] { return run_seed(seed, configuration, uplinks, duration_us); });
        const std::string broken = loaded.error + answer.error + answer.result;
        if (!broken.empty()) {
            ++failed;
            printf("seed %llu:\n%s\nrepeat: %s --from %llu --minutes %lld --show\n",
                   static_cast<unsigned long long>(seed), broken.c_str(), argv[0],
                   static_cast<unsigned long long>(seed), static_cast<long long>(options.minutes));
            fflush(stdout);
        }
    }
    printf("%llu seeds of %lld minutes, %llu failed\n",
           static_cast<unsigned long long>(options.count), static_cast<long long>(options.minutes),
           static_cast<unsigned long long>(failed));
    // Seeds without a worker prove nothing.
    return failed == 0 && simulated * 2 > options.count ? 0 : 1;
}
