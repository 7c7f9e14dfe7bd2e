#pragma once

/// Writes the process id and a line feed into the file, readable by all and writable by the owner.
/// Returns the pid, or -1 after logging that the file could not be opened. Nothing is locked, and
/// nobody removes the file.
int pid_output(const char* path);
