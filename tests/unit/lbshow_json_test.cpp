#include <gtest/gtest.h>

#include "dumps/freshness.h"
#include "lbshow/views.h"
#include "unit/support/given_dumps.h"
#include <nlohmann/json.hpp>

namespace {

using given::judged;

TEST(JsonText, has_its_documented_shape) {
    EXPECT_EQ(lbshow::json(judged(), {}), R"({
  "families": {
    "ipv4": {
      "written": "2026-11-21T14:10:05Z",
      "age_s": 1,
      "stale": false,
      "stale_after_s": 60
    }
  },
  "files": {
    "wlb_ipv4_outbounds.bin": {
      "written": "2026-11-21T14:10:05Z",
      "age_s": 1
    },
    "wlb_rules.bin": {
      "written": "2026-11-21T14:10:05Z",
      "age_s": 1
    },
    "wlb_routes.bin": {
      "written": "2026-11-21T14:10:05Z",
      "age_s": 1
    }
  },
  "stalled": [],
  "left_out": {
    "interfaces": 0,
    "rules": 0,
    "routes": 0
  },
  "interfaces": [
    {
      "name": "gi1_1",
      "family": 4,
      "namespace": "blue",
      "active": true,
      "routed": true,
      "stale": false,
      "nexthop": "192.0.2.1",
      "nexthop_from": "dhcp",
      "source_address": "192.0.2.10",
      "since_success_s": 6,
      "since_failure_s": null,
      "success_ct": 3,
      "failure_ct": 2,
      "state_since_s": null,
      "state_begin_seen": null,
      "flaps_today": null,
      "probes": [
        {
          "probe": 1,
          "type": "ping",
          "target": "198.51.100.1",
          "last_result": "answered",
          "success_run": 3,
          "failure_run": 0,
          "quality": null
        },
        {
          "probe": 2,
          "type": "ping_ext",
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
      "stale": false,
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
      "nexthop": "192.0.2.1",
      "stale": false,
      "nexthops": [
        {
          "nexthop": "192.0.2.1",
          "interface": "gi1_1",
          "weight": 3
        }
      ]
    }
  ]
}
)");
}

TEST(JsonText, of_bytes_that_are_no_utf8_is_still_json) {
    dumps::State bad = judged();
    bad.interfaces[0].name = "\xff\xfe";
    EXPECT_NE(lbshow::json(bad, {}).find("\xef\xbf\xbd"), std::string::npos);
}

TEST(JsonText, of_a_stale_family_says_so_of_each_item) {
    const std::string text = lbshow::json(judged(61), {});
    EXPECT_NE(text.find("\"age_s\": 61,\n      \"stale\": true"), std::string::npos) << text;
    EXPECT_EQ(text.find("\"stale\": false"), std::string::npos) << text;
}

TEST(JsonText, names_an_interface_whose_worker_stands_still_though_it_is_left_out) {
    dumps::State state = judged();
    state.interfaces[0].since_success_s = 100;
    dumps::judge_freshness(state, state.seen, std::nullopt);
    dumps::leave_out_stale(state);
    const auto read = nlohmann::json::parse(lbshow::json(state, {}));
    EXPECT_EQ(read["interfaces"].size(), 0U);
    EXPECT_EQ(read["families"]["ipv4"]["stale"], false);
    EXPECT_EQ(read["stalled"], nlohmann::json::parse(R"([{"name": "gi1_1", "family": 4,
                                   "namespace": "blue", "judged_s_ago": 100}])"));
    EXPECT_EQ(read["left_out"]["interfaces"], 1);
}

TEST(JsonText, of_a_file_from_the_future_has_a_negative_age) {
    const std::string text = lbshow::json(judged(-3600), {});
    EXPECT_NE(text.find("\"age_s\": -3600,\n      \"stale\": true"), std::string::npos) << text;
}

}  // namespace
