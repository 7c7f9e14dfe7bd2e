/// Preloaded into the daemon under test: adds an offset to its wall clock, which a test changes
/// while it runs. The machine's clock stays as it is, and the monotonic clock too.
///
/// LB_CLOCK_OFFSET names a file that holds the offset in seconds as a 64-bit number; it is mapped,
/// so a new value counts from the next look at the clock on. Functions: clock_gettime(2),
/// gettimeofday(2), time(2), asked of the kernel directly, for the sanitizers look at the clock
/// before a library's symbols can be searched.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

std::atomic<std::int64_t>* map_offset() {
    const char* path = getenv("LB_CLOCK_OFFSET");
    const int file = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return nullptr;
    }
    void* mapped = mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    return mapped == MAP_FAILED ? nullptr : static_cast<std::atomic<std::int64_t>*>(mapped);
}

std::atomic<std::atomic<std::int64_t>*> offset_s{nullptr};

__attribute__((constructor)) void find_offset() {
    offset_s = map_offset();
}

timespec look(clockid_t clock) {
    timespec now{};
    syscall(SYS_clock_gettime, clock, &now);
    const auto* offset = offset_s.load();
    if (offset != nullptr && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        now.tv_sec += offset->load();
    }
    return now;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    *now = look(clock);
    return 0;
}

int gettimeofday(timeval* __restrict now, void* __restrict /*zone*/) noexcept {
    const timespec wall = look(CLOCK_REALTIME);
    *now = {.tv_sec = wall.tv_sec, .tv_usec = wall.tv_nsec / 1000};
    return 0;
}

time_t time(time_t* now) noexcept {
    const time_t seconds = look(CLOCK_REALTIME).tv_sec;
    if (now != nullptr) {
        *now = seconds;
    }
    return seconds;
}
}
