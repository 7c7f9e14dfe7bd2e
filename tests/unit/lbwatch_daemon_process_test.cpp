// How lbwatch finds the daemon's process: by its name and its option -o.

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "lbwatch/daemon_process.h"
#include "shared/processes.h"
#include "unit/support/temporary_folder.h"

namespace {

using lbwatch::find_daemon;

/// A shell under the daemon's name, with arguments as the daemon has them, that waits to be ended.
class Lookalike {
  public:
    Lookalike(const std::string& program, const std::vector<std::string>& arguments) {
        std::vector<std::string> words{program, "-c", "kill -STOP $$", "lb"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            execv(program.c_str(), argv.data());
            _exit(127);
        }
        int status = 0;
        waitpid(pid_, &status, WUNTRACED);
        EXPECT_TRUE(WIFSTOPPED(status));
    }
    Lookalike(const Lookalike&) = delete;
    Lookalike& operator=(const Lookalike&) = delete;
    ~Lookalike() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = 0;
};

class FindDaemon : public ::testing::Test {
  protected:
    FindDaemon() { std::filesystem::create_symlink("/bin/sh", program); }

    TemporaryFolder folder;
    std::string program = folder.file("lb");
    std::string out = folder.file("out");
};

TEST_F(FindDaemon, knows_the_one_of_its_output_directory_by_both_ways_to_name_it) {
    EXPECT_EQ(find_daemon(out).pid, 0);
    const Lookalike other(program, {"-d", "-o", folder.file("other")});
    const Lookalike apart(program, {"-d", "-o", out + "/"});
    EXPECT_EQ(find_daemon(out).pid, apart.pid());
    EXPECT_EQ(find_daemon(folder.file("other")).pid, other.pid());

    const Lookalike joined(program, {"-o" + folder.file("joined"), "-d"});
    EXPECT_EQ(find_daemon(folder.file("joined")).pid, joined.pid());
}

TEST_F(FindDaemon, takes_an_option_without_its_value_for_none) {
    const Lookalike cut(program, {"-d", "-o"});
    EXPECT_EQ(find_daemon(out).pid, 0);
    EXPECT_EQ(find_daemon("").pid, 0);
}

TEST_F(FindDaemon, prefers_the_youngest_and_is_told_of_its_end) {
    const Lookalike old(program, {"-o", out});
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // more than a tick of the clock
    lbwatch::DaemonProcess found;
    {
        const Lookalike young(program, {"-o", out});
        found = find_daemon(out);
        EXPECT_EQ(found.pid, young.pid());
        pollfd ended{.fd = found.ended.get(), .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&ended, 1, 0), 0);
    }
    pollfd ended{.fd = found.ended.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&ended, 1, 1000), 1);
    EXPECT_EQ(find_daemon(out).pid, old.pid());
}

TEST_F(FindDaemon, passes_over_one_that_only_looks_at_its_configuration) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-t", "-o", out}, {"-f", "x", "-t", "-o", out}, {"-dto", out}}) {
        const Lookalike one(program, arguments);
        EXPECT_EQ(find_daemon(out).pid, 0) << arguments[0];
    }
    const Lookalike named_so(program, {"-f", "-t", "-i-t", "-o", out});
    EXPECT_EQ(find_daemon(out).pid, named_so.pid()) << "the names of files";
}

TEST(Processes, of_a_pid_namespace_of_their_own_are_told_apart) {
    EXPECT_TRUE(shared::is_in_own_pid_namespace(getpid()));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    // As fork(2), but with a namespace.
    const auto child = static_cast<pid_t>(syscall(SYS_clone, CLONE_NEWPID | SIGCHLD, 0, 0, 0, 0));
    if (child == 0) {
        char byte = 0;
        close(ends[1]);
        _exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);
    }
    if (child > 0) {
        EXPECT_FALSE(shared::is_in_own_pid_namespace(child));
    }
    close(ends[0]);
    close(ends[1]);
    if (child < 0) {
        GTEST_SKIP() << "without the right to make one";
    }
    waitpid(child, nullptr, 0);
}

TEST_F(FindDaemon, passes_over_programs_of_another_name) {
    const std::string namesake = folder.file("lbx");
    std::filesystem::create_symlink("/bin/sh", namesake);
    const Lookalike other(namesake, {"-o", out});
    EXPECT_EQ(find_daemon(out).pid, 0);
}

}  // namespace
