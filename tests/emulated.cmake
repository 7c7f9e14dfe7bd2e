# The unit tests of a foreign machine's build, run by the emulator: many of them in one process, for its start alone takes
# longer than most of them. Left out is what the emulation of a Linux process lacks (qemu 7.2, and what 10.0 lacks beside);
# everything else runs.
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
  LbrouteTranslatedFlows.*
  # Links and next-hop objects: what asks for them is not translated.
  LbcheckCollect.*
  LbcheckEcho.*
  LbrouteCommands.*
  LbrouteDaemon.*
  LbrouteKernel.*
  # How posix_spawn(3) tells that there is no such program: its child does not share the memory of its parent.
  Program.that_is_not_there_has_no_status
  LbwatchHooks.one_that_cannot_be_started_is_told_with_the_reason_and_the_next_is_run
  # A process that a signal ends says nothing more: the emulator adds a line to its standard error.
  CrashReport.threads_that_crash_at_once_give_one_whole_report
  CrashReport.reader_of_standard_error_that_sleeps_does_not_keep_the_process_alive
  CrashReport.same_lines_go_to_standard_error_console_and_system_log
  EachSignal/CrashReportOfSignal.names_program_signal_thread_and_function/*)
execute_process(COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} --version OUTPUT_VARIABLE EMULATOR_VERSION)
if(NOT EMULATOR_VERSION MATCHES "version ([0-9.]+)")
  message(FATAL_ERROR "the emulator does not tell its version: ${CMAKE_CROSSCOMPILING_EMULATOR}")
endif()
if(CMAKE_MATCH_1 VERSION_GREATER 7.2.99)
  list(APPEND NOT_EMULATED
    # Fractions of a second in the dates of files.
    DumpFileOnDisk.is_read_whole_with_its_date
    Directory.times_of_writing_come_with_the_state
    # The moment of one's own start in /proc: it is made up, and another than the kernel tells later.
    LbrouteOwnership.killed_predecessors_files_are_taken_over
    LbrouteOwnership.predecessors_number_given_to_another_process_is_still_a_leftover
    LbrouteOwnership.predecessor_is_known_to_the_next_but_one_too
    # The stack below a signal: the emulator's own library of system calls stands between, and cannot be walked through.
    CrashReport.fault_of_an_instruction_is_reported_where_it_happened
    CrashReport.stack_overflow_of_the_main_thread_is_reported
    CrashReport.survives_the_way_to_the_background)
endif()
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
