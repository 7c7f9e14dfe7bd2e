#pragma once

#include <cstdint>

#include "probe/ping_run.h"
#include "probe/reply_mailbox.h"

/// How the wait for one echo of an extended ping ended.
struct EchoAnswer {
    bool is_in_time = false;
    std::int64_t remaining_us = 0;  ///< of the wait, when the answer came
};

/// Waits for the answer to one echo on the namespace's reply socket and on the mailbox, into which
/// the receiver thread puts the answer when it reads it first. What the socket holds for others is
/// passed on to them. Holds no lock while waiting.
EchoAnswer await_echo(int reply_socket, const ExpectedEcho& echo, const ReplyMailbox& mailbox,
                      const EchoWait& wait);

/// Empties the reply socket before a run and passes on what it holds: where no receiver thread
/// reads it, what came since the last run would leave no room for the first answer.
void pass_on_waiting_replies(int reply_socket);
