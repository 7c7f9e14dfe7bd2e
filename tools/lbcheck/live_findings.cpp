#include "lbcheck/live_findings.h"

#include <algorithm>

#include "shared/plain_text.h"
#include <nlohmann/json.hpp>

namespace lbcheck {

namespace {

const char* word_of(State state) {
    switch (state) {
        case State::ok:
            return "ok";
        case State::unknown:
            return "unknown";
        case State::warning:
            return "warning";
        case State::error:
            return "error";
    }
    return "unknown";
}

std::size_t count_of(const std::vector<LiveFinding>& findings, State state) {
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [state](const LiveFinding& one) { return one.state == state; }));
}

std::string counted(std::size_t count, const std::string& word) {
    return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

}  // namespace

std::string live_text(const std::vector<LiveFinding>& findings) {
    std::string text;
    for (const LiveFinding& one : findings) {
        std::string state = word_of(one.state);
        state.resize(8, ' ');
        text += state +
                shared::harmless(one.place + ": " + one.text +
                                 (one.mend.empty() ? "" : "; mend: " + one.mend)) +
                "\n";
    }
    const std::size_t unknown = count_of(findings, State::unknown);
    return text + counted(count_of(findings, State::error), "error") + ", " +
           counted(count_of(findings, State::warning), "warning") + ", " + std::to_string(unknown) +
           " not looked at, " + std::to_string(count_of(findings, State::ok)) + " ok\n";
}

std::string live_json(const std::string& path, const std::vector<Finding>& of_file,
                      const std::vector<LiveFinding>& findings) {
    using Json = nlohmann::ordered_json;
    Json all = Json::parse(as_json(path, of_file));
    Json list = Json::array();
    for (const LiveFinding& one : findings) {
        list.push_back({{"state", word_of(one.state)},
                        {"place", one.place},
                        {"text", one.text},
                        {"mend", one.mend}});
    }
    all["live"] = list;
    return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

int live_exit_status(const std::vector<LiveFinding>& findings, bool is_strict) {
    if (count_of(findings, State::error) > 0) {
        return 2;
    }
    return is_strict && count_of(findings, State::ok) < findings.size() ? 1 : 0;
}

}  // namespace lbcheck
