#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "host/files.h"
#include "output/lb_output.h"
#include "output/records.h"
#include "output/report_text.h"
#include "probe/lb_test_icmp.h"
#include "probe/lb_test_ping.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/given_clock.h"
#include "unit/support/loaded.h"

namespace {

using faults::Call;
using faults::FailCall;
namespace fs = std::filesystem;

const std::string err = "%WAN-W-ERR: ";

/// A record as its format's table tells it: a zeroed buffer, filled by offset.
struct Golden {
    explicit Golden(std::size_t size) : bytes(size, '\0') {}
    Golden& text(std::size_t at, const std::string& value) {
        bytes.replace(at, value.size(), value);
        return *this;
    }
    Golden& number(std::size_t at, std::int32_t value) {
        std::memcpy(bytes.data() + at, &value, sizeof value);
        return *this;
    }
    Golden& byte(std::size_t at, int value) {
        bytes[at] = static_cast<char>(value);
        return *this;
    }
    std::string bytes;
};

template <class Record>
std::string bytes_of_record(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST(OutboundRecord, has_every_field_at_its_place) {
    LBTestICMP echo;
    echo.target = "198.51.100.1";
    echo.timeout = 1000;
    echo.last_result = 1;
    LBTestPING ping;
    ping.target = "198.51.100.2";
    ping.last_result = 2;
    ping.last_loss = 10;
    ping.last_rtt = 104;
    ping.last_jitter = 896;
    LBHealth health("gi1_1", false);
    health.namespace_name = "blue";
    health.nexthop = "dhcp";
    health.nexthop_addr = "192.0.2.1";
    health.source_address = "192.0.2.10";
    health.tests = {{1, &echo}, {2, &ping}};
    health.success_count["198.51.100.1"] = 3;
    health.failure_count["198.51.100.2"] = 2;
    health.history.last_success = 1000;
    health.history.last_failure = 990;
    health.last_change = 900;
    health.success_ct = 3;
    health.failure_ct = 2;
    health.active = true;

    Golden golden(4312);
    golden.text(0, "gi1_1").text(64, "blue").text(96, "192.0.2.1").text(142, "192.0.2.10");
    golden.text(188, "198.51.100.1").number(188 + 46, 3).byte(188 + 54, 1).byte(188 + 56, 0xe8);
    golden.text(270, "198.51.100.2").number(270 + 50, 2).byte(270 + 54, 2).byte(270 + 55, 1);
    golden.byte(270 + 56, 0x88).number(270 + 58, 10).number(270 + 62, 104).number(270 + 66, 896);
    golden.number(270 + 70, 1).number(270 + 74, 200).number(270 + 78, 50);
    golden.byte(4288, 2).number(4289, 5).number(4293, 15).number(4297, 900).number(4301, 3);
    golden.number(4305, 2).byte(4309, 1).byte(4311, 1);
    EXPECT_EQ(bytes_of_record(*outbound_record(health, 1005)), golden.bytes);
}

TEST(OutboundRecord, texts_are_cut_at_their_limits) {
    LBTestICMP echo;
    echo.target = std::string(60, 't');
    LBHealth health(std::string(64, 'n'), false);
    health.namespace_name = std::string(40, 's');
    health.nexthop = std::string(50, 'h');
    health.source_address = std::string(50, 'a');
    health.tests = {{1, &echo}};
    Golden golden(4312);
    golden.text(0, std::string(63, 'n')).text(64, std::string(32, 's'));
    golden.text(96, std::string(15, 'h')).text(142, std::string(15, 'a'));
    golden.text(188, std::string(15, 't')).byte(188 + 56, 0x88).byte(4288, 1);
    EXPECT_EQ(bytes_of_record(*outbound_record(health, 1)), golden.bytes);
}

TEST(OutboundRecord, ipv6_texts_have_more_room_and_no_unspecified_source) {
    LBHealth health("eth0", true);
    health.nexthop = std::string(50, 'h');
    health.source_address = "::";
    Golden golden(4312);
    golden.text(0, "eth0").text(96, std::string(45, 'h'));
    EXPECT_EQ(bytes_of_record(*outbound_record(health, 1)), golden.bytes);
}

TEST(OutboundRecord, probe_without_a_target_shows_the_next_hop) {
    LBTestICMP echo;
    LBHealth health("eth0", false);
    health.nexthop = "192.0.2.1";
    health.success_count["192.0.2.1"] = 4;
    health.tests = {{1, &echo}};
    const std::string bytes = bytes_of_record(*outbound_record(health, 1));
    EXPECT_STREQ(bytes.data() + 188, "192.0.2.1");
    EXPECT_EQ(bytes[188 + 46 + (__BYTE_ORDER == __LITTLE_ENDIAN ? 0 : 3)], 4);
}

TEST(OutboundRecord, is_cut_at_fifty_probes) {
    LBTestICMP echo;
    LBHealth health("eth0", false);
    for (int i = 0; i < 60; ++i) {
        health.tests[i] = &echo;
    }
    EXPECT_EQ(outbound_record(health, 1)->probe_count, 50);
}

TEST(RuleRecord, has_every_field_at_its_place) {
    LBRule rule;
    rule.failover = 1;
    rule.namespace_name = "blue";
    rule.interfaces = {{{"eth0", false}, 300}, {{"eth0", true}, 7}};
    Golden golden(3343);
    golden.text(0, "eth0").byte(64, 44).text(66, "eth0").byte(66 + 64, 7).byte(66 + 65, 1);
    golden.byte(3300, 2).text(3301, "blue").number(3337, 12).byte(3341, 1).byte(3342, 1);
    EXPECT_EQ(bytes_of_record(*rule_record({.number = 12, .is_ipv6 = true}, rule)), golden.bytes);
}

TEST(RuleRecord, is_cut_at_fifty_members) {
    LBRule rule;
    for (int i = 0; i < 60; ++i) {
        rule.interfaces[{"eth" + std::to_string(i), false}] = 1;
    }
    EXPECT_EQ(rule_record({}, rule)->member_count, 50);
}

TEST(RouteRecord, shows_the_chosen_next_hop_of_its_prefix) {
    LBRule rule;
    rule.chosen_nexthops["10.0.0.0/8"] = "192.0.2.1";
    Golden golden(109);
    golden.text(0, "10.0.0.0/8").text(50, "192.0.2.1").number(96, -1).number(100, 1);
    golden.number(104, 3);
    EXPECT_EQ(
        bytes_of_record(*route_record({.number = 3, .is_ipv6 = false}, rule, "10.0.0.0/8", -1, 1)),
        golden.bytes);
}

TEST(RouteRecord, prefixes_are_cut_by_family) {
    const LBRule rule;
    const std::string prefix(50, 'p');
    EXPECT_EQ(bytes_of_record(*route_record({.number = 1, .is_ipv6 = false}, rule, prefix, 10, 2)),
              Golden(109)
                  .text(0, std::string(18, 'p'))
                  .number(96, 10)
                  .number(100, 2)
                  .number(104, 1)
                  .bytes);
    EXPECT_EQ(bytes_of_record(*route_record({.number = 1, .is_ipv6 = true}, rule, prefix, 10, 2)),
              Golden(109)
                  .text(0, std::string(49, 'p'))
                  .number(96, 10)
                  .number(100, 2)
                  .number(104, 1)
                  .byte(108, 1)
                  .bytes);
}

TEST(RuleKeys, are_a_number_and_a_version) {
    EXPECT_EQ(read_rule_key("12_ipv4")->number, 12);
    EXPECT_FALSE(read_rule_key("12_ipv4")->is_ipv6);
    EXPECT_TRUE(read_rule_key("2_ipv6")->is_ipv6);
    EXPECT_FALSE(read_rule_key("2"));
    EXPECT_FALSE(read_rule_key("10.0.0.0/8"));
}

TEST(Age, leaves_out_parts_that_are_zero_but_never_the_seconds) {
    EXPECT_EQ(age_text(59), "59s\t");
    EXPECT_EQ(age_text(0), "0s\t");
    EXPECT_EQ(age_text(3600), "1h0s\t");
    EXPECT_EQ(age_text(93605), "1d2h5s\t");
    EXPECT_EQ(age_text(86400 + 60), "1d1m0s\t");
}

struct Report : testing::Test {
    Report() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(Report, record_is_written_to_the_byte) {
    LBTestICMP echo;
    echo.target = "8.8.8.8";
    echo.last_result = 1;
    echo.status_text = "ping\tTarget: 8.8.8.8";
    LBHealth health("eth1", false);
    health.tests = {{1, &echo}};
    health.active = true;
    health.last_change = 1794733682;  // 15 November 2026, 09:08:02
    health.history.last_success = 1794800000;
    EXPECT_EQ(report_record("eth1", health, 1794800000 + 93605),
              "Interface:  eth1\n"
              "  Status:  active\n"
              "  Last Status Change:  Sun Nov 15 09:08:02 2026\n"
              "  +Test:  ping\tTarget: 8.8.8.8\n"
              "    Last Interface Success:  1d2h5s\t\n"
              "    Last Interface Failure:  n/a\t\t\n"
              "\n");
}

TEST_F(Report, marks_tell_the_last_result) {
    LBTestICMP probes[4];
    LBHealth health("eth1", false);
    for (int i = 0; i < 4; ++i) {
        probes[i].last_result = i;
        probes[i].status_text = "s";
        health.tests[i] = &probes[i];
    }
    const std::string text = report_record("eth1", health, 1);
    EXPECT_NE(text.find("\n   Test:  s\n  +Test:  s\n  -Test:  s\n  Test:  s\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("Status:  failed\n  Last Status Change:  Thu Jan  1 00:00:00 1970\n"),
              std::string::npos);
}

TEST_F(Report, clock_set_back_makes_successes_new_and_failures_ancient) {
    LBHealth health("eth1", false);
    health.history.last_success = 100;
    health.history.last_failure = 100;
    const std::string text = report_record("eth1", health, 99);
    EXPECT_NE(text.find("Success:  0s\t\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Failure:  49710d6h28m15s\t\n"), std::string::npos) << text;
}

struct Files : testing::Test {
    Files() {
        std::string name = "/tmp/lb-output-XXXXXX";
        folder = mkdtemp(name.data());
        output = std::make_unique<LBOutput>(folder);
        LBHealth& health = data.health.try_emplace("eth0", "eth0", false).first->second;
        health.tests = {{1, &echo}};
        data.health6.try_emplace("eth6", "eth6", true);
        data.rules["1_ipv4"].targets["10.0.0.0/8"] = -1;
    }
    ~Files() override { fs::remove_all(folder); }

    std::string content(const std::string& path) {
        std::ifstream file(folder + path, std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }
    std::string last_line() { return log.lines().empty() ? "" : log.lines().back().text; }

    std::string folder;
    LBTestICMP echo;
    LBData data;
    TestContext ctx;
    TestContext ctx6{true};
    GivenClock clock;
    CapturedLog log;
    std::unique_ptr<LBOutput> output;
};

TEST_F(Files, a_cycle_writes_the_files_of_its_family_and_the_shared_ones) {
    output->write(data, ctx);
    EXPECT_EQ(content("/wlb_ipv4.out").substr(0, 17), "Interface:  eth0\n");
    EXPECT_EQ(content("/wlb_dump/wlb_ipv4_outbounds.bin").size(), 4312U);
    EXPECT_EQ(content("/wlb_dump/wlb_rules.bin").size(), 3343U);
    EXPECT_EQ(content("/wlb_dump/wlb_routes.bin").size(), 109U);
    EXPECT_FALSE(fs::exists(folder + "/wlb_ipv6.out"));
    output->write(data, ctx6);
    EXPECT_EQ(content("/wlb_ipv6.out").substr(0, 17), "Interface:  eth6\n");
    EXPECT_EQ(content("/wlb_dump/wlb_ipv6_outbounds.bin").size(), 4312U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Files, shutdown_removes_what_was_written_and_leaves_the_folder) {
    output->write(data, ctx);
    output->write(data, ctx6);
    EXPECT_EQ(output->files.size(), 4U);
    EXPECT_EQ(output->files6.size(), 2U);
    output->shutdown();
    EXPECT_TRUE(fs::is_empty(folder + "/wlb_dump"));
    EXPECT_FALSE(fs::exists(folder + "/wlb_ipv4.out"));
}

TEST_F(Files, dump_folder_that_cannot_be_made_ends_the_write) {
    const FailCall no_folder(Call::mkdir, EROFS);
    output->write(data, ctx);
    EXPECT_EQ(last_line(),
              err + "wan_lb: error create directory: " + folder + "/wlb_dump, errno = 30");
    EXPECT_FALSE(fs::exists(folder + "/wlb_ipv4.out"));
}

TEST_F(Files, paths_are_noted_only_once_the_dump_folder_is_there) {
    {
        const FailCall no_folder(Call::mkdir, EROFS);
        output->write(data, ctx);
    }
    EXPECT_TRUE(output->files.empty());
    output->write(data, ctx);
    EXPECT_EQ(output->files.size(), 4U);
}

TEST_F(Files, each_file_that_cannot_be_opened_is_reported_in_its_own_words) {
    fs::create_directories(folder + "/wlb_dump/wlb_ipv4_outbounds.bin");
    fs::create_directory(folder + "/wlb_dump/wlb_routes.bin");
    fs::create_directory(folder + "/wlb_ipv4.out");
    output->write(data, ctx);
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{
                  {4, err + "wan_lb: error open file for writing '" + folder +
                          "/wlb_dump/wlb_ipv4_outbounds.bin'"},
                  {4, err + "wan_lb: Error open file for writing '" + folder +
                          "/wlb_dump/wlb_routes.bin'"},
                  {4, err + "wan_lb: error ordering output file " + folder + "/wlb_ipv4.out"}}));
    fs::remove(folder + "/wlb_ipv4.out");
    output->write(data, ctx);
    EXPECT_NE(content("/wlb_ipv4.out"), "");  // whole again once the fault has ended
}

TEST_F(Files, full_disk_is_reported_for_each_dump) {
    fs::create_directory(folder + "/wlb_dump");
    const auto full = [this](const std::string& name) {
        fs::remove(folder + "/wlb_dump/" + name);
        fs::create_symlink("/dev/full", folder + "/wlb_dump/" + name);
    };
    full("wlb_ipv4_outbounds.bin");
    full("wlb_rules.bin");
    output->write(data, ctx);
    fs::remove(folder + "/wlb_dump/wlb_rules.bin");
    full("wlb_routes.bin");
    output->write(data, ctx);
    const std::string outbounds = err + "wan_lb: <dump_outbounds> error writing data block";
    EXPECT_EQ(
        log.lines(),
        (std::vector<LogLine>{{4, outbounds},
                              {4, err + "wan_lb: <dump_rules_and_routes> error writing data block"},
                              {4, outbounds},
                              {4, err + "wan_lb: error dumping routes"}}));
}

TEST_F(Files, short_writes_are_reported_and_end_the_dump) {
    fs::create_directory(folder + "/wlb_dump");
    {
        const FailCall no_write(Call::fwrite, ENOSPC);
        output->dump_outbounds(data, {}, ctx, 0);
        output->dump_rules_and_routes(data, ctx);
    }
    {
        const FailCall no_second_write(Call::fwrite, ENOSPC, 2);
        output->dump_rules_and_routes(data, ctx);
    }
    EXPECT_EQ(
        log.lines(),
        (std::vector<LogLine>{{4, err + "wan_lb: <dump_outbounds> error writing data block"},
                              {4, err + "wan_lb: <dump_rules_and_routes> error writing data block"},
                              {4, err + "wan_lb: error dumping routes"}}));
}

TEST_F(Files, longer_dump_of_a_former_run_is_cut_to_this_one) {
    output->write(data, ctx);
    const std::string path = folder + "/wlb_dump/wlb_ipv4_outbounds.bin";
    fs::resize_file(path, 3 * sizeof(record::Outbound));
    output->write(data, ctx);
    EXPECT_EQ(fs::file_size(path), sizeof(record::Outbound));
}

TEST_F(Files, dump_that_stops_half_way_ends_there) {
    output->write(data, ctx);
    const FailCall no_write(Call::fwrite, ENOSPC);
    output->dump_outbounds(data, {}, ctx, 0);
    EXPECT_EQ(content("/wlb_dump/wlb_ipv4_outbounds.bin"), "");
}

TEST_F(Files, dump_is_not_of_whole_records_until_all_are_written) {
    output->write(data, ctx);
    const std::string path = folder + "/wlb_dump/wlb_ipv4_outbounds.bin";
    const std::string whole = content("/wlb_dump/wlb_ipv4_outbounds.bin");
    {
        const host::File file = host::open_file_to_overwrite(path, whole.size());
        EXPECT_EQ(fs::file_size(path), whole.size() - 1);
        fwrite(whole.data(), 1, whole.size() - 1, file.get());
        fflush(file.get());
        EXPECT_EQ(fs::file_size(path), whole.size() - 1);
        fputc(whole.back(), file.get());
    }
    EXPECT_EQ(content("/wlb_dump/wlb_ipv4_outbounds.bin"), whole);
}

TEST_F(Files, rule_key_that_does_not_parse_stops_the_dump) {
    data.rules["5"];
    data.rules["6_ipv4"];
    output->write(data, ctx);
    EXPECT_EQ(last_line(), err + "<dump_rules_and_routes> wan_lb: sscanf failed");
    EXPECT_EQ(content("/wlb_dump/wlb_rules.bin").size(), 3343U);
}

TEST_F(Files, at_most_fifty_routes_of_a_rule_are_written) {
    for (int i = 0; i < 60; ++i) {
        data.rules["1_ipv4"].targets["10.0.0." + std::to_string(i)] = 1;
    }
    output->write(data, ctx);
    EXPECT_EQ(content("/wlb_dump/wlb_routes.bin").size(), 50U * 109U);
}

TEST_F(Files, busy_mutex_skips_the_shared_dumps_and_still_reports) {
    pthread_mutex_lock(&output->mutex);
    std::thread([this] { output->write(data, ctx); }).join();
    pthread_mutex_unlock(&output->mutex);
    EXPECT_FALSE(fs::exists(folder + "/wlb_dump/wlb_rules.bin"));
    EXPECT_TRUE(fs::exists(folder + "/wlb_ipv4.out"));
}

/// Two workers of one family, in namespaces of their own, whose uplinks have not changed lately.
struct TwoWorkers : Files {
    TwoWorkers() {
        LBHealth& health = data.health.try_emplace("eth1", "eth1", false).first->second;
        health.namespace_name = "vrf";
        for (auto& [name, record] : data.health) {
            record.state_changed = false;
        }
        output->write(data, ctx);
        output->write(data, sibling);
    }
    /// The files that a write brings back after all were lost.
    std::set<std::string> rewritten(context* by) {
        output->shutdown();
        output->write(data, by);
        std::set<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            if (entry.is_regular_file()) {
                names.insert(entry.path().filename());
            }
        }
        return names;
    }

    const std::set<std::string> all{"wlb_ipv4.out", "wlb_ipv4_outbounds.bin", "wlb_routes.bin",
                                    "wlb_rules.bin"};
    TestContext sibling{false, "vrf"};
};

TEST_F(TwoWorkers, one_rewrites_the_files_for_both) {
    for (int cycle = 0; cycle < 3; ++cycle) {
        EXPECT_EQ(rewritten(ctx), std::set<std::string>{}) << cycle;
        EXPECT_EQ(rewritten(sibling), all) << cycle;
    }
}

TEST_F(TwoWorkers, other_one_takes_over_after_a_cycle_without_a_rewriting) {
    EXPECT_EQ(rewritten(ctx), std::set<std::string>{});
    EXPECT_EQ(rewritten(ctx), all);
}

TEST_F(TwoWorkers, change_of_an_own_interface_is_written_at_once) {
    data.health.at("eth1").state_changed = true;
    EXPECT_EQ(rewritten(ctx), std::set<std::string>{});
    data.health.at("eth0").state_changed = true;
    output->write(data, sibling);
    EXPECT_EQ(rewritten(ctx), all);
}

TEST_F(TwoWorkers, rewriting_that_failed_spares_nobody) {
    {
        const FailCall no_file(Call::open, EACCES);
        output->write(data, sibling);
    }
    EXPECT_EQ(rewritten(ctx), std::set<std::string>{});  // the sibling's of the cycle before
    const FailCall no_file(Call::open, EACCES);
    output->write(data, sibling);
    const auto before = log.lines().size();
    output->write(data, ctx);
    EXPECT_GT(log.lines().size(), before);
}

TEST_F(Files, without_a_context_nothing_is_dumped) {
    fs::create_directory(folder + "/wlb_dump");
    output->dump_outbounds(data, {}, nullptr, 0);
    output->dump_rules_and_routes(data, nullptr);
    EXPECT_TRUE(fs::is_empty(folder + "/wlb_dump"));
}

TEST_F(Files, unlock_that_fails_ends_the_write_without_a_report) {
    std::vector<LogLine> lines;
    {
        // The ninth one: what is known of the three files that may be due, the folder's name, the
        // paths, the outbounds dump and twice the news of a rewritten file were unlocked by then.
        const FailCall no_unlock(Call::pthread_mutex_unlock, EPERM, 9);
        output->write(data, ctx);
        lines = log.lines();
    }
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().text,
              err + "wan_lb: <write> mutex unlock error. PThread return code: 1");
    EXPECT_FALSE(fs::exists(folder + "/wlb_ipv4.out"));
    EXPECT_EQ(pthread_mutex_unlock(&output->mutex), 0);
}

TEST_F(Files, mutex_that_cannot_be_made_ends_the_thread) {
    std::vector<LogLine> lines;
    {
        const FailCall no_mutex(Call::pthread_mutex_init, ENOMEM);
        pthread_t thread{};
        pthread_create(
            &thread, nullptr,
            [](void* path) -> void* {
                const LBOutput never_made(*static_cast<std::string*>(path));
                return nullptr;
            },
            &folder);
        void* result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(reinterpret_cast<std::intptr_t>(result), ENOMEM);
        lines = log.lines();
    }
    EXPECT_EQ(lines.back().text, err + "wan_lb: <LBOutput> error mutex initialization");
}

TEST_F(Files, workers_writing_side_by_side_leave_whole_files) {
    for (int i = 0; i < 20; ++i) {
        const std::string name = "eth" + std::to_string(100 + i);
        data.health.try_emplace(name, name, false);
    }
    TestContext blue(false, "blue");
    const auto cycles = [this](context* own) {
        for (int i = 0; i < 30; ++i) {
            output->write(data, own);
        }
    };
    std::thread first(cycles, static_cast<context*>(ctx));
    std::thread second(cycles, static_cast<context*>(blue));
    std::thread third(cycles, static_cast<context*>(ctx6));
    first.join();
    second.join();
    third.join();
    EXPECT_EQ(content("/wlb_dump/wlb_ipv4_outbounds.bin").size(), 21U * 4312U);
    const std::string report = content("/wlb_ipv4.out");
    std::size_t records = 0;
    for (std::size_t at = report.find("Interface:"); at != std::string::npos;
         at = report.find("Interface:", at + 1)) {
        ++records;
    }
    EXPECT_EQ(records, 21U);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
