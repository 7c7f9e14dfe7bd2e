#include "host/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "base/fd.h"
#include "host/clock.h"

namespace host {

namespace {

/// The daemon runs shell commands: no stream of its own may be inherited.
std::string close_on_exec(const char* mode) {
    return std::string(mode) + "e";
}

File stream_on(Fd opened, const char* mode) {
    File file(opened.is_open() ? fdopen(opened.get(), mode) : nullptr);
    if (file != nullptr) {
        opened.release();
    }
    return file;
}

}  // namespace

File open_file(const std::string& path, const char* mode) {
    // B140: for writing, nobody is waited for.
    if (*mode != 'w') {
        return File(fopen(path.c_str(), close_on_exec(mode).c_str()));
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    constexpr mode_t all_read_and_write = 0666;
    return stream_on(Fd(open(path.c_str(), flags, all_read_and_write)), mode);
}

File open_regular_file(const std::string& path) {
    Fd opened(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    const bool is_regular =
        opened.is_open() && fstat(opened.get(), &status) == 0 && S_ISREG(status.st_mode);
    return is_regular ? stream_on(std::move(opened), "r") : nullptr;
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
