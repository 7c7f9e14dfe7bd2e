#pragma once

#include <string>

#include "lbroute/kernel_state.h"

/// Steps as the ip(8) commands that do the same; without a system call.
namespace lbroute {

/// `kernel` names the links. A namespace that is not the default one is named in the command.
std::string command_of(const Step& step, const KernelState& kernel,
                       const std::string& namespace_name);

/// The command that takes a route of others away.
std::string removal_command(const KernelRoute& foreign, const KernelState& kernel,
                            const std::string& namespace_name);

/// The commands that take everything of our own away, in one line for a shell; empty for nothing.
std::string flush_commands(const KernelState& own, const std::string& namespace_name);

/// A routing protocol by the name that ip(8) has for it, else its number.
std::string protocol_name(int protocol);

/// "via GATEWAY dev LINK", with a weight where there are several.
std::string text_of(const PathHop& hop, const KernelState& kernel, bool is_one_of_several);

}  // namespace lbroute
