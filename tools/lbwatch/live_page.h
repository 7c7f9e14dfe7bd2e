#pragma once

#include <string>
#include <vector>

#include "lbwatch/event.h"
#include "lbwatch/report.h"
#include "lbwatch/view.h"

namespace lbwatch {

/// The page of what is known now over the bands of the last day. It can be read without its script,
/// which only keeps it fresh. Pure.
std::string live_page(const View& view, const Report& day, const std::vector<Event>& events,
                      const Moment& now);

/// The script: fetches the page again when an event comes, and every half minute. It says so where
/// no answer comes in 10 s, or nothing of the stream for 40 s: of a machine that lost its power no
/// browser hears for minutes.
extern const char* const page_script;

}  // namespace lbwatch
