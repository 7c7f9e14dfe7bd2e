#include "lbcheck/findings.h"

#include <algorithm>

#include "config/lb_data_factory.h"
#include "lbcheck/judge.h"
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

Checked check(const std::string& path) {
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
    std::stable_sort(checked.findings.begin(), checked.findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    return checked;
}

std::string as_text(const std::string& path, const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        text += path + ":" + (finding.line == 0 ? "" : std::to_string(finding.line) + ":") + " " +
                word_of(finding.severity) + ": " +
                (finding.text.empty() ? "" : "'" + finding.text + "': ") + finding.message + "\n";
    }
    return text;
}

std::string as_json(const std::string& path, const std::vector<Finding>& findings) {
    using Json = nlohmann::ordered_json;
    Json list = Json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"line", finding.line},
                        {"severity", word_of(finding.severity)},
                        {"text", finding.text},
                        {"message", finding.message}});
    }
    const Json all{{"file", path}, {"findings", list}};
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
