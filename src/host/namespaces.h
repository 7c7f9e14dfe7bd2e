#pragma once

#include <string>

namespace host {

/// Moves the calling thread, and so the threads that it starts, into the network namespace behind
/// the file. Logs nothing.
enum class NamespaceEntry { entered, not_opened, refused };
NamespaceEntry enter_namespace(const std::string& path);

}  // namespace host
