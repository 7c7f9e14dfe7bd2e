#include "decision/route_text.h"

std::string via_clause(const std::string& nexthop, int weight) {
    return " via " + nexthop + " weight " + std::to_string(weight);
}

std::string route_line(const std::string& prefix, const std::string& via_clauses, int metric) {
    const std::string metric_clause = metric == -1 ? "" : " metric " + std::to_string(metric);
    return "route " + prefix + " multipath" + via_clauses + metric_clause + ";\n";
}

std::string fragment_text(const std::string& routes, bool ipv6) {
    const std::string link_check = ipv6 ? "" : "check link 1;\n";
    return "protocol static {\n" + link_check + routes + "};\n";
}

std::string fragment_path(const std::string& ns_name, bool ipv6) {
    const std::string directory =
        ns_name.empty() ? "/usr/etc/" : "/var/vrfs/" + ns_name + "/usr/etc/";
    return directory + (ipv6 ? "routing6-wlb.conf" : "routing-wlb.conf");
}

std::string pid_path(const std::string& ns_name, bool ipv6) {
    const std::string directory =
        ns_name.empty() ? "/var/run/" : "/var/vrfs/" + ns_name + "/usr/var/run/";
    return directory + (ipv6 ? "routing6.pid" : "routing.pid");
}

std::string pid_command(const std::string& ns_name, bool ipv6) {
    return "cat " + pid_path(ns_name, ipv6);
}
