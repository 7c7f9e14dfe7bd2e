#pragma once

#include <string>

struct context;

/// The router's name of a kernel interface, for example "gigabitethernet 1/0/3.100" for
/// gi1_3.100; empty when the name has none. A pure function; the context is not used. Names longer
/// than 31 characters are cut there (B130).
std::string linux_ifname_to_qel_ifname(const char* ifname, context* ctx);

/// The name as every operator message shows it: the router's name, or "unknown interface".
std::string shown_ifname(const std::string& ifname, context* ctx);
