#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <thread>

#include "lbroute/ownership.h"
#include "shared/processes.h"
#include "unit/support/temporary_folder.h"

namespace {

using lbroute::Ownership;
using lbroute::StateFolder;
using Kind = Ownership::Outcome::Kind;

/// Another process, for as long as the test wants it.
class OtherProcess {
  public:
    OtherProcess() : pid_(fork()) {
        if (pid_ == 0) {
            for (;;) {
                pause();
            }
        }
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;
    ~OtherProcess() { end(); }

    pid_t pid() const { return pid_; }
    std::string number() const { return std::to_string(pid_); }
    /// Ends it, not waited for: its number stays taken.
    void die() const {
        kill(pid_, SIGKILL);
        siginfo_t ended{};
        waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOWAIT);
    }
    void end() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = 0;
        }
    }

  private:
    pid_t pid_;
};

/// A root and a state folder of the test's own.
class LbrouteOwnership : public testing::Test {
  protected:
    Ownership make() const { return Ownership(folder, root()); }
    std::string root() const { return above.path(); }
    std::string own_number() const { return std::to_string(getpid()) + "\n"; }

    /// Whether the place of the default namespace can be taken, and the notes then.
    Ownership::Outcome claimed() const {
        Ownership ownership = make();
        EXPECT_EQ(ownership.begin().kind, Kind::owned);
        return ownership.claim("");
    }

    const TemporaryFolder above;
    std::string problem;
    const StateFolder folder =
        StateFolder::open(above.file("state"), StateFolder::IfMissing::make, problem);
};

TEST_F(LbrouteOwnership, files_of_both_families_and_missing_folders_are_made) {
    Ownership ownership = make();
    ASSERT_EQ(ownership.begin().kind, Kind::owned);
    EXPECT_EQ(ownership.claim("").kind, Kind::owned);
    EXPECT_EQ(ownership.claim("blue").kind, Kind::owned);
    for (const char* path :
         {"var/run/routing.pid", "var/run/routing6.pid", "var/vrfs/blue/usr/var/run/routing.pid",
          "var/vrfs/blue/usr/var/run/routing6.pid"}) {
        EXPECT_EQ(above.text(path), own_number()) << path;
        struct stat found {};
        EXPECT_EQ(stat(above.file(path).c_str(), &found), 0) << path;
        EXPECT_EQ(found.st_mode, S_IFREG | 0644) << path;
    }
    for (const char* path : {"usr/etc", "var/vrfs/blue/usr/etc"}) {
        struct stat found {};
        EXPECT_EQ(stat(above.file(path).c_str(), &found), 0) << path;
        EXPECT_EQ(found.st_mode, S_IFDIR | 0755) << path;
    }
    ownership.release("blue");
    EXPECT_EQ(above.text("var/vrfs/blue/usr/var/run/routing.pid"), "");
    EXPECT_EQ(above.text("var/run/routing.pid"), own_number());
    ownership.release_all();
    EXPECT_EQ(above.text("var/run/routing.pid"), "");
    EXPECT_EQ(above.text("var/run/routing6.pid"), "");
}

TEST_F(LbrouteOwnership, file_that_names_another_running_process_is_refused_by_its_name) {
    const OtherProcess other;
    above.put("var/run/routing6.pid", other.number() + "\n");
    const auto outcome = claimed();
    EXPECT_EQ(outcome.kind, Kind::refused);
    EXPECT_EQ(outcome.reason,
              above.file("var/run/routing6.pid") + " names process " + other.number() + " (" +
                  shared::process_name(other.pid()) +
                  "), which is running; two routing daemons would undo each other's routes: stop "
                  "it first (kill " +
                  other.number() + "), or where it is no routing daemon: rm " +
                  above.file("var/run/routing6.pid"));
    EXPECT_EQ(above.text("var/run/routing6.pid"), other.number() + "\n");
    EXPECT_EQ(above.text("var/run/routing.pid"), "") << "one family's file without the other";
}

TEST_F(LbrouteOwnership, number_of_nobody_is_a_leftover) {
    OtherProcess other;
    const std::string number = other.number();
    other.end();
    above.put("var/run/routing.pid", number + "\n");
    const auto outcome = claimed();
    EXPECT_EQ(outcome.kind, Kind::owned);
    ASSERT_EQ(outcome.notes.size(), 1U);
    EXPECT_EQ(outcome.notes[0], above.file("var/run/routing.pid") + " names process " + number +
                                    ", which does not run; it is written anew");
    EXPECT_EQ(above.text("var/run/routing.pid"), own_number());
}

TEST_F(LbrouteOwnership, process_that_ended_and_was_not_waited_for_does_not_run) {
    const OtherProcess other;
    above.put("var/run/routing.pid", other.number() + "\n");
    other.die();
    EXPECT_EQ(claimed().kind, Kind::owned);
}

TEST_F(LbrouteOwnership, number_of_a_thread_is_no_process) {
    pid_t thread_number = 0;
    std::thread([&thread_number] {
        thread_number = gettid();
        EXPECT_FALSE(shared::is_running(thread_number));
        EXPECT_TRUE(shared::is_running(getpid()));
    }).join();
}

