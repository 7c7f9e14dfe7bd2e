# The unit tests of a foreign machine's build, run by the emulator: all in one process, for its start alone takes longer
# than most of them. Left out is what the emulation of a Linux process lacks (qemu 7.2); everything else runs.
set(NOT_EMULATED
  # The ioctl that looks into the ARP table.
  Arp.unknown_next_hop_is_silently_missing
  Arp.refused_table_query_is_reported_by_the_check_only
  # Messages about neighbours: their byte order is not translated, and the kernel drops the question.
  Neighbours.unknown_next_hop_is_missing
  Neighbours.table_is_dumped_once_in_a_pass
  # Netlink sockets for connection tracking.
  Conntrack.each_failing_step_is_reported
  # A process that a signal ends says nothing more: the emulator adds a line to its standard error.
  CrashReport.threads_that_crash_at_once_give_one_whole_report
  CrashReport.reader_of_standard_error_that_sleeps_does_not_keep_the_process_alive
  CrashReport.same_lines_go_to_standard_error_console_and_system_log
  EachSignal/CrashReportOfSignal.names_program_signal_thread_and_function/*)
list(JOIN NOT_EMULATED ":" NOT_EMULATED)
add_test(NAME ${LB_TEST_PREFIX}unit COMMAND unit_tests --gtest_brief=1 --gtest_filter=-${NOT_EMULATED})
set_tests_properties(${LB_TEST_PREFIX}unit PROPERTIES LABELS unit TIMEOUT 240)
