#include "lbroute/daemon_record.h"

#include <variant>

#include "shared/processes.h"
#include <nlohmann/json.hpp>

namespace lbroute {

namespace {

using nlohmann::json;

constexpr const char* file_name = "status";

}  // namespace

bool DaemonRecord::is_running() const {
    return pid > 0 && !start.empty() && shared::start_of(pid) == start;
}

void note_refusals(DaemonRecord& record, const std::string& namespace_name, const View& view) {
    std::erase_if(record.refused_hops,
                  [&](const auto& one) { return std::get<0>(one.first) == namespace_name; });
    std::erase_if(record.refused_routes,
                  [&](const auto& one) { return one.first.first == namespace_name; });
    for (const PlannedRoute& route : view.wanted.routes) {
        if (!route.refusal.empty()) {
            record.refused_routes[{namespace_name, route.prefix.text()}] = route.refusal;
        }
        for (const PlannedHop& hop : route.hops) {
            if (hop.state == HopState::refused) {
                record.refused_hops[{namespace_name, hop.gateway.text(), hop.interface}] =
                    hop.reason;
            }
        }
    }
}

void apply_refusals(const DaemonRecord& record, const std::string& namespace_name, View& view) {
    for (const auto& [place, reason] : record.refused_hops) {
        const auto& [of_namespace, gateway_text, interface] = place;
        const Family family =
            gateway_text.find(':') == std::string::npos ? Family::ipv4 : Family::ipv6;
        const auto gateway = Address::parse(gateway_text, family);
        const Link* link = view.kernel.link(interface);
        if (of_namespace == namespace_name && gateway && link != nullptr) {
            refuse_hop(view.wanted.routes, *gateway, link->index, reason);
        }
    }
}

std::string record_text(const DaemonRecord& record) {
    json hops = json::array();
    for (const auto& [place, reason] : record.refused_hops) {
        const auto& [namespace_name, gateway, interface] = place;
        hops.push_back({{"namespace", namespace_name},
                        {"gateway", gateway},
                        {"interface", interface},
                        {"reason", reason}});
    }
    json routes = json::array();
    for (const auto& [place, reason] : record.refused_routes) {
        routes.push_back(
            {{"namespace", place.first}, {"prefix", place.second}, {"reason", reason}});
    }
    const json text{
        {"pid", record.pid},          {"start", record.start},           {"table", record.table},
        {"sticky", record.is_sticky}, {"bird2_file", record.bird2_file}, {"refused_hops", hops},
        {"refused_routes", routes},   {"not_served", record.not_served}};
    return text.dump(1, ' ', false, json::error_handler_t::replace) + "\n";
}

DaemonRecord parse_record(const std::string& text) {
    DaemonRecord record;
    // The folder is root's alone; a text that is none of ours counts as no record.
    try {
        const json read = json::parse(text);
        record.pid = read.at("pid").get<pid_t>();
        record.start = read.at("start").get<std::string>();
        record.table = read.at("table").get<std::uint32_t>();
        record.is_sticky = read.at("sticky").get<bool>();
        record.bird2_file = read.at("bird2_file").get<std::string>();
        for (const json& one : read.at("refused_hops")) {
            record.refused_hops[{one.at("namespace"), one.at("gateway"), one.at("interface")}] =
                one.at("reason");
        }
        for (const json& one : read.at("refused_routes")) {
            record.refused_routes[{one.at("namespace"), one.at("prefix")}] = one.at("reason");
        }
        record.not_served = read.at("not_served").get<std::map<std::string, std::string>>();
    } catch (const json::exception&) {
        return {};
    }
    return record;
}

std::string write_record(const StateFolder& folder, const DaemonRecord& record) {
    return folder.write(file_name, record_text(record));
}

DaemonRecord read_record(const StateFolder& folder) {
    if (!folder.is_open()) {
        return {};
    }
    const StateFolder::Content content = folder.read(file_name);
    return content.text ? parse_record(*content.text) : DaemonRecord{};
}

}  // namespace lbroute
