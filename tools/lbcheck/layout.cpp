#include "lbcheck/layout.h"

#include <algorithm>
#include <set>

#include "config/keywords.h"
#include "config/str_proc.h"
#include "lbcheck/blocks.h"
#include "lbcheck/spelling.h"

namespace lbcheck {

namespace {

constexpr const char* byte_order_mark = "\xEF\xBB\xBF";

/// For a shell, between single quotes.
std::string quoted(const std::string& text) {
    std::string all = "'";
    for (const char letter : text) {
        all += letter == '\'' ? "'\\''" : std::string(1, letter);
    }
    return all + "'";
}

Finding error_at(int line, const std::string& text, const std::string& message) {
    return {.line = line, .severity = Severity::error, .text = text, .message = message};
}

/// Takes away what is no text: what no editor shows and the loader reads as part of a word.
class Encoding {
  public:
    Encoding(std::string bytes, const std::string& path) : text(std::move(bytes)) {
        if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF")) {
            causes.push_back(error_at(1, "",
                                      "is written in UTF-16, of which nothing is understood; "
                                      "mend: iconv -f UTF-16 -t UTF-8 " +
                                          quoted(path) + " >NEW"));
            text.clear();
        }
        if (text.starts_with(byte_order_mark)) {
            text.erase(0, 3);
            causes.push_back(error_at(1, "",
                                      "begins with a byte-order mark, which the first word is "
                                      "not known with; mend: sed -i '1s/^\\xEF\\xBB\\xBF//' " +
                                          quoted(path)));
        }
        drop_carriage_returns(path);
    }

    std::string text;
    std::vector<Finding> causes;

  private:
    void drop_carriage_returns(const std::string& path) {
        const std::size_t first = text.find("\r\n");
        if (first == std::string::npos) {
            return;
        }
        const auto line =
            1 + std::count(text.begin(), text.begin() + static_cast<long>(first), '\n');
        std::string kept;
        int lines = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text.compare(i, 2, "\r\n") == 0) {
                ++lines;
            } else {
                kept += text[i];
            }
        }
        text = std::move(kept);
        causes.push_back(error_at(static_cast<int>(line), "",
                                  std::to_string(lines) +
                                      (lines == 1 ? " line ends" : " lines end") +
                                      " in a carriage return: no bracket is seen there, and so no "
                                      "block; mend: sed -i 's/\\r$//' " +
                                      quoted(path)));
    }
};

int indentation_of(const std::string& line) {
    constexpr int tab = 4;  // as the loader reads it
    int columns = 0;
    for (const char letter : line) {
        if (letter != ' ' && letter != '\t') {
            break;
        }
        columns += letter == '\t' ? tab : 1;
    }
    return columns;
}

/// The words with every bracket as a word of its own.
std::vector<std::string> with_loose_brackets(const std::vector<std::string>& words) {
    std::vector<std::string> loose;
    for (const std::string& word : words) {
        std::string part;
        for (const char letter : word) {
            if (letter != '{' && letter != '}') {
                part += letter;
                continue;
            }
            if (!part.empty()) {
                loose.push_back(std::move(part));
                part.clear();
            }
            loose.emplace_back(1, letter);
        }
        if (!part.empty()) {
            loose.push_back(std::move(part));
        }
    }
    return loose;
}

/// One bracket fault of which a file may have many.
struct Repeated {
    std::string text;
    std::vector<int> lines;

    void note(const std::string& where, int line) {
        if (lines.empty()) {
            text = where;
        }
        lines.push_back(line);
    }
    void tell(const std::string& message, std::vector<Finding>& causes) const {
        if (!lines.empty()) {
            Finding finding = error_at(lines[0], text, message);
            finding.more_lines.assign(lines.begin() + 1, lines.end());
            causes.push_back(std::move(finding));
        }
    }
};

/// Cuts a text into statements, with every bracket where the loader wants it.
class Cutter {
  public:
    void cut(const std::vector<std::string>& lines) {
        for (std::size_t i = 0; i < lines.size(); ++i) {
            cut_line(lines[i].substr(0, lines[i].find('#')), static_cast<int>(i) + 1);
        }
    }
    void tell(std::vector<Finding>& causes) const {
        glued_.tell("a bracket is a word of its own: put a blank before and behind it", causes);
        alone_.tell(
            "the bracket that opens a block stands behind the block's name: on a line of "
            "its own it makes the loader miss the name",
            causes);
        crowded_.tell(
            "one statement a line: end the line behind '{', and give each '}' a line of "
            "its own",
            causes);
    }

    std::vector<Statement> statements;
    std::set<int> changed;  ///< lines that no longer are as they stand in the file

  private:
    void cut_line(const std::string& line, int number) {
        const StrProc read(line, " ");
        if (read.tokens.empty()) {
            return;
        }
        const bool is_quoted = line.find('"') != std::string::npos;
        const auto words = is_quoted ? read.tokens : with_loose_brackets(read.tokens);
        if (words.size() != read.tokens.size()) {
            glued_.note(trimmed(line), number);
            changed.insert(number);
        }
        if (words.size() == 1 && words[0] == "{") {
            open_statement_before(number);
            return;
        }
        const std::size_t before = statements.size();
        split(words, number, indentation_of(line));
        if (is_crowded(before) && !changed.contains(number)) {
            crowded_.note(trimmed(line), number);
            changed.insert(number);
        }
    }

    static std::string trimmed(const std::string& line) {
        const std::size_t begin = line.find_first_not_of(" \t");
        return line.substr(begin, line.find_last_not_of(" \t") + 1 - begin);
    }

