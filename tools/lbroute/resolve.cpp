#include "lbroute/resolve.h"

#include <algorithm>
#include <map>
#include <optional>

namespace lbroute {

namespace {

struct Candidate {
    std::string interface;
    std::optional<int> weight;  ///< none: no rule tells
    std::optional<bool> is_active;
};

/// Who has this next hop: members of the last rule for the prefix, else any uplink.
std::vector<Candidate> candidates_for(const Address& gateway, const Prefix& prefix,
                                      const std::string& namespace_name, const Uplinks& uplinks) {
    const auto has_gateway = [&](const Uplink* uplink) {
        return uplink != nullptr && uplink->next_hop == gateway;
    };
    std::vector<Candidate> candidates;
    for (auto rule = uplinks.rules.rbegin(); rule != uplinks.rules.rend(); ++rule) {
        const bool is_of_route = rule->namespace_name == namespace_name &&
                                 rule->family == prefix.address.family &&
                                 rule->targets.contains(prefix);
        if (!is_of_route) {
            continue;
        }
        for (const Member& member : rule->members) {
            const Uplink* uplink = uplinks.find(namespace_name, rule->family, member.interface);
            if (has_gateway(uplink)) {
                candidates.push_back({member.interface, member.weight, uplink->is_active});
            }
        }
        if (!candidates.empty()) {
            return candidates;
        }
    }
    for (const Uplink& uplink : uplinks.uplinks) {
        if (uplink.namespace_name == namespace_name && has_gateway(&uplink)) {
            candidates.push_back({uplink.interface, std::nullopt, uplink.is_active});
        }
    }
    return candidates;
}

bool fits(const Candidate& candidate, int weight) {
    return !candidate.weight || *candidate.weight == weight;
}

/// Hands the candidates out to the weights in their order; nothing where they do not suffice.
std::optional<std::vector<std::string>> first_match(const std::vector<Candidate>& candidates,
                                                    const std::vector<int>& weights) {
    std::vector<std::string> match;
    for (const Candidate& candidate : candidates) {
        if (match.size() < weights.size() && fits(candidate, weights[match.size()])) {
            match.push_back(candidate.interface);
        }
    }
    return match.size() == weights.size() ? std::make_optional(match) : std::nullopt;
}

/// The match that takes the latest candidates. Where it is the first one too, there is no other.
std::optional<std::vector<std::string>> last_match(std::vector<Candidate> candidates,
                                                   std::vector<int> weights) {
    std::ranges::reverse(candidates);
    std::ranges::reverse(weights);
    auto match = first_match(candidates, weights);
    if (match) {
        std::ranges::reverse(*match);
    }
    return match;
}

struct Match {
    std::vector<std::string> interfaces;  ///< one for each weight
    bool is_certain = true;
};

Match match(const std::vector<Candidate>& candidates, const std::vector<int>& weights) {
    std::vector<Candidate> active;
    std::ranges::copy_if(candidates, std::back_inserter(active),
                         [](const Candidate& one) { return one.is_active == true; });
    if (active.size() == weights.size()) {
        if (const auto found = first_match(active, weights)) {
            return {*found, true};
        }
    }
    const auto first = first_match(candidates, weights);
    if (first) {
        return {*first, first == last_match(candidates, weights)};
    }
    // The configuration and the fragment disagree: by order alone, the last one for what is left.
    Match by_order{{}, false};
    for (std::size_t i = 0; i < weights.size(); ++i) {
        by_order.interfaces.push_back(candidates[std::min(i, candidates.size() - 1)].interface);
    }
    return by_order;
}

/// The interface whose connected network holds the gateway; empty for none.
std::string connected_to(const Address& gateway, const KernelState& kernel) {
    if (gateway.is_link_local()) {
        return "";
    }
    const LinkAddress* best = nullptr;
    for (const LinkAddress& one : kernel.addresses) {
        if (one.network.contains(gateway) &&
            (best == nullptr || one.network.length > best->network.length)) {
            best = &one;
        }
    }
    const Link* link = best == nullptr ? nullptr : kernel.link(best->link);
    return link == nullptr ? "" : link->name;
}

}  // namespace

ResolvedRoute resolve(const FragmentRoute& route, const std::string& namespace_name,
                      const Uplinks& uplinks, const KernelState& kernel) {
    ResolvedRoute resolved;
    std::map<Address, std::vector<std::size_t>> places;
    for (std::size_t i = 0; i < route.hops.size(); ++i) {
        resolved.hops.push_back({route.hops[i].gateway, route.hops[i].weight, ""});
        places[route.hops[i].gateway].push_back(i);
    }
    for (const auto& [gateway, positions] : places) {
        const auto candidates = candidates_for(gateway, route.prefix, namespace_name, uplinks);
        if (candidates.size() <= 1) {
            const std::string interface =
                candidates.empty() ? connected_to(gateway, kernel) : candidates[0].interface;
            for (const std::size_t position : positions) {
                resolved.hops[position].interface = interface;
            }
            continue;
        }
        std::vector<int> weights;
        for (const std::size_t position : positions) {
            weights.push_back(route.hops[position].weight);
        }
        const Match found = match(candidates, weights);
        resolved.is_shared = true;
        resolved.is_uncertain |= !found.is_certain;
        for (std::size_t i = 0; i < positions.size(); ++i) {
            resolved.hops[positions[i]].interface = found.interfaces[i];
        }
    }
    return resolved;
}

}  // namespace lbroute
