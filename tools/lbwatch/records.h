#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lbwatch/moment.h"
#include "lbwatch/world.h"

/// What the history keeps besides events: the times over which an uplink's state was seen, and what
/// each minute's cycles said of each target. Pure; one thread at a time.
namespace lbwatch {

/// An uplink was seen in this state from its begin to its end. What no span covers nobody watched.
struct Span {
    UplinkKey uplink;
    UplinkState state = UplinkState::unknown;
    std::int64_t begin_ms = 0;  ///< since the epoch
    std::int64_t end_ms = 0;
    std::string reason;

    bool operator==(const Span&) const = default;
};

/// The cycles of one minute that said something of one target. The sums are those of the extended
/// ping's measurements, as each of `measured` cycles showed them.
struct Minute {
    std::int64_t minute = 0;  ///< minutes since the epoch
    UplinkKey uplink;
    std::string target;
    int answered = 0;
    int missed = 0;
    int measured = 0;
    std::int64_t loss_percent_sum = 0;
    std::int64_t rtt_ms_sum = 0;
    std::int64_t jitter_ms_sum = 0;

    bool operator==(const Minute&) const = default;
};

/// Spans that a history file may lack. Those of `open` go on as long as nothing else is seen.
struct Unwritten {
    std::vector<Span> ended;
    std::vector<Span> open;
};

/// Makes spans of looks at the uplinks of one family, which one dump tells.
class SpanRecorder {
  public:
    explicit SpanRecorder(int family) : family_(family) {}

    /// The states as just read. A look later than `patience_ms` after the one before leaves a gap,
    /// as does a clock that was set.
    void see(const World::Uplinks& uplinks, std::int64_t patience_ms, const Moment& now);

    /// Nothing is seen any more until the next look.
    void stop();

    /// What the next take() gives of ended ones, and the open ones as far as they were seen.
    const std::vector<Span>& ended() const { return closed_; }
    std::vector<Span> open() const;

    /// Spans that are new or have grown since the last call. An open one comes again, with the same
    /// uplink and begin, whenever it has grown.
    std::vector<Span> take();

  private:
    struct Open {
        Span span;
        bool is_new = true;  ///< since the last take()
    };
    int family_;
    std::map<UplinkKey, Open> open_;
    std::vector<Span> closed_;
    std::optional<Moment> last_;
};

/// Adds up cycles by minute.
class MinuteRecorder {
  public:
    void add(const std::vector<Cycle>& cycles, const Moment& now);

    /// The minutes that have ended, or all with what they hold so far; each row is given once.
    std::vector<Minute> take(const Moment& now, bool with_current);

  private:
    using Key = std::pair<UplinkKey, std::string>;
    std::map<std::int64_t, std::map<Key, Minute>> minutes_;
};

}  // namespace lbwatch
