#pragma once

/// The process from its entry on: command line, background, pid file, configuration, watchdog,
/// namespace threads. Exits where the command line asks for it; otherwise it never returns: with no
/// namespace to work in, or none left, the process idles, so that its supervisor still sees it.
[[noreturn]] void run_process(int argc, char* argv[]);
