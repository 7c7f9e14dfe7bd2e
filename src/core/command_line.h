#pragma once

#include <string>

/// What the command line asks for. Later occurrences of an option override earlier ones.
struct CommandLine {
    bool wants_usage = false;  ///< -h, an unknown option, or an option without its argument
    std::string conf_path;     ///< -f; empty where none is given
    std::string pid_path;      ///< -i; the pid file itself, empty for none
    std::string output_dir = "/var/run/load-balance";  ///< -o
    bool is_daemon = false;                            ///< -d
    bool is_test = false;                              ///< -t: load the configuration and exit
};

/// Reads the options with getopt(3), which names an unknown one on the standard error stream.
CommandLine read_command_line(int argc, char* const argv[]);

/// The usage text on standard output.
void print_usage();
