#include "property/random_router.h"

#include <algorithm>
#include <random>
#include <utility>

#include "lbsim/draws.h"
#include "lbsim/scenario_text.h"

namespace property {

namespace {

constexpr std::int64_t second_us = 1'000'000;

class Draws {
  public:
    explicit Draws(std::uint64_t seed) : engine_(seed) {}
    /// From `least` to `most`.
    int between(int least, int most) {
        return least + static_cast<int>(engine_() % static_cast<std::uint64_t>(most - least + 1));
    }
    bool one_of(int count) { return between(1, count) == 1; }

  private:
    std::mt19937_64 engine_;
};

/// One uplink in the making.
struct Draft {
    std::string name;
    bool is_ipv6 = false;
    std::string ns_name;
    std::string nexthop;
};

std::string address(bool is_ipv6, int number) {
    return is_ipv6 ? "2001:db8:ffff::" + std::to_string(number)
                   : "203.0.113." + std::to_string(number);
}

std::string probe_text(Draws& dice, const Draft& draft, int number, int target, bool may_burst) {
    std::string text = "rule " + std::to_string(number) + " {\n";
    if (!draft.is_ipv6 && may_burst && dice.one_of(4)) {
        // On tunnels a time that is no whole number of seconds is invalid (B71).
        const int timeout_ms =
            draft.nexthop == "tunnel" ? dice.between(1, 2) * 1000 : dice.between(2, 12) * 100;
        text += "type ping_ext {\ntarget " + address(false, target) + "\nperiod " +
                std::to_string(dice.between(1, 40)) + "\ncount " +
                std::to_string(dice.between(1, 5)) + "\ntimeout " + std::to_string(timeout_ms) +
                "\nloss " + std::to_string(dice.between(1, 100)) + "\n}\n";
    } else {
        text += "type ping {\n";
        // A probe without a target keeps its first next hop for good (B58).
        if (number > 1 || draft.nexthop == "dhcp" || draft.nexthop == "tunnel" || !dice.one_of(6)) {
            text += "target " + address(draft.is_ipv6, target) + "\n";
        }
        text += "resp-time " + std::to_string(dice.between(3, 40) * 100) + "\n}\n";
    }
    return text + "}\n";
}

std::string uplink_text(Draws& dice, const Draft& draft, int& last_target, bool may_burst) {
    std::string text =
        std::string(draft.is_ipv6 ? "interface6 " : "interface ") + draft.name + " {\n";
    if (!draft.ns_name.empty()) {
        text += "namespace " + draft.ns_name + "\n";
    }
    text += "nexthop " + draft.nexthop + "\nsuccess-ct " + std::to_string(dice.between(1, 5)) +
            "\nfailure-ct " + std::to_string(dice.between(1, 5)) + "\n";
    if (dice.one_of(4)) {
        text += "check_all\n";
    }
    const int probes = dice.between(1, 3);
    for (int i = 1; i <= probes; ++i) {
        text += probe_text(dice, draft, i, ++last_target, may_burst);
    }
    return text + "}\n";
}

std::string rule_text(Draws& dice, int number, bool is_ipv6, const std::string& ns_name,
                      const std::vector<Draft>& drafts) {
    std::string members;
    for (const Draft& draft : drafts) {
        if (draft.is_ipv6 == is_ipv6 && draft.ns_name == ns_name && !dice.one_of(5)) {
            members +=
                std::string(is_ipv6 ? "interface6 " : "interface ") + draft.name + " {\n" +
                (dice.one_of(8) ? "" : "weight " + std::to_string(dice.between(1, 4)) + "\n") +
                "}\n";
        }
    }
    std::string text = "rule " + std::to_string(number) + (is_ipv6 ? "_ipv6 {\n" : "_ipv4 {\n");
    if (!ns_name.empty()) {
        text += "namespace " + ns_name + "\n";
    }
    if (dice.one_of(3)) {
        text += "failover\n";
    }
    text += members;
    const int targets = dice.between(1, 2);
    for (int i = 0; i < targets; ++i) {
        const std::string prefix =
            is_ipv6 ? "2001:db8:" + std::to_string(number) + std::to_string(i) + "::/48"
                    : "10." + std::to_string(number) + "." + std::to_string(i) + ".0/24";
        text += "target {\naddress " + prefix + "\n" +
                (dice.one_of(3) ? "metric " + std::to_string(dice.between(0, 50)) + "\n" : "") +
                "}\n";
    }
    return text + "}\n";
}

Draft random_draft(Draws& dice, int number, bool has_two_namespaces) {
    Draft draft;
    draft.is_ipv6 = dice.one_of(3);
    draft.ns_name = has_two_namespaces && dice.one_of(2) ? "blue" : "";
    draft.name = "gi1_" + std::to_string(number);
    // A lease's router is of no use to an IPv6 prober (B80), a tunnel's peer is IPv4 (B99).
    if (draft.is_ipv6) {
        draft.nexthop = "2001:db8:" + std::to_string(number) + "::1";
    } else if (dice.one_of(5)) {
        draft.name = (dice.one_of(2) ? "gre_" : "ip4ip4_") + std::to_string(number);
        draft.nexthop = "tunnel";
    } else {
        draft.nexthop = dice.one_of(3) ? "dhcp" : "192.0.2." + std::to_string(number);
    }
    return draft;
}

}  // namespace

std::string random_configuration(std::uint64_t seed) {
    Draws dice(seed);
    const int count = dice.between(1, 5);
    const bool has_two_namespaces = dice.one_of(3);
    std::vector<Draft> drafts;
    for (int i = 1; i <= count; ++i) {
        drafts.push_back(random_draft(dice, i, has_two_namespaces));
    }
    std::string text = "health {\n";
    int last_target = 0;
    for (const Draft& draft : drafts) {
        // Extended pings of two namespaces at one moment wait for each other in the simulation.
        text += uplink_text(dice, draft, last_target, draft.ns_name.empty());
    }
    text += "}\n";
    int number = 0;
    for (const char* ns_name : {"", "blue"}) {
        for (const bool is_ipv6 : {false, true}) {
            const bool has_uplinks =
                std::any_of(drafts.begin(), drafts.end(), [&](const Draft& draft) {
                    return draft.is_ipv6 == is_ipv6 && draft.ns_name == ns_name;
                });
            const int rules = has_uplinks ? dice.between(1, 2) : 0;
            for (int i = 0; i < rules; ++i) {
                text += rule_text(dice, ++number, is_ipv6, ns_name, drafts);
            }
        }
    }
    return text;
}

lbsim::Scenario random_scenario(std::uint64_t seed, const std::vector<lbsim::Uplink>& uplinks,
                                std::int64_t duration_us) {
    Draws dice(seed ^ 0x5ce9a210ULL);
    lbsim::OutageModel model;
    model.outages_per_day = 24.0 * dice.between(2, 16);
    model.mean_length_us = dice.between(2, 120) * second_us;
    lbsim::Scenario events = lbsim::draw_outages(uplinks, duration_us, model, seed);
    for (const lbsim::Uplink& uplink : uplinks) {
        const int leases = uplink.nexthop == "dhcp" ? dice.between(0, 4) : 0;
        for (int i = 0; i < leases; ++i) {
            const int at_s = dice.between(1, static_cast<int>(duration_us / second_us));
            const std::string router =
                dice.one_of(4) ? "none" : "198.51.100." + std::to_string(dice.between(1, 250));
            const auto parsed = lbsim::parse_scenario(std::to_string(at_s) + "s " + uplink.name +
                                                      " ipv4 lease " + router);
            events.insert(events.end(), parsed.events.begin(), parsed.events.end());
        }
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const auto& one, const auto& other) { return one.at_us < other.at_us; });
    return events;
}

