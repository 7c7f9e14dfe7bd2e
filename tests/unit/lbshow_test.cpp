#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "lbshow/state.h"
#include "lbshow/views.h"
#include "unit/support/captured_log.h"

namespace {

using Dump = std::vector<std::uint8_t>;

/// Dump records made by hand from their table, in either byte order.
class Bytes {
  public:
    Bytes(std::size_t size, bool is_big) : bytes_(size), is_big_(is_big) {}
    Bytes& text(std::size_t at, const std::string& value) {
        std::copy(value.begin(), value.end(), bytes_.begin() + static_cast<long>(at));
        return *this;
    }
    Bytes& byte(std::size_t at, int value) {
        bytes_[at] = static_cast<std::uint8_t>(value);
        return *this;
    }
    Bytes& number(std::size_t at, std::uint32_t value) {
        for (std::size_t i = 0; i < 4; ++i) {
            const std::size_t shift = 8 * (is_big_ ? 3 - i : i);
            bytes_[at + i] = static_cast<std::uint8_t>(value >> shift);
        }
        return *this;
    }
    operator Dump() const { return bytes_; }

  private:
    Dump bytes_;
    bool is_big_;
};

constexpr bool is_big_here = __BYTE_ORDER == __BIG_ENDIAN;

Dump outbound(bool is_big = is_big_here) {
    return Bytes(4312, is_big)
        .text(0, "gi1_1")
        .text(64, "blue")
        .text(96, "192.0.2.1")
        .text(142, "192.0.2.10")
        .text(188, "198.51.100.1")
        .number(234, 3)
        .byte(242, 1)
        .byte(244, 0xe8)
        .text(270, "198.51.100.2")
        .number(320, 2)
        .byte(324, 2)
        .byte(325, 1)
        .number(328, 10)
        .number(332, 104)
        .number(336, 896)
        .number(340, 1)
        .number(344, 200)
        .number(348, 50)
        .byte(4288, 2)
        .number(4289, 5)
        .number(4293, 0)
        .number(4297, 900)
        .number(4301, 3)
        .number(4305, 2)
        .byte(4309, 1)
        .byte(4311, 1);
}

Dump rule(bool is_big = is_big_here) {
    return Bytes(3343, is_big)
        .text(0, "gi1_1")
        .byte(64, 3)
        .text(66, "eth0")
        .byte(130, 1)
        .byte(131, 1)
        .byte(3300, 2)
        .text(3301, "blue")
        .number(3337, 12)
        .byte(3341, 1);
}

Dump route(bool is_big = is_big_here) {
    return Bytes(109, is_big)
        .text(0, "10.0.0.0/8")
        .text(50, "192.0.2.1")
        .number(96, 0xffffffff)
        .number(100, 1)
        .number(104, 12);
}

lbshow::State state() {
    return {.interfaces = lbshow::read_interfaces(outbound(), 4, false).items,
            .rules = lbshow::read_rules(rule(), false).items,
            .routes = lbshow::read_routes(route(), false).items};
}

TEST(Dumps, of_either_byte_order_tell_the_same) {
    lbshow::State swapped{
        .interfaces = lbshow::read_interfaces(outbound(!is_big_here), 4, true).items,
        .rules = lbshow::read_rules(rule(!is_big_here), true).items,
        .routes = lbshow::read_routes(route(!is_big_here), true).items};
    EXPECT_EQ(lbshow::json(swapped, {}), lbshow::json(state(), {}));
}

TEST(Dumps, of_the_wrong_byte_order_are_refused) {
    EXPECT_NE(lbshow::read_routes(route(!is_big_here), false).problem, "");
}

TEST(Dumps, cut_within_a_record_say_so) {
    Dump cut = route();
    cut.resize(200);
    const auto read = lbshow::read_routes(cut, false);
    EXPECT_EQ(read.problem.empty(), false);
    Dump one_and_a_half = route();
    const Dump second = route();
    one_and_a_half.insert(one_and_a_half.end(), second.begin(), second.begin() + 50);
    const auto truncated = lbshow::read_routes(one_and_a_half, false);
    EXPECT_TRUE(truncated.is_truncated);
    EXPECT_EQ(truncated.items.size(), 1U);
}

TEST(Dumps, foreign_files_are_refused) {
    Dump noise(4312 * 2);
    for (std::size_t i = 0; i < noise.size(); ++i) {
        noise[i] = static_cast<std::uint8_t>(i * 31 + 7);
    }
    EXPECT_NE(lbshow::read_interfaces(noise, 4, false).problem, "");
    EXPECT_NE(lbshow::read_rules(noise, false).problem, "");
    EXPECT_NE(lbshow::read_routes(noise, false).problem, "");
    Dump counted = outbound();
    counted[4288] = 51;
    EXPECT_NE(lbshow::read_interfaces(counted, 4, false).problem, "");
}

TEST(Ages, of_zero_seconds_are_now_for_the_present_state_and_never_for_the_other) {
    Dump dump = outbound();
    std::fill(dump.begin() + 4289, dump.begin() + 4297, std::uint8_t{0});
    const auto active = lbshow::read_interfaces(dump, 4, false).items.at(0);
    EXPECT_EQ(active.since_success_s, 0);
    EXPECT_EQ(active.since_failure_s, std::nullopt);
    dump[4311] = 0;
    const auto failed = lbshow::read_interfaces(dump, 4, false).items.at(0);
    EXPECT_EQ(failed.since_success_s, std::nullopt);
    EXPECT_EQ(failed.since_failure_s, 0);
    dump[188 + 54] = 0;  // neither probe has a result yet
    dump[270 + 54] = 0;
    EXPECT_EQ(lbshow::read_interfaces(dump, 4, false).items.at(0).since_failure_s, std::nullopt);
}

TEST(Tables, are_aligned) {
    EXPECT_EQ(
        lbshow::tables(state(), {}, false),
        "INTERFACE  FAMILY  NAMESPACE  STATE   NEXT HOP   FROM  SOURCE      LAST UP  LAST DOWN\n"
        "gi1_1      ipv4    blue       active  192.0.2.1  dhcp  192.0.2.10  5s       never\n"
        "\n"
        "INTERFACE  TARGET        LAST PROBE  SUCCESSES  FAILURES  QUALITY\n"
        "gi1_1      198.51.100.1  answered    3/3        0/2       -\n"
        "gi1_1      198.51.100.2  no answer   0/3        2/2       loss 10/1% rtt 104/200ms jitter "
        "896/50ms\n"
        "\n"
        "RULE     NAMESPACE  MODE      INTERFACE    WEIGHT\n"
        "12_ipv4  blue       failover  gi1_1        3\n"
        "12_ipv4  blue       failover  eth0 (ipv6)  1\n"
        "\n"
        "RULE     PREFIX      METRIC  CHOSEN NEXT HOP\n"
        "12_ipv4  10.0.0.0/8  -       192.0.2.1\n");
}

TEST(Tables, are_coloured_without_losing_their_alignment) {
    lbshow::Selection routes_only{.interfaces = true, .rules = false, .routes = false, .names = {}};
    const std::string text = lbshow::tables(state(), routes_only, true);
    EXPECT_NE(text.find("blue       \033[32mactive\033[0m  192.0.2.1"), std::string::npos) << text;
}

TEST(Tables, show_control_characters_of_foreign_names_as_text) {
    lbshow::State bad = state();
    bad.interfaces[0].name = "a\033[2Jb\n";
    const std::string text = lbshow::tables(bad, {}, false);
    EXPECT_NE(text.find("a\\x1b[2Jb\\x0a"), std::string::npos);
    EXPECT_EQ(text.find('\033'), std::string::npos);
}

TEST(JsonText, has_its_documented_shape) {
    EXPECT_EQ(lbshow::json(state(), {}), R"({
  "interfaces": [
    {
      "name": "gi1_1",
      "family": 4,
      "namespace": "blue",
      "active": true,
      "nexthop": "192.0.2.1",
      "nexthop_from": "dhcp",
      "source_address": "192.0.2.10",
      "since_success_s": 5,
      "since_failure_s": null,
      "success_ct": 3,
      "failure_ct": 2,
      "probes": [
        {
          "target": "198.51.100.1",
          "last_result": "answered",
          "success_run": 3,
          "failure_run": 0,
          "quality": null
        },
        {
          "target": "198.51.100.2",
          "last_result": "timed_out",
          "success_run": 0,
          "failure_run": 2,
          "quality": {
            "loss_percent": 10,
            "rtt_ms": 104,
            "jitter_ms": 896,
            "loss_limit": 1,
            "rtt_limit": 200,
            "jitter_limit": 50
          }
        }
      ]
    }
  ],
  "rules": [
    {
      "name": "12_ipv4",
      "number": 12,
      "family": 4,
      "namespace": "blue",
      "failover": true,
      "members": [
        {
          "interface": "gi1_1",
          "family": 4,
          "weight": 3
        },
        {
          "interface": "eth0",
          "family": 6,
          "weight": 1
        }
      ]
    }
  ],
  "routes": [
    {
      "rule": "12_ipv4",
      "family": 4,
      "position": 1,
      "prefix": "10.0.0.0/8",
      "metric": null,
      "nexthop": "192.0.2.1"
    }
  ]
}
)");
}

