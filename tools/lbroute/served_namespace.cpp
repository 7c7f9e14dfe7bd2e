#include "lbroute/served_namespace.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <span>

#include "decision/route_text.h"
#include "lbroute/rtnetlink_messages.h"

namespace lbroute {

std::vector<const KernelRoute*> shadowing(const PlannedRoute& route, const View& view) {
    std::vector<const KernelRoute*> found;
    for (const KernelRoute& one : view.foreign) {
        const bool is_before_ours =
            one.prefix == route.prefix && one.table == route.table && one.priority < route.priority;
        const bool is_beside_ours =
            one.is_at_place_of(route.place()) &&
            std::ranges::any_of(view.kernel.routes, [&one](const KernelRoute& ours) {
                return ours.is_at_place_of(one);
            });
        if (is_before_ours || is_beside_ours) {
            found.push_back(&one);
        }
    }
    return found;
}

const KernelRoute* standing_in_place(const PlannedRoute& route,
                                     const std::vector<KernelRoute>& foreign) {
    const auto found = std::ranges::find_if(
        foreign, [&](const KernelRoute& one) { return one.is_at_place_of(route.place()); });
    return found == foreign.end() ? nullptr : &*found;
}

ServedNamespace::ServedNamespace(std::string name, const Options& options)
    : name_(std::move(name)),
      table_(options.table),
      mode_(options.is_sticky ? Mode::sticky : Mode::plain),
      fragments_{FragmentFile(fragment_path(name_, false), Family::ipv4),
                 FragmentFile(fragment_path(name_, true), Family::ipv6)} {}

bool ServedNamespace::follow(std::string& problem) {
    const auto identity = namespace_identity(name_);
    if (identity == identity_ && (!identity || socket_.is_open())) {
        return false;
    }
    // Open sockets would keep a namespace that lost its name, and all its links, alive.
    const bool was_entered = is_entered();
    socket_ = RouteSocket();
    monitor_ = RouteMonitor();
    flows_.reset();
    identity_.reset();
    in_use_.clear();
    knows_foreign_ = false;
    if (!identity) {
        return was_entered;
    }
    const NamespaceVisit visit(name_);
    problem = visit.problem();
    if (problem.empty()) {
        socket_ = RouteSocket::open(problem);
        monitor_ = RouteMonitor::open(socket_.port(), problem);
        flows_.emplace();
    }
    if (!problem.empty()) {
        socket_ = RouteSocket();
        return was_entered;
    }
    identity_ = identity;
    return true;
}

bool ServedNamespace::take_announcements() {
    bool matters = false;
    monitor_.drain([&](const nlmsghdr* message) {
        if (message == nullptr) {
            knows_foreign_ = false;
            matters = true;
            return;
        }
        switch (message->nlmsg_type) {
            case RTM_NEWROUTE:
            case RTM_DELROUTE: {
                const auto route = read_route(*message);
                if (!route) {
                    return;
                }
                if (route->protocol == own_protocol) {
                    matters = true;
                } else if (route->table == table_ && watched_prefixes_.contains(route->prefix)) {
                    knows_foreign_ = false;
                    matters = true;
                }
                return;
            }
            case RTM_NEWNEXTHOP:
                matters |= is_own_next_hop(*message);
                return;
            case RTM_DELNEXTHOP:
                forget_foreign();
                matters |= !knows_foreign_ || is_own_next_hop(*message);
                return;
            default:
                forget_foreign();
                matters = true;
        }
    });
    return matters;
}

void ServedNamespace::forget_foreign() {
    knows_foreign_ &= foreign_.empty();
}

Wanted ServedNamespace::plan(const Surroundings& surroundings, const KernelState& kernel,
                             bool guesses, Mode mode) const {
    Wanted wanted;
    for (const FragmentFile& file : fragments_) {
        const auto& fragment = file.in_force();
        (file.family() == Family::ipv4 ? wanted.knows_ipv4 : wanted.knows_ipv6) =
            fragment.has_value();
        if (!fragment) {
            continue;
        }
        const PlanContext context{.namespace_name = name_,
                                  .table = table_,
                                  .mode = mode,
                                  .uplinks = &surroundings.uplinks,
                                  .kernel = &kernel,
                                  .held = &surroundings.held_in(file.family()),
                                  .guesses = guesses};
        std::ranges::move(plan_routes(*fragment, context), std::back_inserter(wanted.routes));
    }
    return wanted;
}

void ServedNamespace::learn_foreign(const Wanted& wanted, std::string& problem) {
    std::set<Prefix> prefixes;
    for (const PlannedRoute& route : wanted.routes) {
        prefixes.insert(route.prefix);
    }
    // A whole table is read for this, so only when there is need: it may be the Internet's.
    if (knows_foreign_ && std::ranges::includes(watched_prefixes_, prefixes)) {
        return;
    }
    watched_prefixes_ = std::move(prefixes);
    foreign_ = list_foreign_routes(socket_, table_, watched_prefixes_, problem);
    knows_foreign_ = problem.empty();
}

View ServedNamespace::look(const Surroundings& surroundings, bool guesses) {
    Listing listing = list_kernel_state(socket_);
    View view{.wanted = {},
              .kernel = std::move(listing.state),
              .foreign = {},
              .problem = std::move(listing.problem)};
    if (!listing.has_next_hops) {
        mode_ = Mode::plain;
    }
    view.wanted = plan(surroundings, view.kernel, guesses, mode_);
    learn_foreign(view.wanted, view.problem);
    view.foreign = foreign_;
    return view;
}

ServedNamespace::Result ServedNamespace::put_into_force(const Surroundings& surroundings,
                                                        bool guesses) {
    return apply(surroundings, guesses,
                 [this](std::span<const Step> steps) { return socket_.take(steps); });
}

ServedNamespace::Result ServedNamespace::rehearse(const Surroundings& surroundings, bool guesses) {
    return apply(surroundings, guesses,
                 [](std::span<const Step> steps) { return std::vector<Answer>(steps.size()); });
}

ServedNamespace::Result ServedNamespace::apply(const Surroundings& surroundings, bool guesses,
                                               const TakeSteps& take) {
    Result result;
    result.view = look(surroundings, guesses);
    if (!result.view.problem.empty()) {
        return result;
    }
    const KernelState before = result.view.kernel;
    Application done = lbroute::put_into_force(
        [&](Mode mode) { return plan(surroundings, before, guesses, mode); }, before,
        result.view.foreign, mode_, take);
    mode_ = done.mode;
    result.mode_reason = std::move(done.mode_reason);
    result.view.wanted = std::move(done.wanted);
    result.view.kernel = std::move(done.kernel);
    result.taken = std::move(done.taken);
    result.failed_removals = std::move(done.failed_removals);
    for (const PlannedRoute& route : result.view.wanted.routes) {
        result.is_uncertain |= route.is_postponed;
        result.is_shared |= route.is_shared;
    }
    result.abandoned = note_use(before, result.view);
    return result;
}

ServedNamespace::Result ServedNamespace::plan_for_others(const Surroundings& surroundings,
                                                         bool guesses) {
    Result result;
    Listing listing = list_kernel_state(socket_);
    result.view.kernel = std::move(listing.state);
    result.view.problem = std::move(listing.problem);
    result.view.wanted = plan(surroundings, result.view.kernel, guesses, Mode::plain);
    for (const PlannedRoute& route : result.view.wanted.routes) {
        result.is_uncertain |= route.is_postponed;
        result.is_shared |= route.is_shared;
    }
    return result;
}

bool ServedNamespace::knows_fragments() const {
    return std::ranges::all_of(fragments_, [](const FragmentFile& file) {
        return file.in_force().has_value() || file.is_missing();
    });
}

std::vector<Address> ServedNamespace::note_use(const KernelState& before, const View& after) {
    const auto note = [](Use& use, const KernelState& kernel, int link_index, Family family) {
        const Link* link = kernel.link(link_index);
        if (link != nullptr) {
            use[{link->name, family}];
        }
    };
    // What the kernel's routes led to, and what they lead to.
    const auto note_routes = [&](Use& use, const KernelState& kernel) {
        std::map<std::uint32_t, std::pair<int, Family>> hops;
        for (const HopObject& hop : kernel.hops) {
            hops[hop.id] = {hop.link, hop.gateway.family};
        }
        std::set<std::uint32_t> groups;
        for (const KernelRoute& route : kernel.routes) {
            groups.insert(route.group_id);
            if (route.group_id == 0) {
                for (const PathHop& hop : route.hops) {
                    note(use, kernel, hop.link, route.prefix.address.family);
                }
            }
        }
        for (const Group& group : kernel.groups) {
            if (!groups.contains(group.id)) {
                continue;
            }
            for (const GroupEntry& entry : group.entries) {
                if (const auto hop = hops.find(entry.id); hop != hops.end()) {
                    note(use, kernel, hop->second.first, hop->second.second);
                }
            }
        }
    };
    Use now;
    note_routes(now, after.kernel);
    Use earlier = std::move(in_use_);
    note_routes(earlier, before);
    std::set<Address> of_used_links;
    for (const LinkAddress& address : after.kernel.addresses) {
        const Link* link = after.kernel.link(address.link);
        if (link == nullptr) {
            continue;
        }
        const std::pair place{link->name, address.address.family};
        if (const auto used = now.find(place); used != now.end()) {
            used->second.insert(address.address);
            of_used_links.insert(address.address);
        }
        if (const auto used = earlier.find(place); used != earlier.end()) {
            used->second.insert(address.address);
        }
    }
    std::vector<Address> abandoned;
    for (const auto& [place, addresses] : earlier) {
        if (now.contains(place)) {
            continue;
        }
        std::ranges::copy_if(addresses, std::back_inserter(abandoned), [&](const Address& address) {
            return !of_used_links.contains(address) && !address.is_link_local();
        });
    }
    in_use_ = std::move(now);
    return abandoned;
}

FlowTable::Result ServedNamespace::forget_flows(const std::vector<Address>& addresses) {
    return flows_ && !addresses.empty() ? flows_->delete_translated(addresses)
                                        : FlowTable::Result{};
}

std::vector<std::string> ServedNamespace::flush() {
    const Listing listing = list_kernel_state(socket_);
    if (!listing.problem.empty()) {
        return {listing.problem};
    }
    const std::vector<Step> steps = flush_steps(listing.state);
    return failed_removals(steps, socket_.take(steps), listing.state);
}

std::vector<std::pair<std::uint32_t, int>> ServedNamespace::buckets_of(std::uint32_t group) {
    return count_buckets(socket_, group);
}

Listing ServedNamespace::list() {
    return list_kernel_state(socket_);
}

}  // namespace lbroute
