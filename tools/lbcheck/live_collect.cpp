#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "config/lb_data.h"
#include "dumps/dump_files.h"
#include "dumps/freshness.h"
#include "lbcheck/live_expected.h"
#include "lbcheck/live_facts.h"
#include "lbcheck/live_judge.h"
#include "lbcheck/live_machine.h"
#include "lbcheck/live_namespace.h"
#include "lbroute/state_folder.h"
#include "lbroute/status.h"
#include "shared/dump_file.h"
#include "shared/usual_paths.h"

namespace lbcheck {

namespace {

/// Its service is looked at then: whoever lets another daemon route does not need it.
bool is_lbroute_at_work(const LiveFacts& facts) {
    return std::ranges::any_of(facts.namespaces, [](const NamespaceFacts& space) {
        return std::ranges::any_of(
            space.routers, [](const RouterFacts& router) { return router.process == "lbroute"; });
    });
}

/// Everything once: what is ours before what is only above it.
std::vector<PathRights> all_rights(const LiveFacts& facts) {
    std::map<std::string, std::string> uses;  // by path
    const auto add_file = [&uses](const std::string& path, const std::string& use) {
        uses.emplace(path.substr(0, path.rfind('/') + 1), use);
    };
    uses.emplace(facts.configuration, configuration_use);
    add_file(facts.configuration, configuration_use);
    uses.emplace(facts.output_directory, "output");
    uses.emplace(shared::dump_folder(facts.output_directory), "output");
    uses.emplace(lbroute::StateFolder::usual_path, "holds");
    uses.emplace(shared::usual_hooks, "hooks");
    for (const NamespaceFacts& space : facts.namespaces) {
        for (const RouterFacts& router : space.routers) {
            add_file(router.fragment_path, "fragments");
            add_file(router.pid_path, "process numbers");
        }
        for (const UplinkFacts& uplink : space.uplinks) {
            if (uplink.lease) {
                add_file(uplink.lease->path, "leases");
            }
        }
    }
    std::map<std::string, PathRights> rights;
    for (const auto& [path, use] : uses) {
        for (PathRights& one : rights_of(path, use)) {
            const auto [known, is_new] = rights.emplace(one.path, one);
            if (!is_new && known->second.is_above && !one.is_above) {
                known->second = std::move(one);
            }
        }
    }
    std::vector<PathRights> all;
    for (auto& [path, one] : rights) {
        all.push_back(std::move(one));
    }
    return all;
}

dumps::Time now() {
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

/// Dumps that are not of this configuration are read again for some cycles: a daemon that was
/// restarted just now has not written its own yet, and files are rewritten in place.
void read_dumps(LiveFacts& facts) {
    constexpr int looks = 16;
    constexpr std::chrono::milliseconds pause(200);
    for (int look = 1;; ++look) {
        facts.dumps = {};
        facts.dumps_problem = dumps::read_state(facts.output_directory, false, facts.dumps);
        dumps::judge_freshness(facts.dumps, now(), std::nullopt);
        if (look == looks || are_of_this_configuration(facts)) {
            return;
        }
        std::this_thread::sleep_for(pause);
    }
}

}  // namespace

LiveFacts collect_facts(const std::string& configuration, const LBData& understood,
                        const std::string& output_directory) {
    LBData data(understood);
    LiveFacts facts;
    facts.configuration = configuration;
    facts.output_directory = output_directory;
    facts.is_root = geteuid() == 0;
    lbroute::Options options;
    options.configuration = configuration;
    options.output_directory = output_directory;
    facts.routes = lbroute::report_of_now(options, false);
    const WorkByNamespace work = work_by_namespace(data);
    std::set<std::string> names;
    for (const auto& [place, one] : work) {
        if (one.interfaces > 0) {
            names.insert(place.first);
        }
        if (one.needs_worker()) {
            facts.configured[place.second ? 6 : 4] += one.interfaces;
        }
    }
    for (const std::string& name : names) {
        facts.namespaces.push_back(std::async(std::launch::async, [&] {
                                       return look_at_namespace(name, data, work, facts.routes);
                                   }).get());
    }
    expect_rules(understood, facts);
    read_dumps(facts);
    for (const std::size_t at : {0U, 1U}) {
        const std::string folder =
            std::string("net/ipv") + (at == 0 ? "4" : "6") + "/neigh/default/gc_thresh";
        facts.neighbour_least[at] = setting_of(folder + "1");
        facts.neighbour_most[at] = setting_of(folder + "3");
    }
    std::vector<std::string> units{"lb"};
    if (is_lbroute_at_work(facts)) {
        units.emplace_back("lbroute");
    }
    facts.units = units_of(units, facts.units_problem);
    facts.rights = all_rights(facts);
    return facts;
}

}  // namespace lbcheck