TEST(JsonText, of_bytes_that_are_no_utf8_is_still_json) {
    lbshow::State bad = state();
    bad.interfaces[0].name = "\xff\xfe";
    EXPECT_NE(lbshow::json(bad, {}).find("\xef\xbf\xbd"), std::string::npos);
}

TEST(MetricsText, is_grouped_by_metric_with_escaped_labels) {
    lbshow::State one = state();
    one.interfaces[0].name = "a\"\\";
    const std::string text = lbshow::metrics(one, {});
    EXPECT_NE(
        text.find(
            "# HELP lb_interface_active 1 when the interface carries traffic\n"
            "# TYPE lb_interface_active gauge\n"
            "lb_interface_active{interface=\"a\\\"\\\\\",family=\"ipv4\",namespace=\"blue\"} 1\n"),
        std::string::npos)
        << text;
    EXPECT_NE(
        text.find(
            "lb_route_chosen{rule=\"12_ipv4\",prefix=\"10.0.0.0/8\",nexthop=\"192.0.2.1\"} 1\n"),
        std::string::npos);
    EXPECT_NE(text.find("target=\"198.51.100.2\"} 896\n"), std::string::npos);
}

TEST(Selection, leaves_what_is_named) {
    lbshow::State one = state();
    EXPECT_EQ(
        lbshow::select(one, {.interfaces = true, .rules = true, .routes = true, .names = {"12"}}),
        "");
    EXPECT_TRUE(one.interfaces.empty());
    EXPECT_EQ(one.rules.size(), 1U);
    EXPECT_EQ(one.routes.size(), 1U);
    EXPECT_EQ(
        lbshow::select(one, {.interfaces = true, .rules = true, .routes = true, .names = {"eth9"}}),
        "eth9");
}

