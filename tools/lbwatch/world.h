#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "dumps/state.h"
#include "lbwatch/event.h"
#include "lbwatch/moment.h"

/// What is known of the daemon's uplinks, and what changes when a dump is read. Pure: dumps and
/// times come as arguments. One thread at a time; a copy is a view for others.
namespace lbwatch {

/// `unknown`: the daemon has not judged the uplink since it started, or no longer evaluates it.
/// What it holds inactive although there was time for the answers that it asks for is `failed`.
enum class UplinkState { unknown, active, failed };
enum class Verdict { unknown, success, failure };

const char* word_of(UplinkState state);
const char* word_of(Verdict verdict);
std::optional<UplinkState> read_uplink_state(const std::string& word);

/// What a cycle of the daemon said of one target.
struct Cycle {
    UplinkKey uplink;
    std::string target;
    bool is_answered = false;
    std::optional<dumps::Quality> quality;
};

struct Changes {
    std::vector<Event> events;
    std::vector<Cycle> cycles;
};

struct Target {
    Verdict verdict = Verdict::unknown;  ///< confirmed by as many equal results as are configured
    Verdict told = Verdict::unknown;     ///< by the latest event; outlives the daemon
    std::optional<std::int64_t> since_boot_ms;
    dumps::Result last_result = dumps::Result::none;
    int success_run = 0;
    int failure_run = 0;
    std::optional<dumps::Quality> quality;  ///< of an extended ping that has run
    std::string fault;                      ///< why the latest failed result is one
    bool was_answered = false;              ///< since the daemon started
    bool is_broken = false;                 ///< a run of answers has ended since then
    std::uint64_t answered = 0;             ///< cycles since this program started
    std::uint64_t missed = 0;
};

struct Uplink {
    UplinkState state = UplinkState::unknown;
    UplinkState told = UplinkState::unknown;  ///< by the latest event; outlives the daemon
    bool is_unwatched = false;  ///< nothing was read for a while: `told` may be long over
    std::optional<std::int64_t> since_boot_ms;  ///< of `told`, where it is known
    std::string reason;                         ///< of `state`
    std::string nexthop;
    std::string nexthop_from;
    std::string source_address;
    bool is_routed = false;  ///< some destination uses it
    std::map<std::string, Target> targets;
    std::uint64_t to_active = 0;  ///< changes since this program started
    std::uint64_t to_failed = 0;
    std::int64_t down_ms = 0;  ///< seen failed since this program started

    // The rest serves World alone.
    bool is_told = false;    ///< some event or the history knows it
    bool is_judged = false;  ///< since the daemon started
    int cycles = 0;          ///< seen since then
    bool has_been_read = false;
    bool had_success = false;  ///< the daemon that runs knows when it last was judged so
    bool had_failure = false;
    int missing = 0;                               ///< dumps in a row without it
    std::optional<std::int64_t> evaluated_s;       ///< date of the latest evaluation seen
    std::optional<std::int64_t> overdue_since_ms;  ///< boot time since which none came
    std::optional<std::int64_t> counted_s;         ///< date of the evaluation counted last
};

/// The uplinks that a rule's destinations use.
struct RuleRoutes {
    std::vector<UplinkKey> members;
    std::map<std::string, std::string> used;  ///< destination -> uplinks, "none" without any
    std::map<std::string, std::int64_t> since_boot_ms;  ///< by destination, where it is known
};

struct RuleKey {
    std::string namespace_name;
    std::string name;  ///< 1_ipv4

    auto operator<=>(const RuleKey&) const = default;
};

/// Whole seconds since then, rounded; nothing where the begin is not known.
std::optional<std::int64_t> seconds_since(const std::optional<std::int64_t>& begin_boot_ms,
                                          const Moment& now);

class World {
  public:
    using Uplinks = std::map<UplinkKey, Uplink>;
    using Rules = std::map<RuleKey, RuleRoutes>;

    /// How long after its latest evaluation an uplink's state is no longer believed.
    void set_patience(std::int64_t patience_ms) { patience_ms_ = patience_ms; }

    /// An uplink that an earlier run of this program knew, in the state last told.
    void remember(const UplinkKey& key, UplinkState told);

    /// A whole outbounds dump, written at `written_s` (since the epoch) by the daemon that runs.
    Changes read(int family, const std::vector<dumps::Interface>& interfaces,
                 std::int64_t written_s, const Moment& now);

    /// The rules and routes as of now; after the outbounds.
    std::vector<Event> read(const std::vector<dumps::Rule>& rules,
                            const std::vector<dumps::Route>& routes, const Moment& now);

    /// Whether a daemon that has been restarted wrote this, at `written_s`: it has forgotten a
    /// judgement that the one before knew.
    bool is_of_another_run(const std::vector<dumps::Interface>& interfaces,
                           std::int64_t written_s) const;

    /// The family's dump is no longer rewritten, though the daemon runs: its states are unknown.
    std::vector<Event> expire(int family, const std::string& reason, const Moment& now);

    /// Nothing read before is true any more: the daemon has stopped, or is silent.
    void forget_states();

    /// The daemon runs, and has never written this family's dump: it serves none of its uplinks.
    std::vector<Event> drop_family(int family, const Moment& now);

    const Uplinks& uplinks() const { return uplinks_; }
    const Rules& rules() const { return rules_; }

  private:
    void read_one(const UplinkKey& key, const dumps::Interface& item, bool is_new_cycle,
                  std::int64_t written_s, const Moment& now, Changes& changes);
    UplinkState judged(Uplink& uplink, const dumps::Interface& item, std::int64_t written_s,
                       const Moment& now) const;
    bool has_had_time(const Uplink& uplink, const dumps::Interface& item, const Moment& now) const;
    static void tell_details(const UplinkKey& key, Uplink& uplink, const dumps::Interface& item,
                             const Moment& now, std::vector<Event>& events);
    static void tell_state(const UplinkKey& key, Uplink& uplink, const Moment& now,
                           std::vector<Event>& events);
    std::vector<Event> drop_missing(int family, const std::set<UplinkKey>& present, int allowed,
                                    const Moment& now);
    dumps::State state_for(const std::vector<dumps::Rule>& rules,
                           const std::vector<dumps::Route>& routes) const;
    bool is_settled(const dumps::Rule& rule, const Moment& now) const;
    std::vector<Event> tell_routes(const dumps::Rule& rule, RuleRoutes& entry,
                                   std::map<std::string, std::string> used,
                                   const Moment& now) const;

    Uplinks uplinks_;
    Rules rules_;
    std::int64_t patience_ms_ = 30'000;
    std::optional<std::int64_t> last_read_boot_ms_;
    std::optional<std::int64_t> begun_boot_ms_;  ///< first dump of the daemon that runs
};

}  // namespace lbwatch
