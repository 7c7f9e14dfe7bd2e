#include "core/start_up.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/thread.h"
#include "config/namespaces.h"
#include "core/command_line.h"
#include "core/process.h"
#include "core/workers.h"
#include "host/clock.h"
#include "host/crash_report.h"
#include "host/log.h"

namespace {

void report_crashes(const char* program) {
    backtrace_set_program_name(program);
    backtrace_open_console();
    backtrace_install_signal_handlers();
}

/// The child goes on, on streams of its own and otherwise as it was (B8); the parent, and a process
/// that could not fork (B9), exits.
void go_to_background() {
    const pid_t child = fork();
    if (child != 0) {
        send_signal_live(child, 2);
        exit(0);
    }
    leave_standard_streams();
}

/// The namespaces that have anything to do, the default one (B18) first. Afterwards
/// `namespaces_check` holds every key that a namespace thread asks for, so that the threads only
/// read it.
std::vector<std::string> find_namespaces_with_work(LoadBalance& lb) {
    lb.check_before_start(namespaces_check);
    namespaces.insert("");
    std::vector<std::string> with_work;
    for (const std::string& name : namespaces) {
        const auto need4 = namespaces_check[{name, 0}];
        const auto need6 = namespaces_check[{name, 1}];
        if (need4.first + need4.second + need6.first + need6.second != 0) {
            with_work.push_back(name);
        }
    }
    return with_work;
}

/// A namespace thread reads its argument whenever it likes, so the arguments stay.
std::vector<std::unique_ptr<namespace_arg>>& kept_arguments() {
    static auto* const kept = new std::vector<std::unique_ptr<namespace_arg>>;
    return *kept;
}

std::vector<JoinedThread> start_namespace_threads(LoadBalance& lb) {
    std::vector<JoinedThread> threads;
    for (const std::string& name : find_namespaces_with_work(lb)) {
        auto& argument = kept_arguments().emplace_back(new namespace_arg{&lb, name});
        const auto thread = JoinedThread::start(work_in_namespace, argument.get());
        if (!thread) {
            LOG_WARNING("Can't create new thread for VRF %s", name.c_str());
            // Without destructors: the threads that run already use what those would destroy.
            _exit(255);  // B1: the one status that is not 0
        }
        threads.push_back(*thread);
    }
    return threads;
}

}  // namespace

void run_process(int argc, char* argv[]) {
    hold_standard_streams();
    report_crashes(argv[0]);
    signal(SIGPIPE, SIG_IGN);  // who stops reading a pipe costs that file, not the daemon
    CommandLine options = read_command_line(argc, argv);
    if (options.wants_usage) {
        print_usage();
        exit(0);
    }
    if (options.conf_path.empty()) {
        // B5: it is the option that is missing or empty.
        std::cout << "Configuration file is empty" << std::endl;
        exit(0);
    }
    if (options.is_daemon) {
        go_to_background();
    }
    // B7: before the configuration, and so also for a test run.
    if (!options.pid_path.empty()) {
        pid_output(options.pid_path.c_str());
    }
    auto lb = std::make_unique<LoadBalance>(options.output_dir);
    if (!lb->set_conf(options.conf_path)) {
        LOG_ERROR("wan_lb: error loading configuration file: %s", options.conf_path.c_str());
        exit(0);
    }
    if (options.is_test) {
        exit(0);
    }
    send_signal_live(1, 2);
    set_timeout(&wd_timeout);
    for (const JoinedThread& thread : start_namespace_threads(*lb)) {
        thread.join();
    }
    delete lb.release();  // reset() would not let a thread's end through
    // B11: to have nothing to do is no standstill. A worker that is needed but could not be
    // started, or whose namespace is missing, is: the service manager then starts the daemon anew.
    const bool is_content = !is_any_worker_needed();
    while (true) {
        sleep_ms(4000);
        if (is_content) {
            report_progress();
        }
    }
}
