#include "lbcheck/findings.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "config/lb_data_factory.h"
#include "lbcheck/judge.h"
#include "lbcheck/layout.h"
#include "lbcheck/source.h"
#include "lbcheck/watcher.h"
#include <nlohmann/json.hpp>

namespace lbcheck {

namespace {

const char* word_of(Severity severity) {
    switch (severity) {
        case Severity::warning:
            return "warning";
        case Severity::error:
            return "error";
    }
    return "error";
}

}  // namespace

namespace {

/// A file that the loader can open, and what it makes of it.
Checked load_and_judge(const std::string& path) {
    Checked checked;
    Watcher watcher(checked.findings);
    LBDataFactory factory;
    factory.observer = &watcher;
    const bool is_complete = factory.load(path);
    watcher.end();
    checked.data = LBData(factory.get());
    if (is_complete) {
        judge(checked.data, watcher, checked.findings);
    }
    return checked;
}

std::string keyword_of(const Finding& finding) {
    return finding.text.substr(0, finding.text.find(' '));
}

/// From this number on, lines with one keyword and one message are one finding.
constexpr std::size_t many = 4;

/// One finding for the same mistake made many times.
std::vector<Finding> merged(const std::vector<Finding>& findings) {
    using Kind = std::tuple<Severity, std::string, std::string>;
    std::map<Kind, std::vector<const Finding*>> by_kind;
    for (const Finding& one : findings) {
        by_kind[{one.severity, keyword_of(one), one.message}].push_back(&one);
    }
    std::vector<Finding> kept;
    for (const Finding& one : findings) {
        const auto& alike = by_kind[{one.severity, keyword_of(one), one.message}];
        if (alike.size() < many) {
            kept.push_back(one);
        } else if (alike[0] == &one) {
            kept.push_back(one);
            for (std::size_t i = 1; i < alike.size(); ++i) {
                kept.back().more_lines.push_back(alike[i]->line);
            }
        }
    }
    return kept;
}

std::string more_text(const std::vector<int>& lines) {
    if (lines.empty()) {
        return "";
    }
    constexpr std::size_t most_named = 5;
    std::string text = lines.size() == 1 ? " (also in line " : " (also in lines ";
    for (std::size_t i = 0; i < std::min(lines.size(), most_named); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(lines[i]);
    }
    if (lines.size() > most_named) {
        text += " and " + std::to_string(lines.size() - most_named) + " more, the last in line " +
                std::to_string(lines.back());
    }
    return text + ")";
}

/// A terminal takes what stands in a file for text, and nothing else.
std::string printable(std::string text) {
    constexpr unsigned char deleting = 127;
    std::replace_if(
        text.begin(), text.end(),
        [](char letter) {
            const auto byte = static_cast<unsigned char>(letter);
            return byte < ' ' || byte == deleting;
        },
        '?');
    return text;
}

std::string counted(std::size_t count, const std::string& word) {
    return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

std::size_t count_of(const std::vector<Finding>& findings, Severity severity) {
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [severity](const Finding& one) { return one.severity == severity; }));
}

}  // namespace

/// A configuration of 10,000 uplinks has a tenth of it.
constexpr std::size_t most_bytes = 64U << 20U;

Checked check(const std::string& path) {
    const Source source = read_source(path, most_bytes);
    if (!source.problem.empty()) {
        return {.findings = {{.line = 0,
                              .severity = Severity::error,
                              .text = "",
                              .message = "cannot be read: " + source.problem}},
                .data = LBData()};
    }
    Checked checked = load_and_judge(LoadableText(source.bytes).path());
    // Whatever the layout makes the loader misread is found one way or another.
    MendedText mended = checked.findings.empty() ? MendedText() : mend_layout(source.bytes, path);
    if (!mended.causes.empty()) {
        checked.findings = std::move(mended.causes);
        const Checked rest =
            mended.text.empty() ? Checked() : load_and_judge(LoadableText(mended.text).path());
        for (Finding other : rest.findings) {
            const auto line = static_cast<std::size_t>(other.line);
            if (line > 0 && line <= mended.line_before.size()) {
                other.line = mended.line_before[line - 1];
            }
            checked.findings.push_back(std::move(other));
        }
    }
    std::stable_sort(checked.findings.begin(), checked.findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    checked.findings = merged(checked.findings);
    return checked;
}

std::string as_text(const std::string& path, const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        const std::string concerned = printable(finding.text);
        text += path + ":" + (finding.line == 0 ? "" : std::to_string(finding.line) + ":") + " " +
                word_of(finding.severity) + ": " +
                (concerned.empty() ? "" : "'" + concerned + "': ") + printable(finding.message) +
                more_text(finding.more_lines) + "\n";
    }
    return text + path + ": " + counted(count_of(findings, Severity::error), "error") + ", " +
           counted(count_of(findings, Severity::warning), "warning") + "\n";
}

std::string as_json(const std::string& path, const std::vector<Finding>& findings) {
    using Json = nlohmann::ordered_json;
    Json list = Json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"line", finding.line},
                        {"severity", word_of(finding.severity)},
                        {"text", finding.text},
                        {"message", finding.message},
                        {"more_lines", finding.more_lines}});
    }
    const Json all{{"file", path},
                   {"findings", list},
                   {"errors", count_of(findings, Severity::error)},
                   {"warnings", count_of(findings, Severity::warning)}};
    return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

int exit_status(const std::vector<Finding>& findings, bool is_strict) {
    const bool has_error = std::any_of(findings.begin(), findings.end(), [](const Finding& one) {
        return one.severity == Severity::error;
    });
    if (has_error) {
        return 2;
    }
    return is_strict && !findings.empty() ? 1 : 0;
}

}  // namespace lbcheck
