// Changes of state, and the diagnostics of the records.

#include <iostream>
#include <map>
#include <string>

#include "config/interface_name.h"
#include "config/lb_data.h"
#include "config/live_state.h"
#include "config/own_records.h"
#include "host/clock.h"
#include "host/log.h"
#include "probe/lb_test.h"

void LBData::reset_state_changed(context* ctx) {
    for (LBHealth* record : ctx->own->interfaces(*this, *ctx)) {
        if (record->state_changed) {
            const LiveStateWriter hold;
            record->state_changed = false;
        }
    }
}

// From here on what nothing in the daemon calls (B132). Since nothing calls `check_state`, no
// record ever gets a `last_change`: reports and dumps show 1970 (B112).

bool LBData::is_active(const std::string& ifname, context* ctx) const {
    const auto& interfaces = family(ctx->ipv6);
    const auto found = interfaces.find(ifname);
    return found != interfaces.end() && found->second.active;
}

std::string LBData::get_interface_namespace(const std::string& ifname, context* ctx) const {
    const auto& interfaces = family(ctx->ipv6);
    const auto found = interfaces.find(ifname);
    return found == interfaces.end() ? std::string() : found->second.namespace_name;
}

LBData::Changes LBData::state_changed(context* ctx) {
    Changes changes;
    auto& interfaces = family(ctx->ipv6);
    for (auto entry = interfaces.begin(); entry != interfaces.end(); ++entry) {
        check_state(&changes, entry, ctx);
    }
    return changes;
}

void LBData::check_state(Changes* changes, std::map<std::string, LBHealth>::iterator entry,
                         context* ctx) {
    auto& [name, record] = *entry;
    if (!record.state_changed) {
        return;
    }
    const char* state = record.active ? "ACTIVE" : "FAILED";
    {
        const LiveStateWriter hold;
        record.last_change = static_cast<int>(wall_now().tv_sec);
    }
    plain_syslog(7, "Interface %s has changed state to %s", shown_ifname(name, ctx).c_str(), state);
    changes->try_emplace(name, state);
}

void LBData::dump(context* ctx) {
    std::cout << "health:" << std::endl;
    for (auto* interfaces : {&health, &health6}) {
        for (auto entry = interfaces->begin(); entry != interfaces->end(); ++entry) {
            dump_h_iter(entry, ctx);
        }
    }
    std::cout << std::endl << "wan:" << std::endl;
    for (const auto& [name, rule] : rules) {
        std::cout << "  rule: " << name << std::endl;
        for (const auto& [member, weight] : rule.interfaces) {
            std::cout << "      interface: " << member.first << std::endl
                      << "      weight: " << weight << std::endl;
        }
    }
    std::cout << "end dump" << std::endl;
}

void LBData::dump_h_iter(std::map<std::string, LBHealth>::iterator entry, context* ctx) {
    const LBHealth& shown = entry->second;
    std::cout << "  interface: " << entry->first << std::endl
              << "    nexthop: " << shown.nexthop << std::endl
              << "    success ct: " << shown.success_ct << std::endl
              << "    failure ct: " << shown.failure_ct << std::endl;
    for_each_probe(shown, [ctx](int number, Probe& probe) {
        std::cout << "    test: " << number << std::endl
                  << "      " << probe.dump(ctx) << std::endl;
    });
}
