#include "core/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "unit/support/captured_log.h"
#include "unit/support/child_process.h"
#include "unit/support/loaded.h"

namespace {

using Lines = std::vector<LogLine>;

TEST(PidFile, holds_the_process_id_and_is_writable_by_the_owner_only) {
    const TemporaryFile place("");
    unlink(place.path().c_str());
    const mode_t mask = umask(0);
    EXPECT_EQ(pid_output(place.path().c_str()), getpid());
    EXPECT_EQ(umask(mask), 0U);
    EXPECT_EQ(content_of(place.path()), std::to_string(getpid()) + "\n");
    struct stat status {};
    stat(place.path().c_str(), &status);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);
}

TEST(PidFile, that_cannot_be_opened_is_reported) {
    const CapturedLog log;
    EXPECT_EQ(pid_output("/nonexistent/lb.pid"), -1);
    EXPECT_EQ(log.lines(), (Lines{{4,
                                   "%WAN-W-ERR: Can't fopen pid lock file /nonexistent/lb.pid, "
                                   "continuing"}}));
}

TEST(PidFile, replaces_what_stood_there) {
    const TemporaryFile place("a longer text than any process id\n");
    pid_output(place.path().c_str());
    EXPECT_EQ(content_of(place.path()), std::to_string(getpid()) + "\n");
}

TEST(PidFile, that_cannot_be_opened_leaves_the_mask_as_it_was) {
    const CapturedLog log;
    const mode_t mask = umask(0027);
    pid_output("/nonexistent/lb.pid");
    EXPECT_EQ(umask(mask), 0027U);
}

TEST(StandardStreams, closed_ones_are_held_on_dev_null) {
    const ChildEnd end = run_in_child([] {
        close(0);
        close(2);
        hold_standard_streams();
        char buffer[1];
        const bool is_held = ::read(0, buffer, 1) == 0 && fcntl(2, F_GETFD) != -1;
        const int next = open("/dev/null", O_RDONLY);
        _exit(is_held && next > 2 ? 0 : 1);
    });
    EXPECT_EQ(end.status, 0);
}

TEST(StandardStreams, are_left_for_dev_null) {
    const ChildEnd end = run_in_child([] {
        leave_standard_streams();
        fprintf(stderr, "into the void");
        fflush(stderr);
    });
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.standard_error, "");
}

}  // namespace
