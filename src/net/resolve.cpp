#include "net/resolve.h"

#include <netdb.h>

#include <cstring>
#include <memory>

namespace {

struct FreeAddrinfo {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

}  // namespace

int resolve_host(const std::string& host, int family, sockaddr_storage& first) {
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int status = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (status != 0) {
        return status;
    }
    const std::unique_ptr<addrinfo, FreeAddrinfo> owner(list);
    first = {};
    std::memcpy(&first, list->ai_addr, list->ai_addrlen);
    return 0;
}
