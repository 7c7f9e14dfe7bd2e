#include "base/namespace_table.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

TEST(NamespaceTable, unknown_namespace_has_the_default_value) {
    const NamespaceTable<int> table;
    EXPECT_EQ(table.get("blue"), 0);
}

TEST(NamespaceTable, keeps_a_value_for_each_namespace) {
    NamespaceTable<std::string> table;
    table.set("", "default");
    table.set("blue", "sky");
    EXPECT_EQ(table.get(""), "default");
    EXPECT_EQ(table.get("blue"), "sky");
}

TEST(NamespaceTable, exchange_returns_the_value_before) {
    NamespaceTable<int> table;
    table.set("blue", 4);
    EXPECT_EQ(table.exchange("blue", 5), 4);
    EXPECT_EQ(table.get("blue"), 5);
}

TEST(NamespaceTable, first_exchange_returns_the_default_value) {
    NamespaceTable<bool> table;
    EXPECT_FALSE(table.exchange("blue", true));
}

TEST(NamespaceTable, only_one_of_two_threads_is_the_first) {
    constexpr int rounds = 200;
    NamespaceTable<bool> started;
    int firsts[2] = {0, 0};
    const auto start_all = [&](int& first) {
        for (int i = 0; i < rounds; ++i) {
            first += started.exchange(std::to_string(i), true) ? 0 : 1;
        }
    };
    std::thread other(start_all, std::ref(firsts[0]));
    start_all(firsts[1]);
    other.join();
    EXPECT_EQ(firsts[0] + firsts[1], rounds);
}

}  // namespace