    /// "{" alone opens the block whose name stands before it.
    void open_statement_before(int number) {
        const bool has_name = !statements.empty() && !statements.back().opens &&
                              !statements.back().closes && !statements.back().words.empty();
        if (!has_name) {
            statements.push_back({.line = number, .opens = true, .is_first = true});
            ++depth_;
            return;
        }
        Statement& name = statements.back();
        if (depth_ > 0) {  // outermost the loader finds the name
            alone_.note(name.text(), number);
        }
        name.opens = true;
        changed.insert(number);
        changed.insert(name.line);
        ++depth_;
    }

    void split(const std::vector<std::string>& words, int number, int indentation) {
        Statement statement{.line = number, .indentation = indentation, .is_first = true};
        const auto end_statement = [&] {
            statements.push_back(statement);
            statement = {.line = number, .indentation = indentation};
        };
        for (const std::string& word : words) {
            if (word == "{") {
                statement.opens = true;
                ++depth_;
                end_statement();
            } else if (word == "}") {
                if (!statement.words.empty()) {
                    end_statement();
                }
                statement.closes = true;
                --depth_;
                end_statement();
            } else {
                statement.words.push_back(word);
            }
        }
        if (!statement.words.empty()) {
            statements.push_back(statement);
        }
    }

    /// What the loader reads right: closing brackets, then at most one statement.
    bool is_crowded(std::size_t first) const {
        for (std::size_t i = first; i + 1 < statements.size(); ++i) {
            if (!statements[i].closes) {
                return true;
            }
        }
        return false;
    }

    int depth_ = 0;
    Repeated glued_;
    Repeated alone_;
    Repeated crowded_;
};

/// Puts the keywords in place that a word was meant to be, and takes out the blocks that no
/// keyword opens.
class Speller {
  public:
    Speller(std::vector<Statement>& statements, std::set<int>& changed,
            std::vector<Finding>& causes)
        : statements_(statements), changed_(changed), causes_(causes) {}

    void spell_all() {
        for (std::size_t i = 0; i < statements_.size(); ++i) {
            Statement& statement = statements_[i];
            if (statement.closes) {
                if (!blocks_.empty()) {
                    blocks_.pop_back();
                }
                continue;
            }
            const bool is_known = statement.words.empty() || spell(statement);
            if (!is_known && statement.opens) {
                i = take_out(i);
            } else if (statement.opens) {
                blocks_.push_back(statement.words.empty() ? "" : statement.words[0]);
            }
        }
    }

  private:
    /// False for a word that is no keyword and resembles none.
    bool spell(Statement& statement) {
        std::string& word = statement.words[0];
        if (!places_of(word).empty()) {
            return true;
        }
        const auto possible = keywords_inside(blocks_);
        if (possible.empty()) {
            return true;  // within a block that is misplaced itself
        }
        const std::string_view meant = nearest(word, possible);
        if (meant.empty()) {
            return false;
        }
        causes_.push_back({.line = statement.line,
                           .severity = statement.opens ? Severity::error : Severity::warning,
                           .text = statement.text(),
                           .message = std::string("unknown keyword: ") +
                                      (statement.opens ? "its block is not read" : "ignored") +
                                      "; did you mean '" + std::string(meant) + "'?"});
        word = meant;
        changed_.insert(statement.line);
        return true;
    }

    /// Takes out a block with everything in it; gives the place of its end.
    std::size_t take_out(std::size_t first) {
        int depth = 0;
        std::size_t i = first;
        for (; i < statements_.size(); ++i) {
            depth += statements_[i].opens ? 1 : 0;
            depth -= statements_[i].closes ? 1 : 0;
            if (depth == 0) {
                break;
            }
        }
        const std::size_t end = std::min(i, statements_.size() - 1);
        causes_.push_back(error_at(statements_[first].line, statements_[first].text(),
                                   "unknown keyword: its block is not read, to line " +
                                       std::to_string(statements_[end].line)));
        for (std::size_t taken = first; taken <= end; ++taken) {
            changed_.insert(statements_[taken].line);
            statements_[taken] = {.line = statements_[taken].line, .is_taken_out = true};
        }
        return end;
    }

    std::vector<Statement>& statements_;
    std::set<int>& changed_;
    std::vector<Finding>& causes_;
    std::vector<std::string> blocks_;
};

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

void put_line(MendedText& mended, const std::string& text, int line) {
    mended.text += text + '\n';
    mended.line_before.push_back(line);
}

}  // namespace

MendedText mend_layout(const std::string& bytes, const std::string& path) {
    MendedText mended;
    Encoding encoding(bytes, path);
    mended.causes = std::move(encoding.causes);
    const auto lines = lines_of(encoding.text);
    Cutter cutter;
    cutter.cut(lines);
    cutter.tell(mended.causes);
    open_missing(cutter.statements, cutter.changed, mended.causes);
    balance(cutter.statements, mended.causes);
    Speller(cutter.statements, cutter.changed, mended.causes).spell_all();
    if (mended.causes.empty()) {
        mended.text = bytes;
        return mended;
    }
    for (const Statement& one : cutter.statements) {
        if (one.is_taken_out) {
            cutter.changed.insert(one.line);
        }
    }
    auto statement = cutter.statements.begin();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const int number = static_cast<int>(i) + 1;
        const bool is_changed = cutter.changed.contains(number);
        for (; statement != cutter.statements.end() && statement->line == number; ++statement) {
            if (is_changed || statement->is_inserted) {
                put_line(mended, statement->text(), number);
            }
        }
        if (!is_changed) {
            put_line(mended, lines[i], number);
        }
    }
    for (; statement != cutter.statements.end(); ++statement) {
        put_line(mended, statement->text(), statement->line);
    }
    return mended;
}

}  // namespace lbcheck
