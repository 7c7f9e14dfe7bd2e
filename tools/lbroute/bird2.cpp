#include "lbroute/bird2.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <tuple>

#include "base/fd.h"
#include "lbroute/command.h"
#include "lbroute/weights.h"
#include "shared/file_text.h"

namespace lbroute {

namespace {

constexpr int greatest_weight = 256;
constexpr std::chrono::seconds command_limit{10};
constexpr mode_t owner_writes_all_read = 0644;

constexpr const char* heading =
    "# Written by lbroute(8), which replaces it whole; changes made here are lost.\n"
    "# For krt_metric to reach the kernel, the kernel protocols need \"metric 0;\".\n";

/// What bird takes between single quotes as a name.
bool is_quotable(const std::string& name) {
    return std::ranges::all_of(name, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '-' || c == '.' || c == ':';
    });
}

/// Why bird cannot be told the next hop; empty where it can.
std::string obstacle(const Bird2Hop& hop) {
    if (hop.interface.empty()) {
        return hop.gateway.is_link_local() ? "its interface is not known" : "";
    }
    return is_quotable(hop.interface)
               ? ""
               : "bird has no way to write the name of interface " + hop.interface;
}

/// Scales the weights and puts the next hops into bird's own order: the greatest weight first, then
/// by gateway, then by the interface's number. bird 3 passes over a route in any other order, with
/// no more than a warning in its log.
std::vector<Bird2Hop> as_bird_takes_them(std::vector<Bird2Hop> hops) {
    std::vector<int> weights;
    std::ranges::transform(hops, std::back_inserter(weights), &Bird2Hop::weight);
    weights = scaled_weights(weights, greatest_weight);
    for (std::size_t i = 0; i < hops.size(); ++i) {
        hops[i].weight = weights[i];
    }
    std::ranges::sort(hops, [](const Bird2Hop& one, const Bird2Hop& other) {
        return std::tie(other.weight, one.gateway, one.link) <
               std::tie(one.weight, other.gateway, other.link);
    });
    return hops;
}

std::string via_clauses(const std::vector<Bird2Hop>& hops) {
    std::string clauses;
    for (const Bird2Hop& hop : as_bird_takes_them(hops)) {
        const std::string scope = hop.interface.empty() ? "" : "%'" + hop.interface + "'";
        clauses +=
            "\n\t\tvia " + hop.gateway.text() + scope + " weight " + std::to_string(hop.weight);
        if (hop.is_on_link) {
            clauses += " onlink";
        }
    }
    return clauses;
}

void add_route(const Bird2Route& route, Bird2Text& to) {
    std::vector<Bird2Hop> hops;
    for (const Bird2Hop& hop : route.hops) {
        const std::string reason = obstacle(hop);
        if (reason.empty()) {
            hops.push_back(hop);
        } else {
            to.left_out.push_back("route " + route.prefix.text() + ": next hop " +
                                  hop.gateway.text() + " is left out: " + reason);
        }
    }
    if (hops.empty()) {
        to.left_out.push_back("route " + route.prefix.text() +
                              " is left out: it has no next hop that bird can be told");
        return;
    }
    const std::string attributes =
        route.metric ? " { krt_metric = " + std::to_string(*route.metric) + "; }" : "";
    to.text += "\troute " + route.prefix.text() + via_clauses(hops) + attributes + ";\n";
}

void add_protocol(const char* head, const Bird2Routes& routes, Bird2Text& to) {
    to.text += head;
    to.text += routes.check_link ? "\tcheck link yes;\n" : "";
    for (const Bird2Route& route : routes.routes) {
        add_route(route, to);
    }
    to.text += "}\n";
}

}  // namespace

Bird2Routes bird2_routes(const std::vector<PlannedRoute>& planned, Family family, bool check_link) {
    Bird2Routes made{.check_link = check_link, .routes = {}};
    for (const PlannedRoute& route : planned) {
        if (route.prefix.address.family != family) {
            continue;
        }
        Bird2Route one{.prefix = route.prefix, .hops = {}, .metric = {}};
        for (const PlannedHop* hop : route.routed()) {
            one.hops.push_back({.gateway = hop->gateway,
                                .interface = hop->interface,
                                .weight = hop->weight,
                                .link = hop->link,
                                .is_on_link = hop->is_on_link});
        }
        // Without krt_metric bird leaves the kernel's own.
        if (route.priority != priority_of(family, std::nullopt)) {
            one.metric = route.priority;
        }
        if (!one.hops.empty()) {
            made.routes.push_back(std::move(one));
        }
    }
    return made;
}

Bird2Text bird2_text(const Bird2Routes& ipv4, const Bird2Routes& ipv6) {
    Bird2Text made{.text = heading, .left_out = {}};
    add_protocol("protocol static lbroute4 {\n\tipv4;\n", ipv4, made);
    add_protocol("protocol static lbroute6 {\n\tipv6;\n", ipv6, made);
    return made;
}

Bird2Text bird2_text_of_plan(const std::vector<PlannedRoute>& planned,
                             const std::array<FragmentFile, 2>& fragments) {
    const auto routes_of = [&planned](const FragmentFile& file) {
        const bool check_link = file.in_force() && file.in_force()->check_link;
        return bird2_routes(planned, file.family(), check_link);
    };
    return bird2_text(routes_of(fragments[0]), routes_of(fragments[1]));
}

std::string Bird2File::text() const {
    return shared::text_of_file(path_);
}

std::string Bird2File::put(const std::string& text) {
    if (this->text() != text) {
        is_in_force_ = false;
        if (std::string problem = write(text); !problem.empty()) {
            return problem;
        }
    }
    if (is_in_force_) {
        return "";
    }
    const std::string problem = run_command(command_, command_limit);
    is_in_force_ = problem.empty();
    return is_in_force_ ? ""
                        : "bird has not taken over " + path_ + ": '" + command_ + "' " + problem;
}

std::string Bird2File::write(const std::string& text) const {
    const std::string temporary = path_ + ".new";
    unlink(temporary.c_str());
    const Fd file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                       owner_writes_all_read));
    const char* from = text.data();
    const char* const end = from + text.size();
    bool is_written = file.is_open() && fchmod(file.get(), owner_writes_all_read) == 0;
    while (is_written && from != end) {
        const ssize_t size = ::write(file.get(), from, static_cast<std::size_t>(end - from));
        is_written = size > 0;
        from += std::max<ssize_t>(size, 0);
    }
    // On the disk before it takes the place of the file that was: bird may start from it.
    is_written =
        is_written && fsync(file.get()) == 0 && rename(temporary.c_str(), path_.c_str()) == 0;
    if (is_written) {
        return "";
    }
    const int error = errno;
    unlink(temporary.c_str());
    return "cannot write " + path_ + ": " + strerror(error);
}

}  // namespace lbroute
