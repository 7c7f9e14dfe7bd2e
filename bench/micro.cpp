// Micro-benchmarks of what a cycle is made of; pure code, no root. Run: build/bench_micro

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <vector>

#include "config/lb_data_factory.h"
#include "config/own_records.h"
#include "config/str_proc.h"
#include "decision/lb_decision.h"
#include "decision/route_text.h"
#include "host/log.h"
#include "output/records.h"
#include "output/report_text.h"
#include "probe/lb_test_icmp.h"
#include "probe/probes_in_flight.h"
#include "wire/checksum.h"
#include "wire/frame_builder.h"

namespace {

void discard_line(int /*severity*/, const char* /*line*/) {}

/// A configuration with so many uplinks and one rule over all of them.
std::string configuration(std::int64_t uplinks) {
    std::string text = "health {\n";
    for (std::int64_t i = 0; i < uplinks; ++i) {
        text += "interface up" + std::to_string(i) +
                " {\nnexthop 192.0.2.1\nsuccess-ct 1\nfailure-ct 2\nrule 1 {\ntype ping {\n"
                "target 198.51.100.1\n}\n}\n}\n";
    }
    text += "}\nrule 1_ipv4 {\ntarget {\naddress 203.0.113.0/24\n}\n";
    for (std::int64_t i = 0; i < uplinks; ++i) {
        text += "interface up" + std::to_string(i) + " {\nweight 1\n}\n";
    }
    return text + "}\n";
}

/// What was loaded from it, every uplink active.
LBData loaded(std::int64_t uplinks) {
    std::string path = "/tmp/lb-bench-XXXXXX";
    const int number = mkstemp(path.data());
    std::ofstream(path) << configuration(uplinks);
    LBDataFactory factory;
    factory.load(path);
    close(number);
    unlink(path.c_str());
    LBData data = factory.get();
    for (auto& [name, health] : data.health) {
        health.active = true;
    }
    return data;
}

/// A worker of the default namespace.
struct Worker {
    std::string ns_name;
    OwnRecords own;
    context ctx{.ns_name = &ns_name, .own = &own};
};

void split_a_line(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(StrProc("        nexthop 192.0.2.1\n", " ").tokens);
    }
}
BENCHMARK(split_a_line);

void load_a_configuration(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(loaded(state.range(0)));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(load_a_configuration)->Arg(100)->Arg(1000)->Arg(10000)->Complexity();

void checksum_of_an_ip_header(benchmark::State& state) {
    const Ipv4Header header;
    for (auto _ : state) {
        benchmark::DoNotOptimize(internet_checksum(bytes_of(header)));
    }
}
BENCHMARK(checksum_of_an_ip_header);

void build_an_echo_frame(benchmark::State& state) {
    std::uint32_t packet_id = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(echo_frame4({}, {}, {}, {}, 1, ++packet_id));
    }
}
BENCHMARK(build_an_echo_frame);

void find_a_pending_probe(benchmark::State& state) {
    PendingProbes probes;
    for (int i = 0; i < state.range(0); ++i) {
        probes.insert(i, {.interface = "up" + std::to_string(i),
                          .status = PktData::sent,
                          .send_time = {},
                          .target = "198.51.100.1"});
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(probes.find("up7", "198.51.100.1"));
    }
}
BENCHMARK(find_a_pending_probe)->Arg(100)->Arg(10000);

void put_a_result_and_check(benchmark::State& state) {
    LBData data = loaded(1);
    Worker worker;
    LBHealth& health = data.health.begin()->second;
    for (auto _ : state) {
        health.put(0, &worker.ctx, "198.51.100.1");
        health.status_check(data, &worker.ctx);
    }
}
BENCHMARK(put_a_result_and_check);

void weigh_and_route(benchmark::State& state) {
    LBData data = loaded(state.range(0));
    Worker worker;
    LBDecision decision;
    auto rule = data.rules.begin();
    for (auto _ : state) {
        const auto weights = decision.get_new_weights(data, rule->second, &worker.ctx);
        std::string line;
        bool is_added = false;
        for (const auto& [name, weight] : weights) {
            decision.generate_route(data.health.find(name), &line, &is_added, rule, weights,
                                    rule->second.targets.begin(), &worker.ctx);
        }
        benchmark::DoNotOptimize(route_line("203.0.113.0/24", line, -1));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(weigh_and_route)->Arg(10)->Arg(100)->Arg(1000)->Complexity();

void report_of_an_interface(benchmark::State& state) {
    LBData data = loaded(1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(report_record("up0", data.health.begin()->second, 1));
    }
}
BENCHMARK(report_of_an_interface);

void dump_record_of_an_interface(benchmark::State& state) {
    LBData data = loaded(1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(outbound_record(data.health.begin()->second, 1));
    }
}
BENCHMARK(dump_record_of_an_interface);

}  // namespace

int main(int argc, char* argv[]) {
    set_log_sink(discard_line);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
