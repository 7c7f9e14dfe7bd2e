#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "config/load_observer.h"
#include "host/log.h"
#include "lbcheck/findings.h"

namespace lbcheck {

/// Follows the loader through one file: finds what is wrong with single lines, and remembers where
/// things were declared. While it lives, what the loader logs becomes findings instead of lines of
/// the system log. One at a time.
class Watcher : public LoadObserver {
  public:
    /// Findings are appended.
    explicit Watcher(std::vector<Finding>& findings);
    ~Watcher() override;
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    void line(const std::string& read, bool is_cut) override;
    void statement(const HandledStatement& statement) override;
    /// The file was read to its end, or as far as the loader goes.
    void end();

    /// The line of "interface NAME" and "interface6 NAME" below health, of "interface NAME target
    /// ADDRESS", of "rule NAME" and of "rule NAME interface NAME"; 0 for what was never declared.
    int line_of(const std::string& place) const;

  private:
    void add(Severity severity, const std::string& text, const std::string& message);
    void note_place(const HandledStatement& statement);
    void judge_ignored(const HandledStatement& statement, const std::string& text);
    void judge_acted(const HandledStatement& statement, const std::string& text);
    void judge_way_of_echoes(const std::string& key, const std::string& value,
                             const std::string& text);
    void judge_time_of_run(const std::string& key, const std::string& value,
                           const std::string& text);
    void judge_repetition(const HandledStatement& statement, const std::string& text);
    void judge_address(const HandledStatement& statement, const std::string& text);
    void judge_next_hop(const std::string& value, const std::string& text);
    void judge_limit(const std::string& key, const std::string& value, const std::string& text);

    std::vector<Finding>& findings_;
    LogSink sink_before_;
    std::map<std::string, int> places_;
    int line_ = 0;
    std::string text_;  // of the latest read
    bool was_cut_ = false;
    bool had_end_ = true;         // the read before ended its line
    bool is_in_comment_ = false;  // of the line being read
    bool has_told_cut_ = false;   // of the line being read
    int opened_line_ = 0;         // of the outermost block that is open
    std::string opened_text_;
    std::string interface_;  // the latest below health
    std::string interface_place_;
    bool is_ipv6_ = false;
    bool is_extended_ = false;  // the latest type of probe
    /// The depth and keyword of what has one value in the blocks that are open -> its line.
    std::map<std::pair<int, std::string>, int> given_;
    std::string rule_;  // the latest rule
};

}  // namespace lbcheck
