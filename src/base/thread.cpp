#include "base/thread.h"

#include <pthread.h>

#include <type_traits>

static_assert(std::is_same_v<pthread_t, unsigned long>);

DetachedStart start_detached(ThreadBody body, void* argument) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, body, argument) != 0) {
        return DetachedStart::not_created;
    }
    return pthread_detach(thread) == 0 ? DetachedStart::started : DetachedStart::not_detached;
}

std::optional<JoinedThread> JoinedThread::start(ThreadBody body, void* argument) {
    JoinedThread thread;
    if (pthread_create(&thread.number_, nullptr, body, argument) != 0) {
        return std::nullopt;
    }
    return thread;
}

void JoinedThread::join() const {
    pthread_join(number_, nullptr);
}