std::vector<FaultWindow> random_faults(std::uint64_t seed,
                                       const std::vector<lbsim::Uplink>& uplinks,
                                       std::int64_t duration_us) {
    using Call = Simulation::Call;
    static const std::vector<std::pair<Call, const char*>> calls{
        {Call::send_frame, "send_frame"},
        {Call::send_echo, "send_echo"},
        {Call::bind, "bind"},
        {Call::receive_reply, "receive_reply"},
        {Call::link, "link"},
        {Call::primary_address, "primary_address"},
        {Call::peer, "peer"},
        {Call::addresses, "addresses"},
        {Call::resolve, "resolve"},
        {Call::arp_entry, "arp_entry"},
        {Call::write_arp_entry, "write_arp_entry"},
        {Call::neighbours, "neighbours"},
        {Call::write_neighbour, "write_neighbour"},
        {Call::track, "track"},
        {Call::read_file, "read_file"},
        {Call::write_file, "write_file"},
        {Call::make_directory, "make_directory"},
        {Call::command, "command"},
    };
    const bool has_ipv6 = std::any_of(uplinks.begin(), uplinks.end(),
                                      [](const auto& uplink) { return uplink.is_ipv6; });
    Draws dice(seed ^ 0xfa017ULL);
    std::vector<FaultWindow> windows;
    std::int64_t at_us = 0;
    while (true) {
        at_us += dice.between(0, 900) * second_us;
        if (at_us >= duration_us) {
            return windows;
        }
        FaultWindow window{.from_us = at_us, .to_us = 0, .faults = {}, .text = {}};
        at_us += dice.between(1, 60) * second_us;
        window.to_us = at_us;
        const int kinds = dice.between(1, 3);
        for (int i = 0; i < kinds; ++i) {
            const auto& [call, name] = calls[static_cast<std::size_t>(
                dice.between(0, static_cast<int>(calls.size()) - 1))];
            if (call == Call::send_frame && has_ipv6) {
                continue;
            }
            window.faults.calls.insert(call);
            window.text += std::string(window.text.empty() ? "" : ", ") + name;
        }
        window.faults.percent = dice.one_of(2) ? 100 : dice.between(5, 80);
        windows.push_back(window);
    }
}

}  // namespace property
