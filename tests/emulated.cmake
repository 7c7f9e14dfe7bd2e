# The unit tests of a foreign machine's build, run by the emulator: many of them in one process, for its start alone takes
# longer than most of them. Left out is what the emulation of a Linux process lacks (qemu 7.2); everything else runs.
set(NOT_EMULATED
  # The ioctl that looks into the ARP table.
  Arp.unknown_next_hop_is_silently_missing
  Arp.refused_table_query_is_reported_by_the_check_only
  # Messages about neighbours: their byte order is not translated, and the kernel drops the question.
  Neighbours.unknown_next_hop_is_missing
  Neighbours.table_is_dumped_once_in_a_pass
  Neighbours.refused_entry_does_not_make_the_table_be_dumped_again
  # The device that a socket is bound to: it can be set, but not asked.
  Probes.echo_into_a_tunnel_is_bound_and_sent_to_the_socket
  BindToInterface.*
  # The count of what a socket has dropped.
  Room.losses_are_told_at_once_and_then_once_an_hour
  Room.losses_behind_a_limit_name_the_command_that_lifts_it
  # Netlink sockets for connection tracking.
  Conntrack.*
  ConntrackRecord.*
  ConntrackAnswers.*
  OnTheWire.*
  LbrouteFlows.kernel_that_does_not_answer_is_told
  # A process that a signal ends says nothing more: the emulator adds a line to its standard error.
  CrashReport.threads_that_crash_at_once_give_one_whole_report
  CrashReport.reader_of_standard_error_that_sleeps_does_not_keep_the_process_alive
  CrashReport.same_lines_go_to_standard_error_console_and_system_log
  EachSignal/CrashReportOfSignal.names_program_signal_thread_and_function/*)
list(JOIN NOT_EMULATED ":" NOT_EMULATED)

function(add_emulated_test NAME FILTER)
  add_test(NAME ${LB_TEST_PREFIX}unit.${NAME} COMMAND unit_tests --gtest_brief=1 "--gtest_filter=${FILTER}")
  set_tests_properties(${LB_TEST_PREFIX}unit.${NAME} PROPERTIES
                       LABELS unit
                       TIMEOUT 120
                       ENVIRONMENT "${ARGN}"
                       FAIL_REGULAR_EXPRESSION " 0 tests from")
endfunction()

# GoogleTest deals the tests out to so many processes; the name of one that fails is in its output.
set(PROCESSES 20)
foreach(NUMBER RANGE 1 ${PROCESSES})
  math(EXPR INDEX "${NUMBER} - 1")
  add_emulated_test(${NUMBER}_of_${PROCESSES} "-${NOT_EMULATED}"
                    "GTEST_TOTAL_SHARDS=${PROCESSES}" "GTEST_SHARD_INDEX=${INDEX}")
endforeach()
