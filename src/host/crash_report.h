#pragma once

/// The router's crash-report service: on SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGABRT the program
/// name, the signal, the thread and a symbolised stack go to the standard error stream, to the
/// console and to the system log, in async-signal-safe steps only; then the signal's default action
/// follows.

/// Keeps a copy of the name for the report.
void backtrace_set_program_name(const char* name);
/// Opens the console for the report; where there is none, standard error alone shows it.
void backtrace_open_console();
/// Installs the handlers, on an alternate stack so that a stack overflow is reported too (main
/// thread; other threads run the handler on their own stack).
void backtrace_install_signal_handlers();
