#include "core/command_line.h"

#include <unistd.h>

#include <array>
#include <iostream>

CommandLine read_command_line(int argc, char* const argv[]) {
    CommandLine options;
    int option = 0;
    while ((option = getopt(argc, argv, "f:hti:o:dv")) != -1) {
        switch (option) {
            case 'f':
                options.conf_path = optarg;
                break;
            case 't':
                options.is_test = true;
                break;
            case 'i':
                options.pid_path = optarg;
                break;
            case 'o':
                options.output_dir = optarg;
                break;
            case 'd':
                options.is_daemon = true;
                break;
            case 'v':  // B4: accepted, and means nothing
                break;
            default:  // B2: an unknown option is a call for help
                options.wants_usage = true;
                return options;
        }
    }
    return options;
}

void print_usage() {
    static constexpr std::array lines{
        "lb -ftviodh",  // B3, B4: "directory" below is the file, and -v is not explained
        "  -f [file] configuration file",
        "  -t load configuration file only and exit",
        "  -i specify location of pid directory",
        "  -o specify location of output directory",
        "  -d run as daemon",
        "  -h help",
    };
    for (const char* line : lines) {
        std::cout << line << std::endl;
    }
}
