#include "config/keywords.h"

#include <gtest/gtest.h>

#include "unit/support/loaded.h"

namespace {

TEST(Number, ends_at_the_first_other_character) {
    EXPECT_EQ(configured_number("12x"), 12);
    EXPECT_EQ(configured_number("x12"), 0);
    EXPECT_EQ(configured_number(""), 0);
}

TEST(Number, is_taken_from_the_low_32_bits) {
    EXPECT_EQ(configured_number("4294967295"), -1);
    EXPECT_EQ(configured_number("4294967297"), 1);
    EXPECT_EQ(configured_number("-5"), -5);
}

TEST(Keywords, of_a_probe_act_exactly_where_the_table_says) {
    for (const Keyword& keyword : all_keywords()) {
        if (keyword.place != KeywordPlace::health_probe || keyword.name == "type") {
            continue;
        }
        for (const char* type : {"ping", "ping_ext"}) {
            Loaded loaded("");
            LBDataFactory& factory = loaded.factory;
            factory.process_health("interface", "eth0", false);
            factory.process_health_interface_rule_type("type", type);
            const std::vector<std::string> blocks{"health", "interface", "", "rule", "type"};
            const bool acts = !keyword.is_extended_only || std::string("ping_ext") == type;
            EXPECT_EQ(factory.process(blocks, 4, std::string(keyword.name), "7"),
                      acts ? Handled::acted : Handled::ignored)
                << keyword.name << " of a probe of type " << type;
        }
    }
}

TEST(Keywords, unknown_one_is_ignored) {
    Loaded loaded("");
    EXPECT_EQ(loaded.factory.process({"health", "", "", "", ""}, 4, "burst", "7"),
              Handled::ignored);
    EXPECT_EQ(loaded.factory.process({"vpn", ""}, 1, "target", "7"), Handled::ignored);
}

}  // namespace
