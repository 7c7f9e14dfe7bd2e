#pragma once

#include <sys/types.h>

#include <string>

/// What /proc tells of other processes (proc(5)).
namespace lbroute {

/// A process that runs: a number that only a thread has, or one that ended and was not waited for,
/// is none. Where /proc hides it (hidepid), that it can be signalled is enough.
bool is_running(pid_t pid);

/// When it started, in ticks after the machine's start, as field 22 of its `stat` gives it. With
/// the number it names one process for ever. Empty where there is none.
std::string start_of(pid_t pid);

/// Its command's name, printable; "name unknown" where there is none.
std::string name_of(pid_t pid);

}  // namespace lbroute