TEST_F(LbrouteOwnership, text_without_a_number_is_told_and_replaced) {
    for (const char* garbage : {"\n", "bird\n", "-1\n", "0\n", "99999999999999\n", "\xff\n", ""}) {
        above.put("var/run/routing.pid", garbage);
        const auto outcome = claimed();
        EXPECT_EQ(outcome.kind, Kind::owned) << garbage;
        ASSERT_GE(outcome.notes.size(), 1U) << garbage;
        EXPECT_EQ(outcome.notes[0], above.file("var/run/routing.pid") +
                                        " held no process number; it is written anew");
    }
}

TEST_F(LbrouteOwnership, number_that_is_still_being_written_is_waited_for) {
    const OtherProcess other;
    above.put("var/run/routing.pid", "");
    std::thread writer([&] {
        // As a daemon that opened its file and writes a little later.
        usleep(60000);
        above.put("var/run/routing.pid", other.number() + "\n");
    });
    EXPECT_EQ(claimed().kind, Kind::refused);
    writer.join();
}

/// A predecessor that wrote its files and was killed. Gives its number, which nobody has.
pid_t kill_a_predecessor(const StateFolder& folder, const std::string& root) {
    const pid_t pid = fork();
    if (pid == 0) {
        Ownership ownership(folder, root);
        const bool owns =
            ownership.begin().kind == Kind::owned && ownership.claim("").kind == Kind::owned;
        _exit(owns ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    return pid;
}

/// Gives the number of the record's process to `pid`, as if it had got that number meanwhile.
void reuse_number(const TemporaryFolder& above, pid_t predecessor, pid_t pid) {
    std::string record = above.text("state/instances");
    const std::string old_number = "\"pid\": " + std::to_string(predecessor);
    record.replace(record.find(old_number), old_number.size(), "\"pid\": " + std::to_string(pid));
    above.put("state/instances", record);
    for (const char* path : {"var/run/routing.pid", "var/run/routing6.pid"}) {
        // In place, and with the time it had.
        struct stat before {};
        ASSERT_EQ(stat(above.file(path).c_str(), &before), 0);
        above.put(path, std::to_string(pid) + "\n");
        const timespec times[] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, above.file(path).c_str(), times, 0), 0);
    }
}

TEST_F(LbrouteOwnership, killed_predecessors_files_are_taken_over) {
    const pid_t predecessor = kill_a_predecessor(folder, root());
    ASSERT_EQ(above.text("var/run/routing.pid"), std::to_string(predecessor) + "\n");
    const auto outcome = claimed();
    EXPECT_EQ(outcome.kind, Kind::owned);
    ASSERT_EQ(outcome.notes.size(), 2U);
    EXPECT_EQ(outcome.notes[0], above.file("var/run/routing.pid") +
                                    " was left by an lbroute that ended without removing it "
                                    "(process " +
                                    std::to_string(predecessor) + "); it is written anew");
}

TEST_F(LbrouteOwnership, predecessors_number_given_to_another_process_is_still_a_leftover) {
    const pid_t predecessor = kill_a_predecessor(folder, root());
    usleep(20000);  // start times count in ticks of 10 ms
    const OtherProcess other;
    reuse_number(above, predecessor, other.pid());
    const auto outcome = claimed();
    EXPECT_EQ(outcome.kind, Kind::owned) << outcome.reason;
    EXPECT_EQ(above.text("var/run/routing.pid"), own_number());
}

TEST_F(LbrouteOwnership, file_that_the_new_holder_of_the_number_wrote_is_its_own) {
    const pid_t predecessor = kill_a_predecessor(folder, root());
    usleep(20000);
    const OtherProcess other;
    reuse_number(above, predecessor, other.pid());
    std::filesystem::remove(above.file("var/run/routing.pid"));
    above.put("var/run/routing.pid", other.number() + "\n");
    EXPECT_EQ(claimed().kind, Kind::refused);
}

TEST_F(LbrouteOwnership, file_of_a_predecessor_that_still_runs_is_refused) {
    const pid_t predecessor = kill_a_predecessor(folder, root());
    const OtherProcess other;
    reuse_number(above, predecessor, other.pid());
    const std::string start_key = "\"start\": \"";
    std::string record = above.text("state/instances");
    const std::size_t start = record.find(start_key) + start_key.size();
    record.replace(start, record.find('"', start) - start, shared::start_of(other.pid()));
    above.put("state/instances", record);
    EXPECT_EQ(claimed().kind, Kind::refused);
}

TEST_F(LbrouteOwnership, predecessor_is_known_to_the_next_but_one_too) {
    const pid_t predecessor = kill_a_predecessor(folder, root());
    usleep(20000);
    const OtherProcess other;
    reuse_number(above, predecessor, other.pid());
    {
        Ownership killed_before_its_claim = make();
        ASSERT_EQ(killed_before_its_claim.begin().kind, Kind::owned);
    }
    EXPECT_EQ(claimed().kind, Kind::owned);
}