struct Directory : testing::Test {
    Directory() {
        std::string name = "/tmp/lbshow-XXXXXX";
        path = mkdtemp(name.data());
        std::filesystem::create_directory(path + "/wlb_dump");
    }
    ~Directory() override { std::filesystem::remove_all(path); }
    void put(const std::string& name, const Dump& dump) {
        std::ofstream file(path + "/wlb_dump/" + name, std::ios::binary);
        file.write(reinterpret_cast<const char*>(dump.data()), static_cast<long>(dump.size()));
    }
    std::string path;
    lbshow::State read;
};

TEST_F(Directory, without_dumps_is_a_clear_error) {
    EXPECT_EQ(lbshow::read_state("/nonexistent", false, read),
              "no dumps below /nonexistent: is the daemon running with this directory?");
}

TEST_F(Directory, family_without_a_dump_is_no_error) {
    put("wlb_ipv4_outbounds.bin", outbound());
    put("wlb_rules.bin", rule());
    put("wlb_routes.bin", route());
    EXPECT_EQ(lbshow::read_state(path, false, read), "");
    EXPECT_EQ(read.interfaces.size(), 1U);
}

TEST_F(Directory, dump_that_stays_cut_is_an_error) {
    Dump cut = outbound();
    cut.resize(100);
    put("wlb_ipv4_outbounds.bin", cut);
    EXPECT_EQ(lbshow::read_state(path, false, read),
              path + "/wlb_dump/wlb_ipv4_outbounds.bin ends within a record");
}

TEST_F(Directory, dump_that_stays_empty_is_an_error_where_there_must_be_records) {
    put("wlb_ipv4_outbounds.bin", outbound());
    put("wlb_rules.bin", {});
    EXPECT_EQ(lbshow::read_state(path, false, read), path + "/wlb_dump/wlb_rules.bin is empty");
}

TEST_F(Directory, rules_without_destinations_have_an_empty_dump_of_routes) {
    put("wlb_rules.bin", rule());
    put("wlb_routes.bin", {});
    EXPECT_EQ(lbshow::read_state(path, false, read), "");
}

TEST_F(Directory, dump_that_is_just_rewritten_is_read_again) {
    put("wlb_routes.bin", {1, 2, 3});
    std::thread writer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        put("wlb_routes.bin", route());
    });
    EXPECT_EQ(lbshow::read_state(path, false, read), "");
    writer.join();
    EXPECT_EQ(read.routes.size(), 1U);
}

}  // namespace
