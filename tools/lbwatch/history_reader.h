#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lbwatch/event.h"
#include "lbwatch/records.h"
#include "lbwatch/sqlite.h"

namespace lbwatch {

/// The reading side of the history file, beside its writer or without one; never writes. One
/// thread at a time.
class HistoryReader {
  public:
    /// `problem()` tells why nothing can be read, or is empty.
    explicit HistoryReader(const std::string& path);
    const std::string& problem() const { return problem_; }

    /// Which rows: from `since_ms` on and before `until_ms`; of one uplink's name, or all where
    /// that is empty.
    struct Selection {
        std::int64_t since_ms = 0;
        std::int64_t until_ms = 0;
        std::string uplink;
    };

    /// In the order of their recording. Routes and daemon events are of no uplink. `take` may take
    /// its time: nothing is held meanwhile.
    void events(const Selection& selection, const std::function<void(const Event&)>& take);
    /// The latest so many, oldest first.
    std::vector<Event> latest(int count);

    /// Whether more spans than that reach into the time.
    bool has_more_spans(const Selection& selection, std::int64_t than);
    /// Those that ended since then, and of each uplink the last two: how its state of now began,
    /// and what happened since, whatever the file holds of years before.
    std::vector<Span> recent_spans(std::int64_t since_ms);
    /// Those that reach into the time, in the order of their recording, not clipped.
    std::vector<Span> spans(const Selection& selection);
    /// In the order of time.
    void minutes(const Selection& selection, const std::function<void(const Minute&)>& take);
    /// Whether any uplink of this name was ever recorded.
    bool knows(const std::string& uplink);

  private:
    void check(int code);
    /// The query's first parameters are the bounds; where an uplink is selected, its name is the
    /// last one.
    Statement select(std::string sql, const char* order, std::int64_t from, std::int64_t until,
                     const std::string& uplink) const;
    void each_row(Statement rows, const std::function<void(const Statement&)>& take);
    std::vector<Span> spans_of(Statement rows);
    std::int64_t read_batch(const Selection& selection, std::int64_t first, std::int64_t last,
                            std::vector<Event>& batch);

    std::unique_ptr<Database> database_;
    std::string path_;
    std::string problem_;
};

}  // namespace lbwatch
