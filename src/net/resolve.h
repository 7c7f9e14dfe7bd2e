#pragma once

#include <sys/socket.h>

#include <string>

/// The first address of a host name or of an address in text, in the family AF_INET or AF_INET6, as
/// getaddrinfo(3) gives it. May ask name servers and so block. Returns 0, or the resolver's error
/// for gai_strerror(3).
int resolve_host(const std::string& host, int family, sockaddr_storage& first);
