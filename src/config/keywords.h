#pragma once

#include <span>
#include <string>
#include <string_view>

/// The keywords of the configuration, for the loader and for the tools that judge a configuration.
/// Pure.

/// Where a keyword stands in the block tree.
enum class KeywordPlace {
    top,               ///< outermost
    health,            ///< health { }
    health_interface,  ///< health { interface NAME { } }
    health_probe,      ///< health { interface NAME { rule N { type WORD { } } } }
    rule,              ///< rule NAME { }
    rule_interface,    ///< rule NAME { interface NAME { } }
    rule_target,       ///< rule NAME { target { } }
};

enum class KeywordValue { none, word, number };

struct Keyword {
    std::string_view name;
    KeywordPlace place;
    KeywordValue value;
    bool is_extended_only = false;  ///< acts on a probe of the type "ping_ext" only
};

/// Every keyword that the loader acts on, in the order of the block tree.
std::span<const Keyword> all_keywords();

/// "interface" or "interface6".
bool is_interface_keyword(std::string_view key);

/// A number as the loader reads it: decimal digits up to the first other character, taken as a
/// signed 32-bit number; "12x" reads 12 and letters alone read 0 (B31).
int configured_number(const std::string& value);
