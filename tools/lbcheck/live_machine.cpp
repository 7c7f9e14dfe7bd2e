#include "lbcheck/live_machine.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

#include "decision/route_text.h"
#include "host/clock.h"
#include "shared/file_text.h"
#include "shared/processes.h"
#include "shared/program.h"

namespace lbcheck {

namespace {

/// How long another program may take for its answer.
constexpr std::chrono::seconds patience(5);

const char* word_of_state(int state) {
    switch (state) {
        case NUD_INCOMPLETE:
            return "INCOMPLETE";
        case NUD_REACHABLE:
            return "REACHABLE";
        case NUD_STALE:
            return "STALE";
        case NUD_DELAY:
            return "DELAY";
        case NUD_PROBE:
            return "PROBE";
        case NUD_FAILED:
            return "FAILED";
        case NUD_PERMANENT:
            return "PERMANENT";
        case NUD_NOARP:
            return "NOARP";
        default:
            return "";
    }
}

using Neighbours = std::map<std::pair<std::string, std::string>, std::string>;

int take_destination(const nlattr* attribute, void* data) {
    if (mnl_attr_get_type(attribute) == NDA_DST) {
        *static_cast<const nlattr**>(data) = attribute;
    }
    return MNL_CB_OK;
}

int take_neighbour(const nlmsghdr* message, void* data) {
    const auto* header = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(message));
    const nlattr* destination = nullptr;
    mnl_attr_parse(message, sizeof(ndmsg), take_destination, &destination);
    const std::size_t wanted = header->ndm_family == AF_INET6 ? sizeof(in6_addr) : sizeof(in_addr);
    std::array<char, IF_NAMESIZE> name{};
    std::array<char, INET6_ADDRSTRLEN> address{};
    if (destination != nullptr && mnl_attr_get_payload_len(destination) == wanted &&
        if_indextoname(static_cast<unsigned>(header->ndm_ifindex), name.data()) != nullptr &&
        inet_ntop(header->ndm_family, mnl_attr_get_payload(destination), address.data(),
                  address.size()) != nullptr) {
        (*static_cast<Neighbours*>(data))[{name.data(), address.data()}] =
            word_of_state(header->ndm_state);
    }
    return MNL_CB_OK;
}

std::string text_of(const std::string& path) {
    return shared::text_of_file(path).substr(0, 4096);
}

bool is_folder(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string first_line(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

/// bird's own word for its version, and for its configuration with the fragment in it; neither
/// touches the one that runs.
void ask_bird(pid_t pid, RouterFacts& router) {
    const std::string program = "/proc/" + std::to_string(pid) + "/exe";
    router.version = first_line(shared::run_program({program, "--version"}, patience).output);
    const auto words = shared::arguments_of(pid);
    std::vector<std::string> check{program, "-p"};
    const auto option = std::find(words.begin(), words.end(), "-c");
    if (option != words.end() && option + 1 != words.end()) {
        check.insert(check.end(), {"-c", *(option + 1)});
    }
    const shared::ProgramEnd answer = shared::run_program(check, patience);
    router.has_judged = answer.status && WIFEXITED(*answer.status);
    if (router.has_judged && answer.status != 0) {
        router.refusal = answer.output.empty() ? "without a reason" : first_line(answer.output);
    }
}

}  // namespace

std::vector<PathRights> rights_of(const std::string& path, const std::string& use) {
    std::vector<PathRights> rights;
    std::error_code error;
    std::filesystem::path at = std::filesystem::canonical(path, error);
    while (!error && !at.empty()) {
        struct stat found {};
        if (stat(at.c_str(), &found) != 0) {
            break;
        }
        constexpr unsigned all_bits = 07777;
        rights.push_back({.path = at,
                          .use = use,
                          .is_above = !rights.empty(),
                          .owner = found.st_uid,
                          .group = found.st_gid,
                          .mode = found.st_mode & all_bits});
        if (at == at.parent_path()) {
            break;
        }
        at = at.parent_path();
    }
    return rights;
}

Setting setting_of(const std::string& path) {
    std::ifstream file("/proc/sys/" + path);
    long number = 0;
    return file >> number ? Setting(number) : std::nullopt;
}

Neighbours neighbours_of(bool is_ipv6) {
    Neighbours neighbours;
    mnl_socket* socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (socket == nullptr) {
        return neighbours;
    }
    std::array<char, 32768> buffer{};
    nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETNEIGH;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto* header = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ndmsg)));
    header->ndm_family = is_ipv6 ? AF_INET6 : AF_INET;
    if (mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) == 0 &&
        mnl_socket_sendto(socket, request, request->nlmsg_len) >= 0) {
        const unsigned port = mnl_socket_get_portid(socket);
        for (;;) {
            const ssize_t count = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
            if (count <= 0 || mnl_cb_run(buffer.data(), static_cast<std::size_t>(count), 0, port,
                                         take_neighbour, &neighbours) <= MNL_CB_STOP) {
                break;
            }
        }
    }
    mnl_socket_close(socket);
    return neighbours;
}

RouterFacts router_of(const std::string& ns_name, bool is_ipv6) {
    RouterFacts router;
    router.is_ipv6 = is_ipv6;
    router.fragment_path = fragment_path(ns_name, is_ipv6);
    router.has_folder = is_folder(router.fragment_path.substr(0, router.fragment_path.rfind('/')));
    router.has_fragment = access(router.fragment_path.c_str(), F_OK) == 0;
    router.pid_path = pid_path(ns_name, is_ipv6);
    router.pid_text = first_line(text_of(router.pid_path));
    const pid_t pid = atoi(router.pid_text.c_str());  // as the daemon reads it
    router.is_running = pid > 0 && shared::is_running(pid);
    if (!router.is_running) {
        return router;
    }
    router.process = shared::process_name(pid);
    if (router.process == "bird" || router.process == "bird6") {
        ask_bird(pid, router);
    }
    return router;
}

std::vector<UnitFacts> units_of(const std::vector<std::string>& names, std::string& problem) {
    std::vector<UnitFacts> units;
    if (!is_folder("/run/systemd/system")) {
        problem = "there is no service manager here";
        return units;
    }
    const auto answer = [](const std::string& question, const std::string& unit) {
        return first_line(shared::run_program({"systemctl", question, unit}, patience).output);
    };
    for (const std::string& name : names) {
        units.push_back({.name = name,
                         .active = answer("is-active", name),
                         .enabled = answer("is-enabled", name)});
    }
    return units;
}

}  // namespace lbcheck
