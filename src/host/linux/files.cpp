#include "host/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "host/clock.h"

namespace host {

namespace {

/// The daemon runs shell commands: no stream of its own may be inherited.
std::string close_on_exec(const char* mode) {
    return std::string(mode) + "e";
}

}  // namespace

File open_file(const std::string& path, const char* mode) {
    return File(fopen(path.c_str(), close_on_exec(mode).c_str()));
}

std::chrono::nanoseconds modification_time(FILE* file) {
    struct stat status {};
    const timespec moment = fstat(fileno(file), &status) == 0 ? status.st_mtim : wall_now();
    return std::chrono::seconds(moment.tv_sec) + std::chrono::nanoseconds(moment.tv_nsec);
}

int make_directory(const std::string& path) {
    errno = 0;
    return mkdir(path.c_str(), 0777) == 0 || errno == EEXIST ? 0 : errno;
}

void remove_file(const std::string& path) {
    unlink(path.c_str());
}

FILE* open_command(const std::string& command, const char* mode) {
    return popen(command.c_str(), close_on_exec(mode).c_str());
}

int close_command(FILE* stream) {
    return pclose(stream);
}

void signal_reload(int process) {
    kill(process, SIGHUP);
}

}  // namespace host
