#include "lbsim/scenario.h"

#include <algorithm>

#include "base/address_text.h"

namespace lbsim {

namespace {

constexpr std::int64_t second_us = 1'000'000;

}  // namespace

std::string canonical(const std::string& address) {
    const auto ipv6 = parse_ipv6(address);
    return ipv6 ? to_text(*ipv6).text : address;
}

bool concerns(const Event& event, const Uplink& uplink) {
    if (event.change == Change::clock) {
        return false;
    }
    if (!event.uplink.empty() && event.uplink != uplink.name) {
        return false;
    }
    if (event.family != Family::any && (event.family == Family::ipv6) != uplink.is_ipv6) {
        return false;
    }
    return event.target.empty() || std::find(uplink.targets.begin(), uplink.targets.end(),
                                             event.target) != uplink.targets.end();
}

bool takes_lease(const Event& event, const Uplink& uplink) {
    return uplink.nexthop == "dhcp" &&
           (event.router.empty() || parse_ipv6(event.router).has_value() == uplink.is_ipv6);
}

std::vector<ScenarioError> check_scenario(const Scenario& events,
                                          const std::vector<Uplink>& uplinks) {
    std::vector<ScenarioError> errors;
    for (const Event& event : events) {
        if (event.change == Change::clock) {
            continue;
        }
        const auto is_concerned = [&event](const Uplink& uplink) {
            return concerns(event, uplink);
        };
        const bool is_known = std::any_of(uplinks.begin(), uplinks.end(), is_concerned);
        const bool is_uplink_known =
            std::any_of(uplinks.begin(), uplinks.end(),
                        [&event](const Uplink& uplink) { return uplink.name == event.uplink; });
        if (!event.uplink.empty() && !is_uplink_known) {
            errors.push_back({event.line, event.uplink,
                              "the configuration has no such uplink that a worker serves"});
        } else if (!event.target.empty() && !is_known) {
            errors.push_back({event.line, event.target, "no probe of the uplink has this target"});
        } else if (!is_known) {
            errors.push_back(
                {event.line, event.uplink, "the configuration does not have it in this family"});
        } else if (event.change == Change::lease) {
            const bool has_lease =
                std::any_of(uplinks.begin(), uplinks.end(), [&](const Uplink& uplink) {
                    return is_concerned(uplink) && takes_lease(event, uplink);
                });
            if (!has_lease) {
                errors.push_back({event.line, event.uplink,
                                  "its next hop is not learnt by dhcp in that family"});
            }
        }
    }
    return errors;
}

Scenario single_failures(const std::vector<Uplink>& uplinks) {
    std::vector<std::string> names;
    std::vector<std::string> targets;
    std::int64_t at_us = 0;
    for (const Uplink& uplink : uplinks) {
        at_us = std::max(at_us, uplink.start_us);
        if (std::find(names.begin(), names.end(), uplink.name) == names.end()) {
            names.push_back(uplink.name);
        }
        for (const std::string& target : uplink.targets) {
            if (std::find(targets.begin(), targets.end(), target) == targets.end()) {
                targets.push_back(target);
            }
        }
    }
    Scenario events;
    const auto fail = [&](Event event) {
        std::int64_t settle_us = 0;
        for (const Uplink& uplink : uplinks) {
            settle_us = concerns(event, uplink) ? std::max(settle_us, uplink.settle_us) : settle_us;
        }
        const std::string where = event.uplink.empty() ? "target " + event.target : event.uplink;
        for (const Change change : {Change::dead, Change::alive}) {
            event.at_us = at_us;
            event.change = change;
            event.text = where + (change == Change::dead ? " dead" : " alive");
            events.push_back(event);
            at_us += settle_us;
        }
    };
    for (const std::string& name : names) {
        fail({.uplink = name});
    }
    for (const std::string& target : targets) {
        fail({.target = target});
    }
    return events;
}

std::vector<Uplink> slowest_of(std::vector<Uplink> uplinks, const std::vector<Uplink>& others) {
    for (const Uplink& other : others) {
        const auto found =
            std::find_if(uplinks.begin(), uplinks.end(),
                         [&other](const Uplink& one) { return shown(one) == shown(other); });
        if (found == uplinks.end()) {
            uplinks.push_back(other);
            continue;
        }
        found->settle_us = std::max(found->settle_us, other.settle_us);
        found->start_us = std::max(found->start_us, other.start_us);
        for (const std::string& target : other.targets) {
            if (std::find(found->targets.begin(), found->targets.end(), target) ==
                found->targets.end()) {
                found->targets.push_back(target);
            }
        }
    }
    return uplinks;
}

std::int64_t duration_of(const Scenario& events, const std::vector<Uplink>& uplinks) {
    std::int64_t settle_us = second_us;
    std::int64_t start_us = second_us;
    for (const Uplink& uplink : uplinks) {
        settle_us = std::max(settle_us, uplink.settle_us);
        start_us = std::max(start_us, uplink.start_us);
    }
    return std::max(start_us, events.empty() ? 0 : events.back().at_us + settle_us);
}

}  // namespace lbsim
