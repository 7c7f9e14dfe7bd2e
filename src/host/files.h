#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

/// Files, commands and processes of the host, as the loader, the decision and the output use them.
/// Streams are the C library's; errors are as in errno(3). Nothing here logs.
namespace host {

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;
/// Opens as fopen(3) does; null where that fails. What is opened for writing never waits: a pipe
/// that nobody reads cannot be opened, one that is full fails the write.
File open_file(const std::string& path, const char* mode);
/// Opens for writing `size` bytes over what the file holds, which spares the host freeing and
/// filling all of its pages. The last byte, and what is behind it, is cut off at once: by its
/// length the file is known as whole only when all is written.
File open_file_to_overwrite(const std::string& path, std::size_t size);
/// Ends such a file behind what was written, where the writer gives up.
void end_file_here(FILE* file);
/// For reading, without waiting; null also where it is no regular file: a pipe, a device.
File open_regular_file(const std::string& path);
/// When the file behind a stream was modified last, since the epoch by the wall clock; this very
/// moment where the host cannot tell.
std::chrono::nanoseconds modification_time(FILE* file);
/// 0, also where the folder is there already; else the error.
int make_directory(const std::string& path);
void remove_file(const std::string& path);

/// Runs a shell command as popen(3) does; null where nothing runs.
FILE* open_command(const std::string& command, const char* mode);
/// Gives the status of pclose(3).
int close_command(FILE* stream);

/// Asks a process to reload what it reads: SIGHUP. Failures are not told.
void signal_reload(int process);

}  // namespace host
