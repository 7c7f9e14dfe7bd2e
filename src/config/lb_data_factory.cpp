#include "config/lb_data_factory.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "config/probe_maker.h"
#include "config/str_proc.h"
#include "host/files.h"
#include "host/log.h"

namespace {

constexpr int stack_size = 32;
constexpr std::size_t line_buffer_size = 1024;  // B29: a longer line is read as several

/// The keywords that opened the enclosing blocks. Brackets can drive the depth outside the stack
/// within one line; a word there acts on nothing.
struct BlockStack {
    std::vector<std::string> keywords = std::vector<std::string>(stack_size);
    int depth = 0;

    bool is_inside() const { return depth >= 0 && depth < stack_size; }
    void set(const std::string& keyword) {
        if (is_inside()) {
            keywords[static_cast<std::size_t>(depth)] = keyword;
        }
    }
};

struct Statement {
    std::string key;
    std::string value;
    std::string surplus;  // B30: the first of the words that are ignored
};

/// B26: the text between the first and the last double quote; with one quote only, the rest of the
/// line.
std::string quoted_part(const std::string& line) {
    const std::size_t first = line.find('"');
    const std::size_t last = line.rfind('"');
    return first == last ? line.substr(first + 1) : line.substr(first + 1, last - first - 1);
}

Statement read_words(const std::vector<std::string>& words, const std::string& line,
                     BlockStack& blocks) {
    const bool is_quoted = line.find('"') != std::string::npos;
    Statement statement;
    for (const std::string& word : words) {
        if (word == "{") {  // B25: a bracket is a word, also between quotes
            ++blocks.depth;
            continue;
        }
        if (word == "}") {
            blocks.set("");
            --blocks.depth;
            continue;
        }
        if (statement.key.empty()) {
            statement.key = word;
        } else if (statement.value.empty()) {
            statement.value = is_quoted ? quoted_part(line) : word;
        } else if (statement.surplus.empty() && !is_quoted) {
            statement.surplus = word;
        }
        blocks.set(statement.key);
    }
    return statement;
}

using LineBuffer = std::array<char, line_buffer_size>;

/// True when the line goes on behind what one read takes.
bool is_cut(const LineBuffer& read) {
    return strlen(read.data()) == read.size() - 1 && read[read.size() - 2] != '\n';
}

/// The line up to its comment, without its line feed.
std::string without_comment(const char* read) {
    const std::string line = read;
    return line.substr(0, line.find_first_of("#\n"));
}

}  // namespace

bool LBDataFactory::load(const std::string& path) {
    const host::File file = host::open_file(path, "r");
    if (file == nullptr) {
        LOG_ERROR("wan_lb: configuration file not found: %s", path.c_str());
        return false;
    }
    BlockStack blocks;
    LineBuffer buffer;
    while (fgets(buffer.data(), static_cast<int>(buffer.size()), file.get()) != nullptr) {
        if (observer != nullptr) {
            observer->line(buffer.data(), is_cut(buffer));
        }
        const std::string line = without_comment(buffer.data());
        const StrProc words(line, " ");
        if (words.tokens.empty()) {
            continue;
        }
        const Statement statement = read_words(words.tokens, line, blocks);
        const Handled handled =
            process(blocks.keywords, blocks.depth, statement.key, statement.value);
        if (observer != nullptr) {
            observer->statement({blocks.keywords, blocks.depth, statement.key, statement.value,
                                 statement.surplus, handled});
        }
        if (!blocks.is_inside()) {  // B23: judged when the line has acted
            LOG_WARNING("Malformed configuration file: brackets");
            return false;
        }
    }
    if (blocks.depth != 0) {
        LOG_WARNING("Configuration error due to mismatched brackets");
        return false;
    }
    add_default_probes();  // B22: not after a fault of the brackets
    return true;
}

void LBDataFactory::add_default_probes() {
    for (auto& [name, health] : data.health) {
        if (health.tests.empty()) {
            health.tests.emplace(1, make_probe("ping"));
        }
    }
    for (auto& [name, health] : data.health6) {
        if (health.tests6.empty()) {
            health.tests6.emplace(1, make_probe6("ping"));
        }
    }
}