TEST_F(LbrouteOwnership, damaged_record_is_no_obstacle) {
    for (const char* garbage : {"", "x", "{}", "[5]", "[{\"pid\": \"x\"}]", "\xff"}) {
        above.put("state/instances", garbage);
        EXPECT_EQ(claimed().kind, Kind::owned) << garbage;
    }
}

TEST_F(LbrouteOwnership, record_that_cannot_be_written_is_told_and_no_obstacle) {
    above.put("state/instances/in-the-way", "");
    Ownership ownership = make();
    const auto outcome = ownership.begin();
    EXPECT_EQ(outcome.kind, Kind::owned);
    ASSERT_EQ(outcome.notes.size(), 1U);
    EXPECT_EQ(outcome.notes[0].find("cannot write " + above.file("state/instances") +
                                    ": Is a directory; where lbroute is killed"),
              0U)
        << outcome.notes[0];
    EXPECT_EQ(ownership.claim("").kind, Kind::owned);
    EXPECT_EQ(above.text("var/run/routing.pid"), own_number());
}

TEST_F(LbrouteOwnership, second_instance_is_refused_while_the_first_lives) {
    Ownership first = make();
    ASSERT_EQ(first.begin().kind, Kind::owned);
    Ownership second = make();
    const auto outcome = second.begin();
    EXPECT_EQ(outcome.kind, Kind::refused);
    EXPECT_EQ(outcome.reason, "another lbroute runs already, process " + std::to_string(getpid()) +
                                  "; stop it first: systemctl stop lbroute");
}

TEST_F(LbrouteOwnership, of_instances_that_start_at_once_one_wins) {
    std::array<int, 2> result{};
    ASSERT_EQ(pipe(result.data()), 0);
    std::array<pid_t, 8> starters{};
    for (pid_t& starter : starters) {
        starter = fork();
        if (starter == 0) {
            Ownership ownership(folder, root());
            const bool wins =
                ownership.begin().kind == Kind::owned && ownership.claim("").kind == Kind::owned;
            const char answer = wins ? 'w' : 'l';
            if (write(result[1], &answer, 1) == 1) {
                pause();
            }
            _exit(0);
        }
    }
    std::string answers(starters.size(), ' ');
    for (char& answer : answers) {
        ASSERT_EQ(read(result[0], &answer, 1), 1);
    }
    for (const pid_t starter : starters) {
        kill(starter, SIGKILL);
        waitpid(starter, nullptr, 0);
    }
    close(result[0]);
    close(result[1]);
    EXPECT_EQ(std::ranges::count(answers, 'w'), 1) << answers;
}

TEST_F(LbrouteOwnership, file_that_another_wrote_meanwhile_is_not_removed) {
    Ownership ownership = make();
    ASSERT_EQ(ownership.begin().kind, Kind::owned);
    ASSERT_EQ(ownership.claim("").kind, Kind::owned);
    above.put("var/run/routing.pid", "1\n");
    ownership.release_all();
    EXPECT_EQ(above.text("var/run/routing.pid"), "1\n");
    EXPECT_EQ(above.text("var/run/routing6.pid"), "");
}

TEST_F(LbrouteOwnership, symbolic_link_is_replaced_not_written_through) {
    above.put("victim", "precious\n");
    above.put("var/run/other.pid", "");
    std::filesystem::create_symlink(above.file("victim"), above.file("var/run/routing.pid"));
    EXPECT_EQ(claimed().kind, Kind::owned);
    EXPECT_EQ(above.text("victim"), "precious\n");
    EXPECT_EQ(above.text("var/run/routing.pid"), own_number());
}

TEST_F(LbrouteOwnership, pipe_in_the_files_place_stops_nobody) {
    above.put("var/run/other.pid", "");
    ASSERT_EQ(mkfifo(above.file("var/run/routing.pid").c_str(), 0600), 0);
    EXPECT_EQ(claimed().kind, Kind::owned);
}

TEST_F(LbrouteOwnership, file_that_cannot_be_written_leaves_nothing_behind) {
    above.put("var/run/routing6.pid/in-the-way", "");
    const auto outcome = claimed();
    EXPECT_EQ(outcome.kind, Kind::failed);
    EXPECT_EQ(outcome.reason,
              "cannot write " + above.file("var/run/routing6.pid") + ": Is a directory");
    EXPECT_EQ(above.text("var/run/routing.pid"), "");
}

TEST_F(LbrouteOwnership, name_that_leads_elsewhere_is_no_namespace) {
    Ownership ownership = make();
    ASSERT_EQ(ownership.begin().kind, Kind::owned);
    EXPECT_EQ(ownership.claim("../../etc").kind, Kind::failed);
    EXPECT_EQ(ownership.claim("..").kind, Kind::failed);
}

TEST(LbrouteProcesses, start_is_told_of_running_processes_only) {
    EXPECT_FALSE(shared::start_of(getpid()).empty());
    OtherProcess other;
    const pid_t pid = other.pid();
    EXPECT_FALSE(shared::start_of(pid).empty());
    other.end();
    EXPECT_EQ(shared::start_of(pid), "");
    EXPECT_FALSE(shared::is_running(pid));
    EXPECT_EQ(shared::process_name(pid), "name unknown");
}

}  // namespace
