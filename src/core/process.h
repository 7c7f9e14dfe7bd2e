#pragma once

/// What makes the process one: its pid file and its standard streams.

/// Writes the process id and a line feed into the file, readable by all and writable by the owner.
/// Returns the pid, or -1 after logging that the file could not be opened. Nothing is locked, and
/// nobody removes the file.
int pid_output(const char* path);

/// Descriptors 0, 1 and 2 never name a socket of this process: a table entry of 0 stands for "no
/// socket", and a library that prints must not write into a probe's socket.

/// Puts /dev/null wherever one of the three is closed.
void hold_standard_streams();
/// Closes the three and puts /dev/null in their places: the process leaves its terminal.
void leave_standard_streams();
