#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lbwatch/records.h"

/// Figures of a period from the history's rows. Pure. All times are milliseconds since the epoch.
namespace lbwatch {

/// What was known of an uplink over a part of the period.
enum class Known { unwatched, unknown, active, failed };

const char* word_of(Known known);

struct Piece {
    std::int64_t begin_ms = 0;
    std::int64_t end_ms = 0;
    Known known = Known::unwatched;
    std::string reason;

    bool operator==(const Piece&) const = default;
};

/// A time over which an uplink was seen failed, without a break.
struct Outage {
    std::int64_t begin_ms = 0;
    std::int64_t end_ms = 0;
    bool is_begin_seen = false;  ///< else it was failed already when it was first looked at
    bool is_end_seen = false;    ///< else nobody watched when it ended
    bool is_going_on = false;    ///< it lasts up to the period's end
    std::string reason;
};

struct Answers {
    std::int64_t answered = 0;
    std::int64_t missed = 0;

    /// In percent; nothing where nothing was asked.
    std::optional<double> loss() const;
};

/// One part of a chart's time. The measured values are means of an extended ping's.
struct Point {
    std::int64_t begin_ms = 0;
    std::int64_t end_ms = 0;
    Answers answers;
    std::optional<double> loss_percent;
    std::optional<double> rtt_ms;
    std::optional<double> jitter_ms;
};

struct TargetReport {
    std::string address;
    Answers answers;
    bool is_measured = false;   ///< some minute has an extended ping's values
    std::vector<Point> points;  ///< in the order of time; parts without a minute are left out
};

struct UplinkReport {
    UplinkKey uplink;
    std::vector<Piece> pieces;  ///< cover the period without a gap
    std::int64_t active_ms = 0;
    std::int64_t failed_ms = 0;
    std::int64_t unknown_ms = 0;  ///< watched, but the daemon had no judgement
    std::int64_t unwatched_ms = 0;
    std::vector<Outage> outages;
    int flaps = 0;  ///< changes between active and failed, either way
    std::int64_t longest_ms = 0;
    std::optional<std::int64_t> mean_between_ms;  ///< time active for each outage seen to begin
    std::optional<std::int64_t> mean_repair_ms;   ///< of the outages seen from begin to end
    std::array<Answers, 24> by_hour;              ///< of the day, in the reader's zone
    std::vector<TargetReport> targets;

    /// In percent of the time in which the uplink was seen active or failed; nothing without any.
    std::optional<double> availability() const;
};

struct Report {
    std::int64_t since_ms = 0;
    std::int64_t until_ms = 0;
    std::int64_t made_ms = 0;
    std::string zone;  ///< the name of the reader's zone
    std::vector<UplinkReport> uplinks;
};

/// Where a span ends for a report. A watcher that was killed with its machine may have written no
/// more of an outage than that it began: it lasted a cycle at least.
std::int64_t shown_end_ms(const Span& span);

/// Makes a report: spans first, in the order of their recording, then minutes in any order.
class ReportMaker {
  public:
    /// `hour_of` gives the hour of the day of a minute since the epoch.
    using HourOf = std::function<int(std::int64_t minute)>;

    ReportMaker(std::int64_t since_ms, std::int64_t until_ms, HourOf hour_of);

    void add(const std::vector<Span>& spans);
    void add(const Minute& minute);
    Report take();

  private:
    struct Sums {
        Answers answers;
        std::int64_t measured = 0;
        std::int64_t loss_percent = 0;
        std::int64_t rtt_ms = 0;
        std::int64_t jitter_ms = 0;
    };
    struct Collected {
        std::map<std::int64_t, Piece> pieces;  ///< by begin, without overlaps
        std::array<Answers, 24> by_hour;
        std::map<std::string, std::map<std::int64_t, Sums>> points;  ///< target -> part -> sums
    };

    void lay(std::map<std::int64_t, Piece>& pieces, Piece piece) const;
    UplinkReport finish(const UplinkKey& key, Collected& collected) const;
    TargetReport finish_target(const std::string& address,
                               const std::map<std::int64_t, Sums>& parts) const;

    std::int64_t since_ms_;
    std::int64_t until_ms_;
    std::int64_t part_ms_;  ///< the length of a chart's point
    HourOf hour_of_;
    std::map<UplinkKey, Collected> uplinks_;
};

/// In percent with three digits, never rounded up: what failed for a second is not 100 %.
std::string percent_text(double percent);

}  // namespace lbwatch
