#include "host/files.h"

#include <fcntl.h>
#include <stdio_ext.h>
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

/// B140: nobody is waited for.
Fd open_to_write(const std::string& path, int more_flags) {
    constexpr int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    constexpr mode_t all_read_and_write = 0666;
    return Fd(open(path.c_str(), flags | more_flags, all_read_and_write));
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
    if (*mode != 'w') {
        return File(fopen(path.c_str(), close_on_exec(mode).c_str()));
    }
    return stream_on(open_to_write(path, O_TRUNC), mode);
}

File open_file_to_overwrite(const std::string& path, std::size_t size) {
    Fd opened = open_to_write(path, 0);
    struct stat status {};
    const off_t unfinished = size == 0 ? 0 : static_cast<off_t>(size) - 1;
    if (opened.is_open() && fstat(opened.get(), &status) == 0 && status.st_size > unfinished &&
        ftruncate(opened.get(), unfinished) != 0) {
        return nullptr;
    }
    return stream_on(std::move(opened), "wb");
}

void end_file_here(FILE* file) {
    fflush(file);
    __fpurge(file);  // what could not be written would be tried again when it is closed
    if (const off_t end = lseek(fileno(file), 0, SEEK_CUR); end >= 0) {
        static_cast<void>(ftruncate(fileno(file), end) == 0);  // its writer has told of the failure
    }
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
