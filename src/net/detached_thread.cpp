#include "net/detached_thread.h"

#include <pthread.h>

DetachedStart start_detached(void* (*body)(void*), void* argument) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, body, argument) != 0) {
        return DetachedStart::not_created;
    }
    return pthread_detach(thread) == 0 ? DetachedStart::started : DetachedStart::not_detached;
}
