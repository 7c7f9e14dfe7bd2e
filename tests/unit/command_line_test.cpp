#include "core/command_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

namespace {

CommandLine read(std::vector<std::string> words) {
    words.insert(words.begin(), "lb");
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    optind = 0;  // starts getopt(3) anew
    return read_command_line(static_cast<int>(words.size()), arguments.data());
}

TEST(Options, have_their_defaults) {
    const CommandLine options = read({});
    EXPECT_FALSE(options.wants_usage || options.is_daemon || options.is_test);
    EXPECT_EQ(options.conf_path, "");
    EXPECT_EQ(options.pid_path, "");
    EXPECT_EQ(options.output_dir, "/var/run/load-balance");
}

TEST(Options, are_all_read_and_the_later_one_counts) {
    const CommandLine options =
        read({"-f", "a", "-t", "-i", "p", "-o", "o", "-d", "-v", "-f", "b"});
    EXPECT_EQ(options.conf_path, "b");
    EXPECT_EQ(options.pid_path, "p");
    EXPECT_EQ(options.output_dir, "o");
    EXPECT_TRUE(options.is_test && options.is_daemon);
    EXPECT_FALSE(options.wants_usage);
}

TEST(Options, unknown_ones_and_missing_arguments_ask_for_the_usage) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(read({"-x"}).wants_usage);
    EXPECT_TRUE(read({"-f"}).wants_usage);
    EXPECT_TRUE(read({"-i"}).wants_usage);
    EXPECT_TRUE(read({"-o"}).wants_usage);
    EXPECT_TRUE(read({"-h"}).wants_usage);
    testing::internal::GetCapturedStderr();
}

TEST(Usage, is_seven_lines) {
    testing::internal::CaptureStdout();
    print_usage();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "lb -ftviodh\n"
              "  -f [file] configuration file\n"
              "  -t load configuration file only and exit\n"
              "  -i specify location of pid directory\n"
              "  -o specify location of output directory\n"
              "  -d run as daemon\n"
              "  -h help\n");
}

}  // namespace
