// What becomes of an echo that the check sends, on a link of the test's own whose far end the test
// plays. Skipped without the right to have one.

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>

#include "base/address_text.h"
#include "host/neighbours.h"
#include "lbcheck/live_echo.h"
#include "unit/support/faults.h"
#include "unit/support/own_network.h"
#include "wire/checksum.h"
#include "wire/frames.h"

namespace {

using lbcheck::Echo;
using lbcheck::EchoRequest;

constexpr MacAddress hop_mac{2, 0, 0, 0, 2, 1};

/// The next hop 192.0.2.1 of a link, and every target behind it.
class FarEnd {
  public:
    explicit FarEnd(const TestLink& link, bool answers_echoes = true)
        : device_(link.far_end()), answers_echoes_(answers_echoes), thread_([this] { play(); }) {}
    ~FarEnd() {
        is_over_ = true;
        thread_.join();
    }
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;

    int echoes() const { return echoes_; }

  private:
    void play() {
        while (!is_over_) {
            pollfd waiting{.fd = device_, .events = POLLIN, .revents = 0};
            poll(&waiting, 1, 10);
            std::array<std::uint8_t, 2048> frame{};
            const ssize_t size = read(device_, frame.data(), frame.size());
            if (size > 0) {
                take(std::span(frame).first(static_cast<std::size_t>(size)));
            }
        }
    }
    void take(std::span<const std::uint8_t> frame) {
        const auto ethernet = read_at<EthernetHeader>(frame, 0);
        if (ethernet.ethertype == ethertype_arp && frame.size() >= sizeof(ArpFrame)) {
            auto arp = read_at<ArpFrame>(frame, 0);
            if (to_text(arp.target_address) == "192.0.2.1" && arp.operation == arp_request) {
                std::swap(arp.sender_address, arp.target_address);
                arp.target_mac = arp.sender_mac;
                arp.sender_mac = hop_mac;
                arp.operation = arp_reply;
                arp.ethernet.destination = arp.target_mac;
                arp.ethernet.source = hop_mac;
                put(arp);
            }
        } else if (ethernet.destination == hop_mac && ethernet.ethertype == ethertype_ipv4 &&
                   frame.size() == sizeof(EchoFrame4)) {
            ++echoes_;
            auto echo = read_at<EchoFrame4>(frame, 0);
            std::swap(echo.ip.source, echo.ip.destination);
            std::swap(echo.ethernet.source, echo.ethernet.destination);
            echo.icmp.type = icmp_echo_reply;
            echo.icmp.checksum = 0;
            echo.icmp.checksum = internet_checksum(bytes_of(echo.icmp));
            if (answers_echoes_) {
                put(echo);
            }
        }
    }
    template <class Frame>
    void put(const Frame& frame) const {
        const auto bytes = bytes_of(frame);
        EXPECT_EQ(write(device_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    int device_;
    bool answers_echoes_;
    std::atomic<bool> is_over_ = false;
    std::atomic<int> echoes_ = 0;
    std::thread thread_;
};

void put_setting(const std::string& path, int value) {
    std::ofstream("/proc/sys/" + path) << value << std::endl;
}

class LbcheckEcho : public testing::Test {
  protected:
    static void in_network_with_wan1(const std::function<void(const TestLink&)>& body) {
        const bool is_possible = in_own_network([&body] {
            const TestLink link("wan1", "192.0.2.10", TestLink::Kind::ethernet);
            put_setting("net/ipv4/conf/all/rp_filter", 0);
            put_setting("net/ipv4/conf/wan1/rp_filter", 0);
            body(link);
        });
        if (!is_possible) {
            GTEST_SKIP() << "needs the right to make a network namespace with links";
        }
    }
    static std::vector<Echo> send(const std::vector<EchoRequest>& requests) {
        std::string problem;
        // The daemon's code keeps sockets by the name of a namespace for as long as the process.
        const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        auto echoes = lbcheck::send_echoes(name, false, requests, problem);
        EXPECT_EQ(problem, "");
        EXPECT_EQ(echoes.size(), requests.size());
        echoes.resize(requests.size());
        return echoes;
    }
    static EchoRequest request(const std::string& target, const std::string& next_hop) {
        return {.interface = "wan1", .target = target, .source_address = "", .next_hop = next_hop};
    }
};

TEST_F(LbcheckEcho, is_answered_by_its_uplink) {
    in_network_with_wan1([](const TestLink& link) {
        const FarEnd far_end(link);
        const auto echoes =
            send({request("203.0.113.1", "192.0.2.1"), request("192.0.2.1", "192.0.2.1")});
        EXPECT_EQ(echoes[0].end, Echo::End::answered);
        EXPECT_EQ(echoes[0].target, "203.0.113.1");
        EXPECT_EQ(echoes[1].end, Echo::End::answered);
        EXPECT_EQ(echoes[1].target, "192.0.2.1");
        EXPECT_EQ(echoes[0].reverse_path_drops, 0);
        EXPECT_EQ(far_end.echoes(), 2) << "an answered one is not sent again";
    });
}

TEST_F(LbcheckEcho, that_the_reverse_path_check_drops_came_in_and_was_not_delivered) {
    in_network_with_wan1([](const TestLink& link) {
        // No route leads back to the target.
        put_setting("net/ipv4/conf/wan1/rp_filter", 1);
        const FarEnd far_end(link);
        const auto echoes = send({request("203.0.113.1", "192.0.2.1")});
        EXPECT_EQ(echoes[0].end, Echo::End::not_delivered);
        EXPECT_GT(echoes[0].reverse_path_drops, 0);
    });
}

TEST_F(LbcheckEcho, without_an_answer_is_sent_twice) {
    in_network_with_wan1([](const TestLink& link) {
        const FarEnd far_end(link, false);
        const auto echoes = send({request("203.0.113.1", "192.0.2.1")});
        EXPECT_EQ(echoes[0].end, Echo::End::unanswered);
        EXPECT_EQ(far_end.echoes(), 2);
    });
}

TEST_F(LbcheckEcho, whose_next_hop_nobody_has_is_not_sent) {
    in_network_with_wan1([](const TestLink& link) {
        const FarEnd far_end(link);
        const auto echoes = send({request("203.0.113.1", "192.0.2.77")});
        EXPECT_EQ(echoes[0].end, Echo::End::not_sent);
        EXPECT_NE(echoes[0].reason, "");
        EXPECT_EQ(far_end.echoes(), 0);
    });
}

TEST_F(LbcheckEcho, that_the_kernel_refuses_is_not_sent_and_its_error_told) {
    in_network_with_wan1([](const TestLink& link) {
        const FarEnd far_end(link);
        // With a next hop that the kernel knows, nobody is asked for it.
        EXPECT_EQ(host::write_arp_entry({192, 0, 2, 1}, hop_mac, "wan1"),
                  host::ArpWritten::written);
        const faults::FailCall refused(faults::Call::sendto, EPERM);
        const auto echoes = send({request("203.0.113.1", "192.0.2.1")});
        EXPECT_EQ(echoes[0].end, Echo::End::not_sent);
        EXPECT_EQ(echoes[0].reason, "Operation not permitted");
        EXPECT_EQ(far_end.echoes(), 0);
    });
}

TEST_F(LbcheckEcho, without_a_socket_to_watch_by_is_not_sent_and_the_reason_told) {
    in_network_with_wan1([](const TestLink& /*link*/) {
        const faults::FailCall refused(faults::Call::bind, ENOMEM);
        std::string problem;
        EXPECT_TRUE(lbcheck::send_echoes("no witness", false, {request("203.0.113.1", "192.0.2.1")},
                                         problem)
                        .empty());
        EXPECT_EQ(problem, "no socket for it: Cannot allocate memory");
    });
}

}  // namespace
