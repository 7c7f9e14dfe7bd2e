#pragma once

#include <string>

#include "lbwatch/watcher.h"

/// What the program's words do. Each prints to standard output, tells on standard error why it
/// cannot, and gives the exit status.
namespace lbwatch {

int watch(const WatchOptions& options);

struct EventsOptions {
    std::string history = WatchOptions().history;
    std::string since = "1d";
    std::string until = "now";
    std::string uplink;
    bool as_json = false;
};

int tell_events(const EventsOptions& options);

struct ReportOptions {
    std::string history = WatchOptions().history;
    std::string since = "30d";
    std::string until = "now";
    std::string uplink;
    bool as_json = false;
    bool as_csv = false;
    std::string html;  ///< the file to write; empty: none
};

int report(const ReportOptions& options);

}  // namespace lbwatch
