#pragma once

#include <set>
#include <string>

/// Every namespace name met in the configuration, and the empty name of the default namespace once
/// the configuration is loaded. Filled by the main thread, complete before any other thread starts.
inline std::set<std::string> namespaces;
