#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lbroute/event_loop.h"
#include "lbroute/journal.h"
#include "lbroute/net_namespace.h"
#include "lbroute/options.h"
#include "lbroute/ownership.h"
#include "lbroute/served_namespace.h"
#include "lbroute/state_folder.h"

namespace lbroute {

/// A namespace that is served, and how it stands there.
struct Served {
    Served(const std::string& name, const Options& options) : kernel(name, options) {}

    ServedNamespace kernel;
    /// Some route waits for the dumps, and this long (CLOCK_BOOTTIME); then it is guessed.
    std::optional<std::int64_t> uncertain_until_ms;
    std::map<std::string, std::string> paths;      ///< a route's title -> what was told of it
    std::optional<std::int64_t> put_back_told_ms;  ///< CLOCK_BOOTTIME
    /// Its process number files are ours; else nothing is done there.
    bool is_claimed = false;
    bool is_shared = false;  ///< some next hop follows the dumps
    bool is_uncertain = false;
    bool is_good = false;      ///< everything that the fragments ask for is in force
    bool was_settled = false;  ///< everything was, after the pass before the last one
};

/// The namespaces in which this program is the routing daemon. They come and go with the
/// configuration, and with their names below /var/run/netns. For one thread.
class Namespaces {
  public:
    /// All of these outlive this object, and the folder is open.
    Namespaces(const Options& options, const StateFolder& folder, Journal& journal,
               EventLoop& loop);

    /// Becomes the only instance on the state folder; false, and told, where there is another.
    bool begin();

    /// Serves exactly these from now on, and has the loop watch their kernels. Gives those whose
    /// fragments are to be read, for they are new. `claims_again`: tries again to take the places
    /// that could not be taken.
    std::set<std::string> follow(const std::set<std::string>& named, bool claims_again);

    /// At the start, another routing daemon had the default namespace: there is nothing to do here.
    bool is_refused() const { return is_refused_; }
    /// Namespace -> why the place of its routing daemon could not be taken.
    const std::map<std::string, std::string>& not_served() const { return not_served_; }
    std::map<std::string, Served>& served() { return served_; }
    const std::map<std::string, Served>& served() const { return served_; }

    /// Takes all routes of ours away, also in namespaces that the configuration does not name any
    /// more; gives what could not be.
    std::vector<std::string> flush();
    /// Gives the places up: removes the process number files.
    void release() { ownership_.release_all(); }

  private:
    bool told(const Ownership::Outcome& outcome) const;
    void claim(const std::string& name, Served& served, bool is_new);
    void tell_state(const std::string& name, const Served& served, const std::string& problem);
    void leave_second_name(const std::string& name, const std::string& first);
    void leave_all_but(const std::set<std::string>& named);

    const Options& options_;
    Journal& journal_;
    EventLoop& loop_;
    Ownership ownership_;
    std::map<std::string, Served> served_;
    std::map<std::string, std::string> not_served_;
    bool is_refused_ = false;
};

}  // namespace lbroute
