#pragma once

/// How the start of a detached thread went.
enum class DetachedStart { started, not_created, not_detached };

/// Starts a thread that nobody joins. Only after `not_created` does `argument` stay the caller's.
DetachedStart start_detached(void* (*body)(void*), void* argument);
