#include "config/lb_health.h"

namespace {

int run_of(const std::map<std::string, int>& runs, const std::string& target) {
    const auto found = runs.find(target);
    return found == runs.end() ? 0 : found->second;
}

}  // namespace

void LBHealthHistory::push(int resp, context* /*ctx*/, const std::string& target) {
    last_resp[target] = resp;
}

int LBHealthHistory::get_last_resp(context* /*ctx*/) {
    return last_resp.empty() ? -1 : last_resp.begin()->second;
}

LBHealth::LBHealth(const std::string& ifname, bool is_ipv6) : name(ifname), ipv6(is_ipv6) {}

const std::string& LBHealth::effective_nexthop() const {
    return nexthop == "dhcp" || nexthop == "tunnel" ? nexthop_addr : nexthop;
}

int LBHealth::get_success_ct_by_str(const std::string& target) const {
    return run_of(success_count, target);
}

int LBHealth::get_failure_ct_by_str(const std::string& target) const {
    return run_of(failure_count, target);
}
