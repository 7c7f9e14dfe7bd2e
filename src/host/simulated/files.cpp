// Files, commands and processes of the simulated machine. Streams are the C library's own, on
// memory: nothing here reaches the machine that the simulation runs on.

#include "host/files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/simulated/simulation.h"

namespace host {

namespace {

/// A file that is being written: its content is in the machine from each write on, as on a disk.
struct Written {
    std::string path;
};

ssize_t append(void* cookie, const char* data, std::size_t size) {
    auto& content = Simulation::current().files[static_cast<Written*>(cookie)->path];
    content.append(data, size);
    return static_cast<ssize_t>(size);
}

int end_writing(void* cookie) {
    delete static_cast<Written*>(cookie);
    return 0;
}

/// What is left to read of a text.
struct Read {
    std::string text;
    std::size_t at = 0;
};

ssize_t read_on(void* cookie, char* buffer, std::size_t size) {
    auto& read = *static_cast<Read*>(cookie);
    const std::size_t taken = std::min(size, read.text.size() - read.at);
    std::memcpy(buffer, read.text.data() + read.at, taken);
    read.at += taken;
    return static_cast<ssize_t>(taken);
}

int end_reading(void* cookie) {
    delete static_cast<Read*>(cookie);
    return 0;
}

FILE* stream_of(std::string text) {
    return fopencookie(new Read{.text = std::move(text)}, "r",
                       {.read = read_on, .write = nullptr, .seek = nullptr, .close = end_reading});
}

}  // namespace

File open_file(const std::string& path, const char* mode) {
    Simulation& simulation = Simulation::current();
    auto& files = simulation.files;
    if (simulation.fails(*mode == 'w' ? Simulation::Call::write_file
                                      : Simulation::Call::read_file)) {
        return nullptr;
    }
    if (*mode == 'w') {
        ++simulation.writings[path];
        files[path].clear();
        return File(
            fopencookie(new Written{path}, "w",
                        {.read = nullptr, .write = append, .seek = nullptr, .close = end_writing}));
    }
    const auto found = files.find(path);
    return found == files.end() ? nullptr : File(stream_of(found->second));
}

// Nobody reads between two writes.
File open_file_to_overwrite(const std::string& path, std::size_t /*size*/) {
    return open_file(path, "wb");
}

void end_file_here(FILE* file) {
    fflush(file);
}

File open_regular_file(const std::string& path) {
    return open_file(path, "r");
}

// Files of the simulated machine are written in one go, long ago.
std::chrono::nanoseconds modification_time(FILE* /*file*/) {
    return {};
}

int make_directory(const std::string& /*path*/) {
    return Simulation::current().fails(Simulation::Call::make_directory) ? EROFS : 0;
}

void remove_file(const std::string& path) {
    Simulation::current().files.erase(path);
}

// The daemon runs "cat FILE 2>/dev/null" to read; whatever else it runs has no output.
FILE* open_command(const std::string& command, const char* mode) {
    Simulation& simulation = Simulation::current();
    if (simulation.fails(Simulation::Call::command)) {
        return nullptr;
    }
    simulation.commands.push_back(command);
    if (*mode == 'w') {
        return fopencookie(new Read, "w",
                           {.read = nullptr,
                            .write = [](void*, const char*,
                                        std::size_t size) { return static_cast<ssize_t>(size); },
                            .seek = nullptr,
                            .close = end_reading});
    }
    constexpr std::string_view show = "cat ";
    const std::string path =
        command.starts_with(show)
            ? command.substr(show.size(), command.find(' ', show.size()) - show.size())
            : "";
    const auto found = simulation.files.find(path);
    return stream_of(found == simulation.files.end() ? std::string() : found->second);
}

int close_command(FILE* stream) {
    return fclose(stream);
}

void signal_reload(int process) {
    Simulation& simulation = Simulation::current();
    const auto found = simulation.routing_daemons.find(process);
    if (found != simulation.routing_daemons.end()) {
        found->second.routes_in_force = simulation.files[found->second.fragment_path];
        ++found->second.reloads;
    }
}

}  // namespace host
