#include "core/process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "base/fd.h"
#include "host/log.h"

// B6: the file is overwritten, whoever's it is, and never removed.
int pid_output(const char* path) {
    constexpr mode_t owner_writes_all_read = 0133;
    const mode_t mask_before = umask(owner_writes_all_read);
    // The stream that fopen(3) gives, but for a pipe in the file's place, which is not waited for.
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    Fd opened(open(path, flags, 0666));
    umask(mask_before);
    FILE* const file = opened.is_open() ? fdopen(opened.get(), "w") : nullptr;
    if (file == nullptr) {
        LOG_ERROR("Can't fopen pid lock file %s, continuing", path);
        return -1;
    }
    opened.release();
    const int pid = getpid();
    fprintf(file, "%d\n", pid);
    fclose(file);
    return pid;
}

namespace {

constexpr int stream_count = 3;

bool is_open(int number) {
    return fcntl(number, F_GETFD) != -1;
}

}  // namespace

void hold_standard_streams() {
    for (int stream = 0; stream < stream_count; ++stream) {
        // The lowest free number is the one that is missing.
        if (!is_open(stream) && open("/dev/null", O_RDWR) < 0) {
            return;
        }
    }
}

void leave_standard_streams() {
    for (int stream = 0; stream < stream_count; ++stream) {
        close(stream);
    }
    hold_standard_streams();
}
