// What a program that answers on standard output tells where that takes nothing.

#include "shared/standard_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <iostream>
#include <string>

#include "unit/support/child_process.h"

namespace {

constexpr const char* full = "lbx: standard output cannot be written: No space left on device\n";

/// How a program ends that tells so many bytes on what `open_output` gives.
ChildEnd tell(std::size_t size, int (*open_output)()) {
    return run_in_child([size, open_output] {
        dup2(open_output(), STDOUT_FILENO);
        std::cout << std::string(size, 'x');
        _exit(shared::end_output("lbx") ? 0 : 3);
    });
}

int status_of(const ChildEnd& end) {
    return WIFEXITED(end.status) ? WEXITSTATUS(end.status) : -1;
}

int open_full() {
    return open("/dev/full", O_WRONLY | O_CLOEXEC);
}

TEST(StandardOutput, that_took_all_is_nothing_to_tell) {
    const ChildEnd end = tell(100, [] { return open("/dev/null", O_WRONLY | O_CLOEXEC); });
    EXPECT_EQ(status_of(end), 0);
    EXPECT_EQ(end.standard_error, "");
}

TEST(StandardOutput, on_a_full_disk_is_told) {
    const ChildEnd end = tell(100, open_full);
    EXPECT_EQ(status_of(end), 3);
    EXPECT_EQ(end.standard_error, full);
}

TEST(StandardOutput, that_failed_before_its_end_is_told_with_its_reason) {
    const ChildEnd end = tell(1'000'000, open_full);
    EXPECT_EQ(status_of(end), 3);
    EXPECT_EQ(end.standard_error, full);
}

TEST(StandardOutput, whose_reader_has_gone_is_not_told) {
    const ChildEnd end = tell(1'000'000, [] {
        signal(SIGPIPE, SIG_IGN);
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            _exit(1);
        }
        close(ends[0]);
        return ends[1];
    });
    EXPECT_EQ(status_of(end), 3);
    EXPECT_EQ(end.standard_error, "");
}

}  // namespace
