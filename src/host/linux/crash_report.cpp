#include "host/crash_report.h"

#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <string_view>

#include "base/fd.h"

// What runs after the crash (everything between `Line` and `report_and_die`) makes system calls and
// writes to memory set aside here, nothing else: the heap, stdio and the C library's log may be in
// the very state that caused the crash. The one exception is glibc's backtrace(3), whose library is
// loaded beforehand for that reason.

namespace {

constexpr std::array crash_signals{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int deepest_stack = 64;
constexpr std::size_t longest_line = 960;  // of the stack; the rest of a name is left out
constexpr int patience_ms = 1000;          // with a stream or a log that takes nothing
constexpr int other_reporter_ms = 5000;    // for which a second crash waits

// Set by the main thread before any other thread runs; only read afterwards.
std::array<char, 64> program_name{"lb"};
int console = -1;
int log_socket = -1;
int symbols_in = -1;  // a pipe: glibc prints the stack into it, the report reads it back
int symbols_out = -1;
alignas(16) std::array<std::byte, 65536> alternate_stack;

std::atomic<pid_t> reporter{0};      // the thread that writes the report
std::array<char, 32768> stack_text;  // the reporter's

/// Text in a fixed buffer; what does not fit is left out.
class Line {
  public:
    Line& add(std::string_view text) {
        for (const char letter : text) {
            if (length_ < text_.size()) {
                text_[length_++] = letter;
            }
        }
        return *this;
    }

    Line& add(unsigned number) {
        std::array<char, 10> digits{};
        std::size_t first = digits.size();
        do {
            digits[--first] = static_cast<char>('0' + number % 10);
            number /= 10;
        } while (number != 0);
        return add({digits.data() + first, digits.size() - first});
    }

    std::string_view text() const { return {text_.data(), length_}; }

  private:
    std::array<char, longest_line + 64> text_{};
    std::size_t length_ = 0;
};

std::string_view name_of(int signal) {
    switch (signal) {
        case SIGSEGV:
            return "SIGSEGV";
        case SIGBUS:
            return "SIGBUS";
        case SIGFPE:
            return "SIGFPE";
        case SIGILL:
            return "SIGILL";
        case SIGABRT:
            return "SIGABRT";
        default:
            return "unknown signal";
    }
}

/// A stream that is given up at its first failure, so that none can hold up the process's end.
class Stream {
  public:
    explicit Stream(int number) : number_(number) {}

    void write_line(std::string_view line) {
        Line whole;
        std::string_view left = whole.add(line).add("\n").text();
        while (number_ >= 0 && !left.empty()) {
            pollfd writable{number_, POLLOUT, 0};
            const ssize_t written = poll(&writable, 1, patience_ms) == 1
                                        ? write(number_, left.data(), left.size())
                                        : -1;
            if (written < 0) {
                number_ = -1;
                return;
            }
            left.remove_prefix(static_cast<std::size_t>(written));
        }
    }

  private:
    int number_;
};

/// The system log by its socket: one datagram a line, facility daemon, severity alert, dated by the
/// log itself. Given up at its first failure too.
class SystemLog {
  public:
    void write_line(std::string_view line) {
        constexpr sockaddr_un address{AF_UNIX, "/dev/log"};
        Line message;
        message.add("<25>wan_lb[").add(static_cast<unsigned>(getpid())).add("]: ").add(line);
        const std::string_view text = message.text();
        if (number_ >= 0 &&
            sendto(number_, text.data(), text.size(), MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
            number_ = -1;
        }
    }

  private:
    int number_ = log_socket;
};

Line headline(int signal) {
    std::array<char, 17> thread_name{};
    prctl(PR_GET_NAME, thread_name.data());
    Line line;
    line.add(program_name.data()).add(": died of ").add(name_of(signal));
    line.add(" in thread ").add(static_cast<unsigned>(gettid()));
    line.add(" (").add(thread_name.data()).add("), stack:");
    return line;
}

/// The symbolised stack of the calling thread, a line for each frame.
std::string_view stack_of_this_thread() {
    std::array<void*, deepest_stack> frames;
    const int depth = backtrace(frames.data(), static_cast<int>(frames.size()));
    backtrace_symbols_fd(frames.data(), depth, symbols_in);
    const ssize_t length = read(symbols_out, stack_text.data(), stack_text.size());
    return {stack_text.data(), length > 0 ? static_cast<std::size_t>(length) : 0U};
}

void write_report(int signal) {
    Stream standard_error(STDERR_FILENO);
    Stream console_stream(console);
    SystemLog system_log;
    const auto to_all = [&](std::string_view line) {
        standard_error.write_line(line);
        console_stream.write_line(line);
        system_log.write_line(line);
    };
    to_all(headline(signal).text());  // first, should the walk along a broken stack crash as well
    std::string_view stack = stack_of_this_thread();
    while (!stack.empty()) {
        const std::size_t end = stack.find('\n');
        to_all(stack.substr(0, std::min(end, longest_line)));
        stack.remove_prefix(end == std::string_view::npos ? stack.size() : end + 1);
    }
}

/// The report belongs to the first thread that crashes. Another one waits for the end that the
/// first will bring, but not for ever: the first could need a lock of the loader that it holds.
void leave_it_to_the_reporter() {
    constexpr int step_ms = 50;
    for (int waited_ms = 0; waited_ms < other_reporter_ms; waited_ms += step_ms) {
        poll(nullptr, 0, step_ms);
    }
}

/// The handlers stay in force until the report is out (SA_RESETHAND would let a second thread's
/// crash end the process in the middle of it). The signal raised here is delivered with its default
/// action when the handler returns.
void report_and_die(int signal) {
    pid_t first = 0;
    if (reporter.compare_exchange_strong(first, gettid())) {
        write_report(signal);
    } else if (first != gettid()) {
        leave_it_to_the_reporter();
    }
    struct sigaction by_default {};
    by_default.sa_handler = SIG_DFL;
    sigaction(signal, &by_default, nullptr);
    raise(signal);
}

/// Moves a descriptor out of the range that is closed on the way to the background.
int above_standard_streams(const Fd& descriptor) {
    return descriptor.is_open() ? fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : -1;
}

/// Descriptors are opened while there are some to be had: they may be what ran out.
void open_report_descriptors() {
    const Fd log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const timeval patience{patience_ms / 1000, patience_ms % 1000 * 1000L};
    setsockopt(log.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    log_socket = above_standard_streams(log);
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) == 0) {
        symbols_out = above_standard_streams(Fd(ends[0]));
        symbols_in = above_standard_streams(Fd(ends[1]));
    }
}

}  // namespace

void backtrace_set_program_name(const char* name) {
    const std::string_view text(name != nullptr ? name : "");
    program_name.fill('\0');
    text.copy(program_name.data(), program_name.size() - 1);
}

void backtrace_open_console() {
    console = above_standard_streams(
        Fd(open("/dev/console", O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)));
}

void backtrace_install_signal_handlers() {
    std::array<void*, 1> frame;
    backtrace(frame.data(), static_cast<int>(frame.size()));  // loads the unwinder
    open_report_descriptors();

    stack_t stack{};
    stack.ss_sp = alternate_stack.data();
    stack.ss_size = alternate_stack.size();
    sigaltstack(&stack, nullptr);

    struct sigaction action {};
    action.sa_handler = report_and_die;
    action.sa_flags = SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGPIPE);  // a closed stream must not become the cause of death
    for (const int signal : crash_signals) {
        sigaddset(&action.sa_mask, signal);
    }
    for (const int signal : crash_signals) {
        sigaction(signal, &action, nullptr);
    }
}
