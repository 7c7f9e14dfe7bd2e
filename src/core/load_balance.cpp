#include "core/load_balance.h"

#include "config/interface_name.h"
#include "host/clock.h"
#include "host/log.h"
#include "probe/lb_test.h"

LoadBalance::LoadBalance(std::string& output_dir) : status_output(output_dir) {}

LoadBalance::~LoadBalance() {
    status_output.shutdown();
}

bool LoadBalance::set_conf(const std::string& path) {
    factory.load(path);
    const LBData loaded = factory.get();
    data.rules = loaded.rules;
    data.health = loaded.health;
    data.health6 = loaded.health6;
    data.last_routes4 = loaded.last_routes4;
    data.last_routes6 = loaded.last_routes6;
    return true;
}

void LoadBalance::check_before_start(NamespaceNeeds& check) {
    for (const auto& [place, work] : work_by_namespace(data)) {
        const auto& [ns_name, is_ipv6] = place;
        auto& [has_interfaces, has_rules] = check[{ns_name, is_ipv6 ? 1 : 0}];
        has_interfaces = work.interfaces != 0 ? 1 : has_interfaces;
        has_rules = work.rules != 0 ? 1 : has_rules;
    }
}

void LoadBalance::print_init_interfaces_state(context* ctx) {
    for (const auto& [name, health] : data.family(ctx->ipv6)) {
        if (health.namespace_name != *ctx->ns_name) {
            continue;
        }
        LOG_INFO("IP%s interface %s changed state to inactive", ctx->ipv6 ? "v6" : "",
                 shown_ifname(name, ctx).c_str());
    }
}

void LoadBalance::init_tests_in_namespace(context* ctx) {
    for (const bool ipv6 : {false, true}) {
        for (const auto& [name, health] : data.family(ipv6)) {
            if (health.namespace_name == *ctx->ns_name) {
                for_each_probe(health, [ctx](int, Probe& probe) { probe.init(ctx); });
            }
        }
    }
}

void LoadBalance::health_test(context* ctx) {
    path_test.start(data, ctx);
}

void LoadBalance::apply_rules(context* ctx) {
    decision.run(data, ctx);
}

void LoadBalance::output(context* ctx) {
    status_output.write(data, ctx);
}

// B19: a cycle lasts a second longer than its work.
void LoadBalance::sleep(context* /*ctx*/) {
    sleep_ms(1000);
}

bool LoadBalance::start_cycle(context* ctx) {
    data.reset_state_changed(ctx);
    data.update_dhcp_nexthop(ctx);
    data.update_tunnel_nexthop(ctx);
    return true;
}
