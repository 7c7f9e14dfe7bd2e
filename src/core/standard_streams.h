#pragma once

/// Descriptors 0, 1 and 2 never name a socket of this process: a table entry of 0 stands for "no
/// socket", and a library that prints must not write into a probe's socket.

/// Puts /dev/null wherever one of the three is closed.
void hold_standard_streams();
/// Closes the three and puts /dev/null in their places: the process leaves its terminal.
void leave_standard_streams();
