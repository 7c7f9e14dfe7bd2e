// Connections to the watcher, over the loopback interface.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include "base/fd.h"
#include "lbwatch/json.h"
#include "lbwatch/listener.h"
#include "unit/support/faults.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;
using namespace std::chrono_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/// Its own for each process, so that tests can run side by side.
std::string own_address() {
    const int pid = getpid();
    return "127." + std::to_string(1 + pid / 250 / 250 % 250) + "." +
           std::to_string(pid / 250 % 250) + "." + std::to_string(1 + pid % 250);
}
constexpr std::uint16_t port = 9837;

class Client {
  public:
    Client() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval patience{.tv_sec = 20, .tv_usec = 0};
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        inet_pton(AF_INET, own_address().c_str(), &address.sin_addr);
        EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    void say(const std::string& text) const {
        EXPECT_EQ(send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    void say_no_more() const { shutdown(socket_.get(), SHUT_WR); }
    /// What comes up to and with these words, or up to the end of the connection.
    std::string hear(const std::string& until = "\x01") {
        while (heard_.find(until) == std::string::npos) {
            std::array<char, 4096> buffer{};
            const ssize_t got = recv(socket_.get(), buffer.data(), buffer.size(), 0);
            EXPECT_FALSE(got < 0 && errno == EAGAIN) << "nothing came; until then:\n" << heard_;
            if (got <= 0) {
                return std::exchange(heard_, "");
            }
            heard_.append(buffer.data(), static_cast<std::size_t>(got));
        }
        const std::size_t end = heard_.find(until) + until.size();
        const std::string text = heard_.substr(0, end);
        heard_.erase(0, end);
        return text;
    }

  private:
    Fd socket_;
    std::string heard_;
};

constexpr const char* ask_state = "GET /api/state HTTP/1.1\r\n\r\n";
constexpr const char* ask_stream = "GET /events HTTP/1.1\r\n\r\n";

class LbwatchListener : public testing::Test {
  protected:
    static Event event(const std::string& name) {
        Event made;
        made.uplink = key(name);
        made.from = "active";
        made.to = "failed";
        return made;
    }

    Board board;
    Listener listener{own_address() + ":" + std::to_string(port), board, "1.2"};
};

TEST_F(LbwatchListener, answers_one_request_and_closes) {
    ASSERT_EQ(listener.problem(), "");
    Client client;
    client.say(std::string(ask_state) + ask_state);
    const std::string answer = client.hear();
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(answer, EndsWith("}\n"));
    EXPECT_EQ(answer.rfind("HTTP/1.1"), 0U) << "one answer";
}

TEST_F(LbwatchListener, waits_for_the_whole_of_a_request) {
    Client slow;
    slow.say("GET /api/state HTTP/1.1\r\n");
    Client quick;
    quick.say(ask_state);
    EXPECT_THAT(quick.hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
    slow.say("\r\n");
    EXPECT_THAT(slow.hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(LbwatchListener, answers_who_has_said_all_while_others_come_and_go) {
    { const Client gone; }
    Client client;
    client.say(ask_state);
    client.say_no_more();
    EXPECT_THAT(client.hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
    Client silent;
    silent.say_no_more();
    EXPECT_EQ(silent.hear(), "");
}

TEST_F(LbwatchListener, refuses_a_request_beyond_eight_kilobytes) {
    const std::string begin = "GET /api/state HTTP/1.1\r\nX: ";
    Client long_one;
    long_one.say(begin + std::string(8192 - begin.size() - 4, 'x') + "\r\n\r\n");
    EXPECT_THAT(long_one.hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
    Client longer;
    longer.say(begin + std::string(8193 - begin.size(), 'x'));
    EXPECT_THAT(longer.hear(), StartsWith("HTTP/1.1 431 Request Header Fields Too Large\r\n"));
}

TEST_F(LbwatchListener, stream_has_each_event_from_now_on_with_its_number) {
    board.add(event("before"));
    Client client;
    client.say(ask_stream);
    const std::string head = client.hear("retry: 3000\n\n");
    EXPECT_THAT(head, StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n"));
    board.add(event("eth0"));
    EXPECT_EQ(client.hear("\n\n"),
              "id: 2\nevent: change\ndata: " + json_of(event("eth0")) + "\n\n");
    board.add(event("eth1"));
    EXPECT_THAT(client.hear("\n\n"), StartsWith("id: 3\n"));
}

TEST_F(LbwatchListener, stream_goes_on_behind_the_last_number_that_was_seen) {
    board.add(event("eth0"));
    board.add(event("eth1"));
    Client client;
    client.say("GET /events HTTP/1.1\r\nLast-Event-ID: 1\r\n\r\n");
    client.hear("retry: 3000\n\n");
    EXPECT_THAT(client.hear("\n\n"), StartsWith("id: 2\n"));
    // A number that was never given is another run's.
    Client other;
    other.say("GET /events HTTP/1.1\r\nLast-Event-ID: 77\r\n\r\n");
    other.hear("retry: 3000\n\n");
    board.add(event("eth2"));
    EXPECT_THAT(other.hear("\n\n"), StartsWith("id: 3\n"));
}

TEST_F(LbwatchListener, has_twenty_four_streams_at_most) {
    std::vector<std::unique_ptr<Client>> streams;
    for (int i = 0; i < 24; ++i) {
        streams.push_back(std::make_unique<Client>());
        streams.back()->say(ask_stream);
        EXPECT_THAT(streams.back()->hear("retry: 3000\n\n"), StartsWith("HTTP/1.1 200 OK\r\n"));
    }
    Client one_more;
    one_more.say(ask_stream);
    EXPECT_THAT(one_more.hear(),
                StartsWith("HTTP/1.1 503 Service Unavailable\r\nRetry-After: 5\r\n"));
    Client other;
    other.say(ask_state);
    EXPECT_THAT(other.hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(LbwatchListener, of_too_many_connections_the_oldest_that_is_no_stream_goes) {
    Client stream;
    stream.say(ask_stream);
    stream.hear("retry: 3000\n\n");
    std::vector<std::unique_ptr<Client>> idle;
    for (int i = 0; i < 63; ++i) {
        idle.push_back(std::make_unique<Client>());
    }
    Client one_more;
    one_more.say(ask_state);
    EXPECT_THAT(one_more.hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(idle[0]->hear(), "");
    idle[1]->say(ask_state);
    EXPECT_THAT(idle[1]->hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
    board.add(event("eth0"));
    EXPECT_THAT(stream.hear("\n\n"), StartsWith("id: 1\n"));
}

TEST_F(LbwatchListener, rests_while_no_descriptor_is_left_and_then_goes_on) {
    std::optional<faults::FailCall> none_left(std::in_place, faults::Call::accept4, EMFILE);
    Client first;
    first.say(ask_state);
    Client second;
    second.say(ask_state);
    // Each try is a second behind the one before.
    const auto begin = std::chrono::steady_clock::now();
    while (none_left->calls() < 3) {
        ASSERT_LT(std::chrono::steady_clock::now() - begin, 20s);
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1900ms);
    none_left.reset();
    EXPECT_THAT(first.hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(second.hear(), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(LbwatchListener, address_in_use_is_told) {
    const std::string address = own_address() + ":" + std::to_string(port);
    EXPECT_EQ(Listener(address, board, "1.2").problem(),
              "cannot listen on " + address + ": Address already in use");
}

TEST(LbwatchListenAddress, is_an_address_and_a_port_in_numbers) {
    const Board board;
    for (const std::string text : {"", ":", "127.0.0.1", "127.0.0.1:", ":9837", "localhost:9837",
                                   "127.0.0.1:http", "::1:9837", "[::1]", "[]:9837", "[::1:9837"}) {
        EXPECT_EQ(Listener(text, board, "1.2").problem(),
                  "'" + text +
                      "' is no address to listen on; write for example 127.0.0.1:9837 or "
                      "[::1]:9837");
    }
    EXPECT_EQ(Listener(own_address() + ":0", board, "1.2").problem(), "");
}

}  // namespace
