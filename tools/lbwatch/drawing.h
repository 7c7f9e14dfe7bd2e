#pragma once

#include <cstdint>
#include <string>

#include "lbwatch/report.h"

/// Pictures as inline SVG and pieces of HTML, shared by the report's page and the live one. Pure.
/// Every foreign text comes out escaped; no picture needs a script, a font or a network.
namespace lbwatch {

/// For HTML text and attribute values; bytes beyond printable ASCII come out as \xNN.
std::string escaped(const std::string& text);

/// One uplink over the period: green where active, red and full height where failed, grey where not
/// judged, hatched where nobody watched. `label` is read to those who do not see it.
std::string band(const UplinkReport& uplink, std::int64_t since_ms, std::int64_t until_ms,
                 const std::string& label);

/// Dates below a band or a chart.
std::string time_axis(std::int64_t since_ms, std::int64_t until_ms);

/// What the colours of a band mean; a page has it once, for the bands use its pattern.
std::string legend();

/// Round-trip time as a line, loss as bars; empty where nothing was measured.
std::string chart(const TargetReport& target, std::int64_t since_ms, std::int64_t until_ms);

/// The share of unanswered probes by hour of the day, as 24 bars.
std::string hour_bars(const UplinkReport& uplink);

/// The outages, latest first; the first `most` of them.
std::string outage_table(const UplinkReport& uplink, std::size_t most);

/// The head of a page up to <body>, with the style of both pages.
std::string page_head(const std::string& title, bool with_script);

}  // namespace lbwatch
