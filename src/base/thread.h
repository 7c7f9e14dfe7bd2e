#pragma once

#include <optional>

/// Threads that run for the life of the process. A body takes and gives a pointer, as pthreads(7)
/// has it.
using ThreadBody = void* (*)(void*);

/// How the start of a detached thread went.
enum class DetachedStart { started, not_created, not_detached };

/// Starts a thread that nobody joins. Only after `not_created` does `argument` stay the caller's.
DetachedStart start_detached(ThreadBody body, void* argument);

/// A thread that its starter joins.
class JoinedThread {
  public:
    /// Nothing where it could not be created.
    static std::optional<JoinedThread> start(ThreadBody body, void* argument);
    void join() const;

  private:
    unsigned long number_ = 0;
};
