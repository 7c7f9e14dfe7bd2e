#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// What /proc tells of other processes (proc(5)).
namespace shared {

/// Of /proc/PID/stat; none where there is no such process, or /proc hides it.
struct ProcessStat {
    char state = 0;  ///< 'Z' of one that has ended and was not waited for
    pid_t parent = 0;
    unsigned long long start = 0;  ///< in ticks after the machine's start
};
std::optional<ProcessStat> stat_of(pid_t pid);

/// A process that runs: a number that only a thread has, or one that ended and was not waited for,
/// is none. Where /proc hides it (hidepid), that it can be signalled is enough.
bool is_running(pid_t pid);

/// When it started, as `stat` gives it. With the number it names one process for ever. Empty where
/// there is none.
std::string start_of(pid_t pid);

/// Whether it has as many numbers as this process: one in each pid namespace (pid_namespaces(7))
/// between that of /proc and its own. A container's has one more. True where nothing tells.
bool is_in_own_pid_namespace(pid_t pid);

/// The words of its command line; none of a process that has ended.
std::vector<std::string> arguments_of(pid_t pid);

/// Its command's name, printable; "name unknown" where there is none.
std::string process_name(pid_t pid);

}  // namespace shared
