#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// The kernel's tables while it lives, as far as the daemon asks them by netlink and by ioctl(2):
/// takes the requests in and gives the test's answers. The netlink sockets are real and are never
/// written to. One at a time, for one thread.
class GivenKernel {
  public:
    using Bytes = std::vector<std::uint8_t>;

    GivenKernel();
    ~GivenKernel();
    GivenKernel(const GivenKernel&) = delete;
    GivenKernel& operator=(const GivenKernel&) = delete;

    /// What was asked, oldest first: what one call of a sending function took.
    std::vector<Bytes> requests;
    /// What is read next, a message each; without one reading fails with ENODATA.
    std::deque<Bytes> answers;
    /// Called behind each request, to answer it.
    std::function<void(const Bytes& request)> on_request = [](const Bytes&) {};
    /// Answers ioctl(2): 0, or the error.
    std::function<int(unsigned long request, void* argument)> on_ioctl = [](unsigned long, void*) {
        return 0;
    };

  private:
    struct Calls;  ///< the functions that stand in for the real ones
};

/// A netlink message (netlink(7)) taken apart.
struct NetlinkRequest {
    std::uint16_t type = 0;
    std::uint16_t flags = 0;
    std::uint32_t sequence = 0;
    GivenKernel::Bytes family_header;
    /// What stands in the attributes in hexadecimal, by their types: "1.2.3" is type 3 in type 2 in
    /// type 1.
    std::map<std::string, std::string> attributes;
};
/// The messages of one request, whose family's header has that size.
std::vector<NetlinkRequest> messages_of(const GivenKernel::Bytes& request, std::size_t header_size);

/// A netlink message; `body` is what stands behind its header.
GivenKernel::Bytes netlink_message(std::uint16_t type, std::uint32_t sequence,
                                   const GivenKernel::Bytes& body);
/// The kernel's answer to the request of that number: an acknowledgement where `error` is 0, else
/// as in errno(3).
GivenKernel::Bytes netlink_answer(std::uint32_t sequence, int error);
