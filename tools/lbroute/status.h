#pragma once

#include "lbroute/options.h"
#include "lbroute/report.h"

/// The commands that look, and change no route: each gives the program's exit status.
namespace lbroute {

/// What is and what should be, of every namespace of the configuration.
Report report_of_now(Options options, bool chooses_table);

/// Prints what is and what should be, whether the program runs or not. 0: they agree, 1: not, or
/// not all of it could be looked at. `chooses_table`: the table was given, and not to be taken from
/// the running program.
int show_status(const Options& options, bool chooses_table, bool as_json);

/// Prints the ip(8) commands that would put the fragments into force (or with `flushes` take all
/// away). 0, or 1 where something could not be looked at.
int show_commands(const Options& options);

}  // namespace lbroute
