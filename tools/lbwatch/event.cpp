#include "lbwatch/event.h"

#include <array>
#include <utility>

#include "lbwatch/moment.h"
#include "shared/plain_text.h"

namespace lbwatch {

namespace {

constexpr std::array<std::pair<EventKind, const char*>, 5> kinds{{{EventKind::uplink, "uplink"},
                                                                  {EventKind::target, "target"},
                                                                  {EventKind::nexthop, "nexthop"},
                                                                  {EventKind::routes, "routes"},
                                                                  {EventKind::daemon, "daemon"}}};

std::string subject_of(const Event& event) {
    switch (event.kind) {
        case EventKind::uplink:
            return text_of(event.uplink);
        case EventKind::target:
            return text_of(event.uplink) + " target " + event.target;
        case EventKind::nexthop:
            return text_of(event.uplink) + " next hop";
        case EventKind::routes: {
            std::string text = "routes of " + event.rule;
            if (!event.uplink.namespace_name.empty()) {
                text += " (" + event.uplink.namespace_name + ")";
            }
            if (!event.destinations.empty()) {
                text += " to " + event.destinations.front();
            }
            if (event.destinations.size() > 1) {
                text += " and " + std::to_string(event.destinations.size() - 1) + " more";
            }
            return text + ":";
        }
        case EventKind::daemon:
            return "daemon";
    }
    return "";
}

std::string or_none(const std::string& text) {
    return text.empty() ? "none" : text;
}

}  // namespace

std::string text_of(const UplinkKey& key) {
    std::string text = key.name + " ipv" + std::to_string(key.family);
    if (!key.namespace_name.empty()) {
        text += " (" + key.namespace_name + ")";
    }
    return shared::harmless(text);
}

const char* word_of(EventKind kind) {
    for (const auto& [known, word] : kinds) {
        if (known == kind) {
            return word;
        }
    }
    return "";
}

std::optional<EventKind> read_kind(const std::string& word) {
    for (const auto& [kind, known] : kinds) {
        if (word == known) {
            return kind;
        }
    }
    return std::nullopt;
}

std::string line_of(const Event& event) {
    std::string text = subject_of(event) + " " + or_none(event.from) + " -> " + or_none(event.to);
    if (event.after_s) {
        text += " after " + length_text(*event.after_s);
    }
    if (!event.reason.empty()) {
        text += ": " + event.reason;
    }
    return shared::harmless(text);
}

}  // namespace lbwatch
