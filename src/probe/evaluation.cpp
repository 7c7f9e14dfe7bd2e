// What probe outcomes mean for a target and for its interface.

#include <algorithm>
#include <map>
#include <string>

#include "config/interface_name.h"
#include "config/lb_data.h"
#include "config/lb_health.h"
#include "config/live_state.h"
#include "host/clock.h"
#include "host/log.h"

namespace {

/// One more outcome of a kind, unless its run is at the threshold already (B88); a longer run of
/// one kind ends the run of the other.
void extend_run(int& run, int& opposite_run, int threshold) {
    if (run < threshold) {
        ++run;
        opposite_run = 0;
    }
}

using Verdicts = std::map<std::string, int>;

bool is_up(const Verdicts& verdicts, bool check_all) {
    const auto successes = static_cast<std::size_t>(
        std::count_if(verdicts.begin(), verdicts.end(),
                      [](const auto& entry) { return entry.second == 0; }));  // B137
    return check_all ? successes == verdicts.size() : successes >= 1;
}

void log_change(const LBHealth& health, context* ctx) {
    const char* family = health.ipv6 ? "v6" : "";
    const std::string shown = shown_ifname(health.name, ctx);
    for (const auto& [target, verdict] : health.history.last_resp) {
        LOG_INFO("IP%s interface %s last check target %s %s", family, shown.c_str(), target.c_str(),
                 verdict == 0 ? "success" : "failure");
    }
    if (health.active) {
        LOG_INFO("IP%s interface %s changed state to active", family, shown.c_str());
    } else {
        LOG_INFO("IP%s interface %s changed state to inactive", family, shown.c_str());
    }
}

}  // namespace

void LBHealth::put(int result, context* /*ctx*/, const std::string& target) {
    const LiveStateWriter hold;
    int& successes = success_count[target];
    int& failures = failure_count[target];
    if (result == -1) {
        extend_run(failures, successes, failure_ct);
    } else {
        extend_run(successes, failures, success_ct);
    }
    // B39: a run of 0 has always reached a count that was not given.
    if (failures == failure_ct || successes == success_ct) {
        history.last_resp[target] = result;
    }
}

void LBHealth::status_check(LBData& /*data*/, context* ctx) {
    if (namespace_name != *ctx->ns_name || history.last_resp.empty()) {
        return;  // B87: without a target the state stays
    }
    const bool up = is_up(history.last_resp, check_all);
    const int now_s = static_cast<int>(wall_now().tv_sec);
    const bool has_changed = up != active;
    {
        const LiveStateWriter hold;
        (up ? history.last_success : history.last_failure) = now_s;  // B113
        state_changed = state_changed || has_changed;
        active = up;
    }
    if (has_changed) {
        log_change(*this, ctx);
    }
}
