#include "core/pid_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "platform/log.h"

int pid_output(const char* path) {
    constexpr mode_t owner_writes_all_read = 0133;
    const mode_t mask_before = umask(owner_writes_all_read);
    FILE* file = fopen(path, "we");
    umask(mask_before);
    if (file == nullptr) {
        LOG_ERROR("Can't fopen pid lock file %s, continuing", path);
        return -1;
    }
    const int pid = getpid();
    fprintf(file, "%d\n", pid);
    fclose(file);
    return pid;
}
