// A history file, as the reports read it, and the times that are typed.
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fuzz/input.h"
#include "lbwatch/history_report.h"
#include "lbwatch/json.h"
#include "lbwatch/moment.h"
#include "lbwatch/report_page.h"
#include "lbwatch/report_text.h"
#include "shared/time_text.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    char path[] = "/tmp/fuzz_history_XXXXXX";
    const int file = mkstemp(path);
    const bool is_written = file >= 0 && write(file, data, size) == static_cast<ssize_t>(size);
    if (file >= 0) {
        close(file);
    }
    if (is_written) {
        constexpr std::int64_t until_ms = 1'795'262'400'000;
        lbwatch::HistoryReader history(path);
        const lbwatch::Report report = lbwatch::report_of(
            history, {.since_ms = until_ms - 86'400'000, .until_ms = until_ms, .uplink = ""}, true,
            until_ms);
        lbwatch::text_of(report);
        lbwatch::csv_of(report);
        lbwatch::json_of(report);
        lbwatch::html_of(report);
        history.events({.since_ms = 0, .until_ms = until_ms, .uplink = ""},
                       [](const lbwatch::Event& event) { lbwatch::line_of(event); });
    }
    unlink(path);
    shared::read_time({reinterpret_cast<const char*>(data), size}, 0);
    return 0;
}
