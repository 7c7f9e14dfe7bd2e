#include "lbroute/commands.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <utility>
#include <variant>

namespace lbroute {

namespace {

std::string link_name(int index, const KernelState& kernel) {
    const Link* link = kernel.link(index);
    return link != nullptr ? link->name : std::string("if").append(std::to_string(index));
}

std::string ip(const std::string& namespace_name) {
    return namespace_name.empty() ? "ip "
                                  : std::string("ip -n ").append(namespace_name).append(" ");
}

std::string place_text(const KernelRoute& route) {
    std::string text = route.prefix.length == 0 ? "default" : route.prefix.text();
    if (route.table != main_table) {
        text += " table " + std::to_string(route.table);
    }
    return text + " metric " + std::to_string(route.priority) + " protocol " +
           protocol_name(route.protocol);
}

std::string route_command(const KernelRoute& route, const char* verb,
                          const std::string& namespace_name) {
    const char* const family = route.prefix.address.family == Family::ipv6 ? "-6 " : "";
    return ip(namespace_name) + family + "route " + verb + " " + place_text(route);
}

struct Writer {
    const KernelState& kernel;
    const std::string& namespace_name;

    std::string operator()(const AddHop& step) const {
        return ip(namespace_name) + "nexthop add id " + std::to_string(step.hop.id) + " via " +
               step.hop.gateway.text() + " dev " + link_name(step.hop.link, kernel) + " protocol " +
               protocol_name(own_protocol) + (step.is_on_link ? " onlink" : "");
    }
    std::string operator()(const PutGroup& step) const {
        std::string text = ip(namespace_name) + "nexthop " + (step.replaces ? "replace" : "add") +
                           " id " + std::to_string(step.group.id) + " group ";
        const char* separator = "";
        for (const GroupEntry& entry : step.group.entries) {
            text.append(separator).append(std::to_string(entry.id)).append(",");
            text += std::to_string(entry.weight);
            separator = "/";
        }
        if (step.group.is_resilient) {
            text += " type resilient buckets " + std::to_string(step.group.buckets) +
                    " idle_timer " + std::to_string(step.group.idle_timer_s) +
                    " unbalanced_timer " + std::to_string(step.group.unbalanced_timer_s);
        }
        return text + " protocol " + protocol_name(own_protocol);
    }
    std::string operator()(const PutRoute& step) const {
        std::string text =
            route_command(step.route, step.replaces ? "replace" : "add", namespace_name);
        if (step.route.group_id != 0) {
            return text + " nhid " + std::to_string(step.route.group_id);
        }
        const bool is_several = step.route.hops.size() > 1;
        for (const PathHop& hop : step.route.hops) {
            text += is_several ? " nexthop " : " ";
            text += text_of(hop, kernel, is_several);
        }
        return text;
    }
    std::string operator()(const RemoveRoute& step) const {
        return route_command(step.route, "del", namespace_name);
    }
    std::string operator()(const RemoveNextHop& step) const {
        return ip(namespace_name) + "nexthop del id " + std::to_string(step.id);
    }
};

}  // namespace

std::string protocol_name(int protocol) {
    constexpr std::array<std::pair<int, const char*>, 8> known{{{RTPROT_KERNEL, "kernel"},
                                                                {RTPROT_BOOT, "boot"},
                                                                {RTPROT_STATIC, "static"},
                                                                {RTPROT_RA, "ra"},
                                                                {RTPROT_ZEBRA, "zebra"},
                                                                {RTPROT_BIRD, "bird"},
                                                                {RTPROT_DHCP, "dhcp"},
                                                                {RTPROT_REDIRECT, "redirect"}}};
    for (const auto& [number, name] : known) {
        if (number == protocol) {
            return name;
        }
    }
    return std::to_string(protocol);
}

std::string text_of(const PathHop& hop, const KernelState& kernel, bool is_one_of_several) {
    std::string text;
    if (hop.gateway) {
        text.append("via ").append(hop.gateway->text()).append(" ");
    }
    text.append("dev ").append(link_name(hop.link, kernel));
    if (hop.is_on_link) {
        text.append(" onlink");
    }
    if (is_one_of_several) {
        text.append(" weight ").append(std::to_string(hop.weight));
    }
    return text;
}

std::string command_of(const Step& step, const KernelState& kernel,
                       const std::string& namespace_name) {
    return std::visit(Writer{kernel, namespace_name}, step);
}

std::string flush_commands(const KernelState& own, const std::string& namespace_name) {
    const auto has_plain = [&own](Family family) {
        return std::ranges::any_of(own.routes, [family](const KernelRoute& route) {
            return route.group_id == 0 && route.prefix.address.family == family;
        });
    };
    std::string text;
    const auto add = [&](bool is_needed, const char* words) {
        if (is_needed) {
            text += (text.empty() ? "" : "; ") + ip(namespace_name) + words +
                    protocol_name(own_protocol);
        }
    };
    // Next hops first: with them the kernel takes their routes away, which ip(8) cannot flush.
    add(!own.hops.empty() || !own.groups.empty(), "nexthop flush protocol ");
    add(has_plain(Family::ipv4), "route flush table all protocol ");
    add(has_plain(Family::ipv6), "-6 route flush table all protocol ");
    return text;
}

std::string removal_command(const KernelRoute& foreign, const KernelState& kernel,
                            const std::string& namespace_name) {
    std::string text = route_command(foreign, "del", namespace_name);
    if (foreign.group_id == 0 && foreign.hops.size() == 1) {
        text.append(" ").append(text_of(foreign.hops[0], kernel, false));
    }
    return text;
}

}  // namespace lbroute
