#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "config/lb_data.h"
#include "config/load_observer.h"
#include "config/probe_maker.h"

/// Loads the configuration file: lines of words, blocks in curly brackets, "#" comments.
///
/// `load` splits each line, keeps the stack of keywords that opened the enclosing blocks and hands
/// the line to `process`, which acts on the entry that the latest enclosing line made current.
/// Unknown keywords are ignored (B21); a bad value is reported and skipped; neither fails the load.
/// Used by one thread, before the workers start.
class LBDataFactory {
  public:
    /// Reads the file. False when it cannot be opened or its brackets do not match; what was read
    /// before the fault stays.
    bool load(const std::string& path);
    /// A copy of what was loaded; it shares the probes.
    LBData get() const { return data; }

    /// Acts on one line and says what became of it. `stack` holds the keyword of the latest line at
    /// each depth, `depth` is the depth after the line's brackets.
    Handled process(const std::vector<std::string>& stack, int depth, const std::string& key,
                    const std::string& value);

    Handled process_health(const std::string& key, const std::string& value, bool ipv6);
    Handled process_health_interface(const std::string& key, const std::string& value);
    Handled process_health_interface_rule(const std::string& key, const std::string& value);
    Handled process_health_interface_rule_type(const std::string& key, const std::string& value);
    Handled process_health_interface_rule_type_target(const std::string& key,
                                                      const std::string& value);
    Handled process_health_interface_rule_type_resptime(const std::string& key,
                                                        const std::string& value);
    Handled process_health_interface_rule_type_period(const std::string& key,
                                                      const std::string& value);
    Handled process_health_interface_rule_type_timeout(const std::string& key,
                                                       const std::string& value);
    Handled process_health_interface_rule_type_count(const std::string& key,
                                                     const std::string& value);
    Handled process_health_interface_rule_type_loss(const std::string& key,
                                                    const std::string& value);
    Handled process_health_interface_rule_type_rtt(const std::string& key,
                                                   const std::string& value);
    Handled process_health_interface_rule_type_jitter(const std::string& key,
                                                      const std::string& value);
    Handled process_rule(const std::string& key, const std::string& value);
    Handled process_rule_interface(const std::string& key, const std::string& value);
    Handled process_rule_target(const std::string& key, const std::string& value);
    Handled process_rule_namespace(const std::string& key, const std::string& value);
    Handled process_rule_failover(const std::string& key, const std::string& value);

    LBData data;

    /// The entries being read; none at the start. An interface block starts without a current
    /// probe, a rule block without a current member or destination.
    int cur_test_no = 0;
    std::optional<std::map<std::string, LBRule>::iterator> cur_rule;
    std::optional<std::map<std::string, LBHealth>::iterator> cur_health;
    std::optional<std::map<std::pair<std::string, bool>, int>::iterator> cur_rule_if;
    std::optional<std::map<int, LBTest*>::iterator> cur_test;
    std::optional<std::map<int, LBTest6*>::iterator> cur_test6;
    std::optional<std::map<std::string, int>::iterator> cur_target;

    LoadObserver* observer = nullptr;  ///< not owned; none in the daemon

  private:
    Handled process_health_line(int depth, const std::string& key, const std::string& value);
    Handled process_health_probe(const std::string& key, const std::string& value);
    Handled process_rule_line(const std::vector<std::string>& stack, int depth,
                              const std::string& key, const std::string& value);
    Handled set_ping_setting(PingSetting setting, const std::string& value);
    void add_default_probes();
};
