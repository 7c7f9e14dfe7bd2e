#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lbroute/apply.h"
#include "lbroute/fragment.h"
#include "lbroute/kernel_state.h"
#include "lbroute/plan.h"
#include "lbroute/uplinks.h"

/// Values that the tests of lbroute share: two uplinks with a link each, and a kernel on a desk.
namespace lbroute::scene {

inline Address address(const std::string& text) {
    const Family family = text.find(':') == std::string::npos ? Family::ipv4 : Family::ipv6;
    return Address::parse(text, family).value();
}

inline Prefix prefix(const std::string& text) {
    return prefix_of(text).value();
}

inline Link link(int index, const std::string& name, bool is_up = true, bool has_carrier = true) {
    return {.index = index, .name = name, .is_up = is_up, .has_carrier = has_carrier};
}

inline Uplink uplink(const std::string& interface, const std::string& next_hop,
                     std::optional<bool> is_active = std::nullopt,
                     const std::string& namespace_name = "") {
    const Address gateway = address(next_hop);
    return {.interface = interface,
            .namespace_name = namespace_name,
            .family = gateway.family,
            .next_hop = gateway,
            .is_learning = false,
            .is_active = is_active};
}

/// gi1_1 (link 11, 192.0.2.1), gi1_2 (link 12, 198.51.100.1), gi1_3 (link 13, 203.0.113.1).
inline KernelState three_links() {
    KernelState kernel;
    kernel.links = {link(11, "gi1_1"), link(12, "gi1_2"), link(13, "gi1_3")};
    return kernel;
}
inline Uplinks three_uplinks() {
    Uplinks uplinks;
    uplinks.uplinks = {uplink("gi1_1", "192.0.2.1"), uplink("gi1_2", "198.51.100.1"),
                       uplink("gi1_3", "203.0.113.1")};
    return uplinks;
}

/// A fragment with these route lines.
inline Fragment fragment(const std::string& lines, Family family = Family::ipv4,
                         bool check_link = true) {
    const std::string check = check_link ? "check link 1;\n" : "";
    const auto reading = parse_fragment("protocol static {\n" + check + lines + "};\n", family);
    EXPECT_EQ(reading.wholeness, Wholeness::whole);
    return reading.fragment;
}

/// Takes steps as the kernel does: refuses what hangs in the air, and keeps what it took. Every
/// prefix that has a route before and after a run of steps must have one all the time.
class DeskKernel {
  public:
    explicit DeskKernel(KernelState start) : state(std::move(start)) {}

    TakeSteps taker() {
        return [this](std::span<const Step> steps) {
            std::vector<Answer> answers;
            for (const Step& step : steps) {
                answers.push_back(take(step));
            }
            return answers;
        };
    }

    /// The least number of routes that a prefix had after any step since the last call.
    std::size_t fewest_routes_to(const std::string& text) const {
        std::size_t fewest = 1000;
        for (const auto& routes : history_) {
            std::size_t count = 0;
            for (const KernelRoute& route : routes) {
                count += route.prefix == prefix(text) ? 1 : 0;
            }
            fewest = std::min(fewest, count);
        }
        return fewest;
    }

    KernelState state;
    std::vector<Step> seen;
    /// An errno for a step, 0 to take it.
    std::function<int(const Step&)> refuse = [](const Step&) { return 0; };

  private:
    int fault_of(const Step& step) const {
        if (const int error = refuse(step); error != 0) {
            return error;
        }
        if (const auto* group = std::get_if<PutGroup>(&step)) {
            for (const GroupEntry& entry : group->group.entries) {
                if (state.hop(entry.id) == nullptr) {
                    return EINVAL;
                }
            }
            if ((state.group(group->group.id) != nullptr) != group->replaces) {
                return group->replaces ? ENOENT : EEXIST;
            }
        }
        if (const auto* route = std::get_if<PutRoute>(&step)) {
            const bool stands = std::ranges::any_of(state.routes, [&](const KernelRoute& one) {
                return one.is_at_place_of(route->route);
            });
            if (route->route.group_id != 0 && state.group(route->route.group_id) == nullptr) {
                return EINVAL;
            }
            if (stands && !route->replaces) {
                return EEXIST;
            }
        }
        if (const auto* removed = std::get_if<RemoveNextHop>(&step)) {
            // The kernel would take groups and routes away with it.
            for (const KernelRoute& route : state.routes) {
                EXPECT_NE(route.group_id, removed->id);
            }
            for (const Group& group : state.groups) {
                for (const GroupEntry& entry : group.entries) {
                    EXPECT_NE(entry.id, removed->id);
                }
            }
        }
        return 0;
    }

    Answer take(const Step& step) {
        const int error = fault_of(step);
        if (error != 0) {
            return {.error = error, .reason = "words of the kernel"};
        }
        seen.push_back(step);
        apply_step(state, step);
        history_.push_back(state.routes);
        return {};
    }

    std::vector<std::vector<KernelRoute>> history_;
};

}  // namespace lbroute::scene
