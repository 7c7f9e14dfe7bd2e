#include "lbcheck/spelling.h"

#include <algorithm>
#include <cctype>
#include <numeric>

#include "config/keywords.h"

namespace lbcheck {

namespace {

std::string plain(std::string_view word) {
    std::string text(word);
    for (char& letter : text) {
        letter =
            letter == '_' ? '-' : static_cast<char>(tolower(static_cast<unsigned char>(letter)));
    }
    return text;
}

/// How many letters have to be put in, taken out or changed; neighbours that changed places count
/// once.
std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> before(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(last.begin(), last.end(), 0U);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t changed = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, changed});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
        before.swap(last);
        last.swap(row);
    }
    return last[b.size()];
}

constexpr const char* text_of(KeywordPlace place) {
    switch (place) {
        case KeywordPlace::top:
            return "no block";
        case KeywordPlace::health:
            return "health {";
        case KeywordPlace::health_interface:
            return "health { interface NAME {";
        case KeywordPlace::health_probe:
            return "health { interface NAME { rule NUMBER { type WORD {";
        case KeywordPlace::rule:
            return "rule NAME {";
        case KeywordPlace::rule_interface:
            return "rule NAME { interface NAME {";
        case KeywordPlace::rule_target:
            return "rule NAME { target {";
    }
    return "";
}

std::vector<std::string_view> keywords_at(KeywordPlace place) {
    std::vector<std::string_view> names;
    for (const Keyword& keyword : all_keywords()) {
        if (keyword.place == place) {
            names.push_back(keyword.name);
        }
    }
    return names;
}

}  // namespace

std::vector<std::string_view> keywords_inside(const std::vector<std::string>& blocks) {
    if (blocks.empty()) {
        return keywords_at(KeywordPlace::top);
    }
    const bool is_health = blocks[0] == "health";
    if (!is_health && blocks[0] != "rule") {
        return {};
    }
    if (blocks.size() == 1) {
        return keywords_at(is_health ? KeywordPlace::health : KeywordPlace::rule);
    }
    const bool is_interface = is_interface_keyword(blocks[1]);
    if (!is_health) {
        const bool is_inside = blocks.size() == 2 && (is_interface || blocks[1] == "target");
        return is_inside ? keywords_at(is_interface ? KeywordPlace::rule_interface
                                                    : KeywordPlace::rule_target)
                         : std::vector<std::string_view>{};
    }
    constexpr std::size_t deepest = 4;
    const bool is_known = is_interface && (blocks.size() < 3 || blocks[2] == "rule") &&
                          (blocks.size() < deepest || blocks[3] == "type") &&
                          blocks.size() <= deepest;
    if (!is_known) {
        return {};
    }
    if (blocks.size() == 2) {
        return keywords_at(KeywordPlace::health_interface);
    }
    if (blocks.size() == 3) {
        return {"type"};
    }
    auto names = keywords_at(KeywordPlace::health_probe);
    std::erase(names, "type");
    return names;
}

std::string_view nearest(std::string_view word, const std::vector<std::string_view>& keywords) {
    constexpr std::size_t longest_word = 24;
    constexpr std::size_t short_word = 5;
    if (word.size() > longest_word) {
        return {};
    }
    const std::string written = plain(word);
    const std::size_t allowed = word.size() <= short_word ? 1 : 2;
    std::string_view found;
    std::size_t least = allowed + 1;
    for (const std::string_view keyword : keywords) {
        const std::size_t differs = distance(written, plain(keyword));
        if (differs < least) {
            least = differs;
            found = keyword;
        } else if (differs == least) {
            found = {};
        }
    }
    return found;
}

std::string places_of(std::string_view keyword) {
    std::string text;
    for (const Keyword& one : all_keywords()) {
        if (one.name == keyword) {
            text += (text.empty() ? "" : " or ") + std::string(text_of(one.place));
        }
    }
    return text;
}

}  // namespace lbcheck
