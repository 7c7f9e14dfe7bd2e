// Other programs, run to their end.

#include "shared/program.h"

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>

namespace {

using namespace std::chrono_literals;
using shared::ProgramEnd;
using shared::run_program;

TEST(Program, gives_its_status_and_both_its_streams) {
    const ProgramEnd end = run_program({"sh", "-c", "echo one; echo two >&2; exit 3"}, 20s);
    ASSERT_TRUE(end.status);
    EXPECT_EQ(WEXITSTATUS(*end.status), 3);
    EXPECT_EQ(end.output, "one\ntwo\n");
    EXPECT_EQ(end.problem, "");
}

TEST(Program, that_is_not_there_has_no_status) {
    const ProgramEnd end = run_program({"/nonexistent/program"}, 20s);
    EXPECT_FALSE(end.status);
    EXPECT_EQ(end.problem, "cannot be run: No such file or directory");
}

TEST(Program, of_much_output_the_end_is_kept) {
    const ProgramEnd end = run_program({"sh", "-c", "yes | head -c 1000000; echo last"}, 20s);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.output.size(), 4096U);
    EXPECT_THAT(end.output, testing::EndsWith("y\nlast\n"));
}

TEST(Program, that_closed_its_output_and_does_not_end_is_killed) {
    const ProgramEnd end = run_program({"sh", "-c", "exec >/dev/null 2>&1; sleep 600"}, 1s);
    EXPECT_FALSE(end.status);
    EXPECT_EQ(end.problem, "no end within 1 s, killed");
}

TEST(Program, its_own_end_counts_where_what_it_started_holds_the_output_open) {
    const ProgramEnd end = run_program({"sh", "-c", "sleep 20 & echo $!"}, 19s);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(kill(std::stoi(end.output), SIGKILL), 0) << end.output;
}

}  // namespace
