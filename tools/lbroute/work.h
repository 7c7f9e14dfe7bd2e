#pragma once

#include <set>
#include <string>
#include <vector>

#include "lbroute/daemon_record.h"
#include "lbroute/event_loop.h"
#include "lbroute/holds.h"
#include "lbroute/journal.h"
#include "lbroute/namespaces.h"
#include "lbroute/options.h"
#include "lbroute/routing.h"
#include "lbroute/site.h"
#include "lbroute/state_folder.h"
#include "lbroute/watched_files.h"

namespace lbroute {

/// What is to be done at the next opportunity.
struct Due {
    bool configuration = true;
    bool namespaces = true;
    bool dumps = true;
    bool holds = true;
    std::set<std::string> fragments;  ///< namespaces whose fragments are to be read
    std::set<std::string> routes;     ///< namespaces whose routes are to be looked at
};

/// What the running program knows, and its work: reads what is due, follows the namespaces and puts
/// their routes into force. For one thread.
class Work {
  public:
    /// All of these outlive this object, and the folder is open.
    Work(const Options& options, const StateFolder& folder, Journal& journal, EventLoop& loop);

    /// Works off what is due, and has the files watched that matter now.
    void run(const Due& due, WatchedFiles& files);

    const Site& site() const { return site_; }
    const std::vector<Hold>& holds() const { return holds_; }
    Namespaces& namespaces() { return namespaces_; }
    const Namespaces& namespaces() const { return namespaces_; }

    /// Something failed of which nothing may tell that it is over.
    bool is_wanting() const;
    /// Some file is just being written.
    bool is_waiting_for_files() const;
    /// All fragments were read, and all that they ask for is in force.
    bool is_good() const;

    /// Follows the configuration, to take the routes away: false where some namespace is not ours.
    bool prepare_flush();
    /// Takes all routes of ours away; gives what could not be.
    std::vector<std::string> flush();

  private:
    void route(const std::string& name, Served& served);
    void leave_record(bool tries_again);
    std::set<std::string> served_names();
    void read_fragments(const std::string& name);
    bool read_holds_anew();

    const StateFolder& folder_;
    Journal& journal_;
    Site site_;
    Namespaces namespaces_;
    Routing routing_;
    DaemonRecord record_;
    DaemonRecord left_;  // as it was written, or was to be
    bool is_record_left_ = false;
    std::vector<Hold> holds_;
    bool are_holds_read_ = false;
    bool are_holds_whole_ = false;  ///< and none of them was damaged
};

}  // namespace lbroute
