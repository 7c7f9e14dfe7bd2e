#include "lbcheck/blocks.h"

#include <algorithm>
#include <cstdlib>

#include "config/keywords.h"

namespace lbcheck {

namespace {

int surplus_of(const std::vector<Statement>& statements) {
    int depth = 0;
    for (const Statement& one : statements) {
        depth += one.opens ? 1 : 0;
        depth -= one.closes ? 1 : 0;
    }
    return depth;
}

bool closes_too_early(const std::vector<Statement>& statements) {
    int depth = 0;
    for (const Statement& one : statements) {
        depth += one.opens ? 1 : 0;
        depth -= one.closes ? 1 : 0;
        if (depth < 0) {
            return true;
        }
    }
    return false;
}

/// By its keyword, a block belongs behind it.
bool takes_block(const Statement& statement) {
    if (statement.words.empty()) {
        return false;
    }
    const std::string& word = statement.words[0];
    const bool has_name = statement.words.size() > 1;
    if (word == "health" || word == "target") {
        return !has_name;
    }
    return has_name && (word == "rule" || word == "type" || is_interface_keyword(word));
}

bool lacks_bracket(const Statement& statement) {
    return statement.is_first && !statement.opens && takes_block(statement);
}

/// Says nothing of a text whose lines all begin in one column.
bool is_indented(const std::vector<Statement>& statements) {
    return std::any_of(statements.begin(), statements.end(), [&](const Statement& one) {
        return one.indentation != statements.front().indentation;
    });
}

/// How deep a block stands where it belongs, by the word that opens it; -1 where that says nothing.
int level_of(const Statement& statement) {
    if (!statement.opens || statement.words.empty()) {
        return -1;
    }
    const std::string& word = statement.words[0];
    const bool has_name = statement.words.size() > 1;
    if (word == "health" ||
        (word == "rule" && has_name && statement.words[1].find("_ipv") != std::string::npos)) {
        return 0;
    }
    if (is_interface_keyword(word) || (word == "target" && !has_name)) {
        return 1;
    }
    return word == "type" ? 3 : -1;
}

/// Walks through the statements with the blocks that are open, and mends what does not fit.
class Balance {
  public:
    enum class By { indentation, keywords };

    Balance(const std::vector<Statement>& statements, By by) : by_(by) {
        for (const Statement& statement : statements) {
            take(statement);
        }
        const int end = statements.empty() ? 1 : statements.back().line + 1;
        while (!open_.empty()) {
            close_missing(end, "the end of the file");
        }
    }

    std::vector<Statement> mended;
    std::vector<Finding> causes;

  private:
    void take(const Statement& statement) {
        if (statement.closes) {
            take_closing(statement);
            return;
        }
        while (!open_.empty() && ends_before(statement)) {
            close_missing(statement.line, "line " + std::to_string(statement.line));
        }
        mended.push_back(statement);
        if (statement.opens) {
            open_.push_back(statement);
        }
    }

    bool ends_before(const Statement& statement) const {
        if (by_ == By::indentation) {
            return statement.is_first && statement.indentation <= open_.back().indentation;
        }
        const int level = level_of(statement);
        return level >= 0 && static_cast<int>(open_.size()) > level;
    }

    void take_closing(const Statement& statement) {
        const bool tells = by_ == By::indentation && statement.is_first;
        while (tells && !open_.empty() && statement.indentation < open_.back().indentation) {
            close_missing(statement.line, "line " + std::to_string(statement.line));
        }
        if (open_.empty() || (tells && statement.indentation > open_.back().indentation)) {
            causes.push_back({.line = statement.line,
                              .severity = Severity::error,
                              .text = "}",
                              .message = "closes no block: one bracket too many"});
            mended.push_back({.line = statement.line, .is_taken_out = true});
            return;
        }
        open_.pop_back();
        mended.push_back(statement);
    }

    void close_missing(int before, const std::string& where) {
        causes.push_back({.line = open_.back().line,
                          .severity = Severity::error,
                          .text = open_.back().text(),
                          .message = "this block does not end: '}' is missing before " + where});
        mended.push_back({.line = before, .closes = true, .is_inserted = true});
        open_.pop_back();
    }

    By by_;
    std::vector<Statement> open_;
};

}  // namespace

std::string Statement::text() const {
    std::string all;
    for (const std::string& word : words) {
        all += (all.empty() ? "" : " ") + word;
    }
    if (opens) {
        all += all.empty() ? "{" : " {";
    }
    return closes ? "}" : all;
}

void open_missing(std::vector<Statement>& statements, std::set<int>& changed,
                  std::vector<Finding>& causes) {
    std::vector<Statement*> missing;
    const bool tells = is_indented(statements);
    for (std::size_t i = 0; i < statements.size(); ++i) {
        const bool has_inside = i + 1 < statements.size() && statements[i + 1].is_first &&
                                statements[i + 1].indentation > statements[i].indentation;
        if (lacks_bracket(statements[i]) && (has_inside || !tells)) {
            missing.push_back(&statements[i]);
        }
    }
    if (!tells && static_cast<int>(missing.size()) != -surplus_of(statements)) {
        return;
    }
    for (Statement* const one : missing) {
        causes.push_back({.line = one->line,
                          .severity = Severity::error,
                          .text = one->text(),
                          .message = "'{' is missing at the end of this line"});
        one->opens = true;
        changed.insert(one->line);
    }
}

void balance(std::vector<Statement>& statements, std::vector<Finding>& causes) {
    const int surplus = surplus_of(statements);
    if (surplus == 0 && !closes_too_early(statements)) {
        return;
    }
    const auto least = static_cast<std::size_t>(std::abs(surplus));
    for (const auto by : {Balance::By::indentation, Balance::By::keywords}) {
        Balance balanced(statements, by);
        // More than what the count of the brackets asks for: it tells something else.
        if (balanced.causes.size() == least || (least == 0 && balanced.causes.size() == 2)) {
            statements = std::move(balanced.mended);
            causes.insert(causes.end(), balanced.causes.begin(), balanced.causes.end());
            return;
        }
    }
}

}  // namespace lbcheck
