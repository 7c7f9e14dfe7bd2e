#pragma once

#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// The router around the decision while it lives, below a folder of the test's own: files under
/// /usr/etc, /var/db, /var/run and /var/vrfs, the commands that the daemon runs, the processes that
/// it signals and the peers of its tunnels. Needs no root. One at a time, for one thread.
class GivenRouter {
  public:
    GivenRouter();
    ~GivenRouter();
    GivenRouter(const GivenRouter&) = delete;
    GivenRouter& operator=(const GivenRouter&) = delete;

    /// Puts a file there, with its directories.
    void write(const std::string& path, const std::string& content) const;
    void make_directory(const std::string& path) const;
    void remove(const std::string& path) const;
    /// Nothing where there is no such file.
    std::optional<std::string> read(const std::string& path) const;

    /// Kernel name of a tunnel -> its peer in dotted decimal. Other interfaces do not exist.
    std::map<std::string, std::string> peers;

    /// What the daemon did, oldest first: "open PATH MODE", "run COMMAND MODE",
    /// "signal NUMBER to PROCESS", "ask peer of NAME in family NUMBER". Commands that start with
    /// "cat " read the router's files; others are told only. Nobody is really signalled.
    std::vector<std::string> deeds;
    /// From now on notes here what is done while the caller holds the records' lock.
    std::vector<std::string>& note_deeds_under_lock();

    /// Called after each deed is noted, before it takes effect.
    std::function<void(const std::string& deed)> on_deed = [](const std::string&) {};

  private:
    struct Calls;  ///< the functions that stand in for the real ones

    std::string below(const std::string& path) const { return folder_ + path; }
    void note(const std::string& deed);

    std::string folder_;
    std::vector<std::string> deeds_under_lock_;
};
