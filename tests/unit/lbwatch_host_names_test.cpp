// Which names a browser or a scraper may call the watcher by.

#include <gtest/gtest.h>

#include "lbwatch/host_names.h"

namespace {

using lbwatch::HostNames;

std::string head(const std::string& host) {
    return "GET /api/state HTTP/1.1\r\nAccept: */*\r\nHost: " + host + "\r\n\r\n";
}

TEST(LbwatchHostNames, addresses_and_localhost_are_accepted) {
    const HostNames names("router1", {});
    for (const char* const host :
         {"127.0.0.1", "192.0.2.1:9837", "[::1]", "[2001:db8::1]:9837", "[fe80::1%25eth0]:9837",
          "localhost", "LocalHost:9837", "localhost.", "", "  127.0.0.1 \t"}) {
        EXPECT_TRUE(names.accept(head(host))) << host;
    }
}

TEST(LbwatchHostNames, name_of_a_web_site_is_refused) {
    const HostNames names("router1", {});
    for (const char* const host :
         {"evil.example", "evil.example:9837", "router1x", "xrouter1", "evil.router1",
          "localhost.evil.example", "127.0.0.1.evil.example", "[::1].evil.example", "[evil]",
          "2001:db8::1.evil", "evil@127.0.0.1"}) {
        EXPECT_FALSE(names.accept(head(host))) << host;
    }
}

TEST(LbwatchHostNames, own_name_is_accepted_with_any_domain_and_without) {
    for (const char* const own : {"router1", "Router1.example.org"}) {
        const HostNames names(own, {});
        EXPECT_TRUE(names.accept(head("router1:9837")));
        EXPECT_TRUE(names.accept(head("ROUTER1.example.org:9837")));
        EXPECT_TRUE(names.accept(head("router1.other.example.")));
    }
}

TEST(LbwatchHostNames, machine_without_a_name_lends_it_to_nobody) {
    for (const char* const own : {"", "localhost", "localhost.localdomain"}) {
        const HostNames names(own, {});
        EXPECT_FALSE(names.accept(head("localhost.evil.example"))) << own;
        EXPECT_FALSE(names.accept(head(".evil.example"))) << own;
        EXPECT_TRUE(names.accept(head("localhost"))) << own;
    }
}

TEST(LbwatchHostNames, given_names_are_accepted_as_they_are) {
    const HostNames names("router1", {"Uplinks.example.org", "monitor:8080"});
    EXPECT_TRUE(names.accept(head("uplinks.EXAMPLE.org:9837")));
    EXPECT_TRUE(names.accept(head("monitor")));
    EXPECT_FALSE(names.accept(head("a.uplinks.example.org")));
}

TEST(LbwatchHostNames, head_without_a_host_is_accepted_and_of_several_each_must_be) {
    const HostNames names("router1", {});
    EXPECT_TRUE(names.accept("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_TRUE(names.accept("GET / HTTP/1.1\r\nX-Host: evil.example\r\n\r\n"));
    EXPECT_TRUE(names.accept("GET /?Host: evil.example HTTP/1.1"));
    EXPECT_FALSE(names.accept("GET / HTTP/1.1\r\nhost:router1\r\nHOST:evil.example\r\n\r\n"));
}

}  // namespace
