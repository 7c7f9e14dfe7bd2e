#include "unit/support/given_router.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "config/live_state.h"
#include "unit/support/faults.h"

namespace {

GivenRouter* current = nullptr;

bool is_routers(std::string_view path) {
    constexpr std::array<std::string_view, 4> directories{"/usr/etc/", "/var/db/", "/var/run/",
                                                          "/var/vrfs/"};
    return std::any_of(directories.begin(), directories.end(),
                       [path](std::string_view directory) { return path.starts_with(directory); });
}

}  // namespace

struct GivenRouter::Calls {
    static int open(const char* path, int flags, ...) {
        mode_t mode = 0;
        if ((flags & O_CREAT) != 0) {
            va_list arguments;
            va_start(arguments, flags);
            mode = va_arg(arguments, mode_t);
            va_end(arguments);
        }
        if (!is_routers(path)) {
            return faults::real_open(path, flags, mode);
        }
        current->note(std::string("open ") + path +
                      ((flags & O_ACCMODE) == O_RDONLY ? " r" : " w") +
                      ((flags & O_CLOEXEC) != 0 ? "e" : ""));
        return faults::real_open(current->below(path).c_str(), flags, mode);
    }

    static FILE* run(const char* command, const char* mode) {
        constexpr std::string_view show = "cat ";
        const std::string text = command;
        current->note("run " + text + " " + mode);
        const bool is_show = text.starts_with(show);
        const std::string real =
            is_show ? std::string(show) + current->below(text.substr(show.size())) : "exit 0";
        return faults::real_popen(real.c_str(), mode);
    }

    static int signal(pid_t process, int number) {
        current->note("signal " + std::to_string(number) + " to " + std::to_string(process));
        return 0;
    }

    static int ask(int /*fd*/, unsigned long request, ...) {
        if (request != SIOCGIFDSTADDR) {
            errno = ENOTTY;
            return -1;
        }
        va_list arguments;
        va_start(arguments, request);
        auto* const asked = va_arg(arguments, ifreq*);
        va_end(arguments);
        const std::string name = asked->ifr_name;
        current->note("ask peer of " + name + " in family " +
                      std::to_string(asked->ifr_dstaddr.sa_family));
        const auto peer = current->peers.find(name);
        if (peer == current->peers.end()) {
            errno = ENODEV;
            return -1;
        }
        sockaddr_in answer{};
        answer.sin_family = AF_INET;
        inet_pton(AF_INET, peer->second.c_str(), &answer.sin_addr);
        std::memcpy(&asked->ifr_dstaddr, &answer, sizeof answer);
        return 0;
    }
};

GivenRouter::GivenRouter() {
    std::string folder = std::filesystem::temp_directory_path() / "lb-unit-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        throw std::runtime_error("no folder for the router's files: " + folder);
    }
    folder_ = folder;
    current = this;
    static constexpr faults::StandIns calls{
        .popen = Calls::run, .kill = Calls::signal, .ioctl = Calls::ask, .open = Calls::open};
    faults::set_stand_ins(calls);
}

GivenRouter::~GivenRouter() {
    faults::reset_stand_ins();
    current = nullptr;
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void GivenRouter::write(const std::string& path, const std::string& content) const {
    make_directory(std::filesystem::path(path).parent_path());
    std::ofstream(below(path), std::ios::binary) << content;
}

void GivenRouter::make_directory(const std::string& path) const {
    std::filesystem::create_directories(below(path));
}

void GivenRouter::remove(const std::string& path) const {
    std::filesystem::remove(below(path));
}

std::optional<std::string> GivenRouter::read(const std::string& path) const {
    const std::ifstream file(below(path), std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::vector<std::string>& GivenRouter::note_deeds_under_lock() {
    on_deed = [this](const std::string& deed) {
        // By a thread of its own: a lock may not be tried by who holds it.
        std::thread([&] {
            if (live_state().try_lock()) {
                live_state().unlock();
            } else {
                deeds_under_lock_.push_back(deed);
            }
        }).join();
    };
    return deeds_under_lock_;
}

void GivenRouter::note(const std::string& deed) {
    deeds.push_back(deed);
    on_deed(deed);
}
