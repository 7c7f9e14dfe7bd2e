// What the decision asks of the records, and their diagnostics.

#include <iostream>

#include "config/lb_data.h"
#include "config/live_state.h"
#include "host/interface_name.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "probe/lb_test.h"
#include "probe/lb_test6.h"

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

void LBData::reset_state_changed(context* ctx) {
    const LiveStateWriter hold;
    for (auto& [name, record] : family(ctx->ipv6)) {
        if (record.namespace_name == *ctx->ns_name) {
            record.state_changed = false;  // others' interfaces are others' to write
        }
    }
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

namespace {

template <class Probes>
void dump_probes(const Probes& probes, context* ctx) {
    for (const auto& [number, probe] : probes) {
        std::cout << "    test: " << number << std::endl
                  << "      " << probe->dump(ctx) << std::endl;
    }
}

}  // namespace

void LBData::dump_h_iter(std::map<std::string, LBHealth>::iterator entry, context* ctx) {
    const LBHealth& shown = entry->second;
    std::cout << "  interface: " << entry->first << std::endl
              << "    nexthop: " << shown.nexthop << std::endl
              << "    success ct: " << shown.success_ct << std::endl
              << "    failure ct: " << shown.failure_ct << std::endl;
    if (shown.ipv6) {
        dump_probes(shown.tests6, ctx);
    } else {
        dump_probes(shown.tests, ctx);
    }
}
