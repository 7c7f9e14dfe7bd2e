#include "lbwatch/report_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>

#include "lbwatch/moment.h"
#include "shared/plain_text.h"

namespace lbwatch {

namespace {

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string or_dash(const std::optional<std::int64_t>& length_ms) {
    return length_ms ? length_text(*length_ms / 1000) : "-";
}

std::string share(std::int64_t part, std::int64_t whole) {
    return whole == 0
               ? "0 %"
               : percent_text(100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

std::string loss_text(const Answers& answers) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%.1f %%", answers.loss().value_or(0));
    return text.data();
}

std::string hours(const UplinkReport& uplink) {
    std::string text;
    for (std::size_t hour = 0; hour < uplink.by_hour.size(); ++hour) {
        if (uplink.by_hour[hour].missed == 0) {
            continue;
        }
        std::array<char, 16> name{};
        snprintf(name.data(), name.size(), "%02d h ", static_cast<int>(hour));
        text +=
            (text.empty() ? "" : ", ") + std::string(name.data()) + loss_text(uplink.by_hour[hour]);
    }
    return text.empty() ? "none" : text;
}

std::string outage_table(const UplinkReport& uplink) {
    std::string text =
        "  " + padded("BEGIN", 21) + padded("END", 21) + padded("LENGTH", 24) + "REASON\n";
    for (const Outage& outage : uplink.outages) {
        text += "  " + padded(local_time(outage.begin_ms), 21) +
                padded(outage.is_going_on ? "-" : local_time(outage.end_ms), 21) +
                padded(length_of(outage), 24) + shared::harmless(outage.reason) + "\n";
    }
    return text;
}

std::string uplink_text(const UplinkReport& uplink, std::int64_t period_ms) {
    const auto availability = uplink.availability();
    std::string text = text_of(uplink.uplink) + "\n  availability " +
                       (availability ? percent_text(*availability) : "unknown") +
                       ", of the time watched and judged: " +
                       share(uplink.active_ms + uplink.failed_ms, period_ms) + " of the period\n";
    text += "  active " + length_text(uplink.active_ms / 1000) + ", failed " +
            length_text(uplink.failed_ms / 1000) + ", not judged " +
            length_text(uplink.unknown_ms / 1000) + ", not watched " +
            length_text(uplink.unwatched_ms / 1000) + "\n";
    text += "  outages " + std::to_string(uplink.outages.size()) + ", flaps " +
            std::to_string(uplink.flaps) + ", longest " + length_text(uplink.longest_ms / 1000) +
            ", mean time between outages " + or_dash(uplink.mean_between_ms) + ", to repair " +
            or_dash(uplink.mean_repair_ms) + "\n";
    text += "  loss by hour of the day: " + hours(uplink) + "\n";
    return uplink.outages.empty() ? text : text + outage_table(uplink);
}

// Comma-separated values.

std::string quoted(const std::string& text) {
    const std::string harmless = shared::harmless(text);
    if (harmless.find_first_of(",\"") == std::string::npos) {
        return harmless;
    }
    std::string made = "\"";
    for (const char character : harmless) {
        made += character == '"' ? "\"\"" : std::string(1, character);
    }
    return made + "\"";
}

constexpr std::array<const char*, 20> columns{
    "record",        "uplink",   "family",    "namespace",
    "begin",         "end",      "seconds",   "availability_percent",
    "active_s",      "failed_s", "unknown_s", "unwatched_s",
    "outages",       "flaps",    "longest_s", "mean_between_s",
    "mean_repair_s", "answered", "missed",    "reason"};

class Row {
  public:
    Row(const char* record, const UplinkKey& key) {
        set("record", record);
        set("uplink", key.name);
        set("family", std::to_string(key.family));
        set("namespace", key.namespace_name);
    }
    void set(const std::string& column, const std::string& text) {
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (column == columns[i]) {
                fields_[i] = quoted(text);
            }
        }
    }
    void seconds(const char* column, const std::optional<std::int64_t>& length_ms) {
        if (length_ms) {
            set(column, std::to_string(*length_ms / 1000));
        }
    }
    void times(std::int64_t begin_ms, std::int64_t end_ms) {
        set("begin", rfc3339(begin_ms));
        set("end", rfc3339(end_ms));
        seconds("seconds", end_ms - begin_ms);
    }
    void answers(const Answers& answers) {
        set("answered", std::to_string(answers.answered));
        set("missed", std::to_string(answers.missed));
    }
    std::string line() const {
        std::string text;
        for (std::size_t i = 0; i < fields_.size(); ++i) {
            text += (i == 0 ? "" : ",") + fields_[i];
        }
        return text + "\r\n";
    }

  private:
    std::array<std::string, columns.size()> fields_;
};

std::string uplink_rows(const UplinkReport& uplink, const Report& report) {
    Row sum("uplink", uplink.uplink);
    sum.times(report.since_ms, report.until_ms);
    if (const auto availability = uplink.availability()) {
        std::string text = percent_text(*availability);
        sum.set("availability_percent", text.substr(0, text.find(' ')));
    }
    sum.seconds("active_s", uplink.active_ms);
    sum.seconds("failed_s", uplink.failed_ms);
    sum.seconds("unknown_s", uplink.unknown_ms);
    sum.seconds("unwatched_s", uplink.unwatched_ms);
    sum.set("outages", std::to_string(uplink.outages.size()));
    sum.set("flaps", std::to_string(uplink.flaps));
    sum.seconds("longest_s", uplink.longest_ms);
    sum.seconds("mean_between_s", uplink.mean_between_ms);
    sum.seconds("mean_repair_s", uplink.mean_repair_ms);
    Answers all;
    for (const Answers& hour : uplink.by_hour) {
        all.answered += hour.answered;
        all.missed += hour.missed;
    }
    sum.answers(all);
    std::string text = sum.line();
    for (const Outage& outage : uplink.outages) {
        Row row("outage", uplink.uplink);
        row.times(outage.begin_ms, outage.end_ms);
        row.set("reason", outage.reason);
        text += row.line();
    }
    for (const Piece& piece : uplink.pieces) {
        if (piece.known == Known::unwatched) {
            Row row("unwatched", uplink.uplink);
            row.times(piece.begin_ms, piece.end_ms);
            text += row.line();
        }
    }
    for (std::size_t hour = 0; hour < uplink.by_hour.size(); ++hour) {
        if (uplink.by_hour[hour].loss()) {
            Row row("hour", uplink.uplink);
            row.set("begin", std::to_string(hour));
            row.answers(uplink.by_hour[hour]);
            text += row.line();
        }
    }
    return text;
}

}  // namespace

std::string length_of(const Outage& outage) {
    const std::string length = length_text((outage.end_ms - outage.begin_ms) / 1000);
    if (outage.is_going_on) {
        return length + ", going on";
    }
    if (!outage.is_begin_seen && !outage.is_end_seen) {
        return length + " or more";
    }
    return outage.is_begin_seen && outage.is_end_seen
               ? length
               : length + (outage.is_end_seen ? ", begin not seen" : ", end not seen");
}

std::string zone_name() {
    const std::time_t at = std::time(nullptr);
    std::tm date{};
    localtime_r(&at, &date);
    std::array<char, 32> name{};
    strftime(name.data(), name.size(), "%Z", &date);
    return name.data();
}

std::string text_of(const Report& report) {
    std::string text = "Uplinks from " + local_time(report.since_ms) + " to " +
                       local_time(report.until_ms) + " (" + report.zone + ", " +
                       length_text((report.until_ms - report.since_ms) / 1000) + ")\n";
    for (const UplinkReport& uplink : report.uplinks) {
        text += "\n" + uplink_text(uplink, report.until_ms - report.since_ms);
    }
    return report.uplinks.empty() ? text + "\nNothing was watched in this time.\n" : text;
}

std::string csv_of(const Report& report) {
    std::string text;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        text += (i == 0 ? "" : ",") + std::string(columns[i]);
    }
    text += "\r\n";
    for (const UplinkReport& uplink : report.uplinks) {
        text += uplink_rows(uplink, report);
    }
    return text;
}

}  // namespace lbwatch
