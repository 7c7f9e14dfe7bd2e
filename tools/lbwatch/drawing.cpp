#include "lbwatch/drawing.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "lbwatch/moment.h"
#include "lbwatch/page_style.h"
#include "lbwatch/report_text.h"
#include "shared/plain_text.h"

namespace lbwatch {

namespace {

constexpr double width = 1000;
/// What is narrower in a band is widened, or, of more pieces than that, drawn with its neighbours.
constexpr double least_width = 2;
constexpr std::size_t most_single = 100;

/// The pattern that fills what nobody watched, once a page.
constexpr const char* hatch =
    "<svg width=\"0\" height=\"0\" aria-hidden=\"true\" style=\"position:absolute\"><defs>"
    "<pattern id=\"hatch\" width=\"5\" height=\"32\" patternUnits=\"userSpaceOnUse\">"
    "<rect class=\"stripe\" width=\"2\" height=\"32\"/></pattern></defs></svg>";

std::string number(double value) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%.2f", value);
    return text.data();
}

double place(std::int64_t at_ms, std::int64_t since_ms, std::int64_t until_ms) {
    const auto whole = static_cast<double>(std::max<std::int64_t>(1, until_ms - since_ms));
    return width * static_cast<double>(at_ms - since_ms) / whole;
}

std::string local(std::int64_t wall_ms, const char* format) {
    const auto seconds = static_cast<time_t>(wall_ms / 1000);
    std::tm date{};
    localtime_r(&seconds, &date);
    std::array<char, 32> text{};
    // The format is one of this file's own.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    strftime(text.data(), text.size(), format, &date);
#pragma GCC diagnostic pop
    return text.data();
}

std::string rectangle(double x, double y, double w, double h, const char* kind,
                      const std::string& title) {
    return "<rect class=\"" + std::string(kind) + "\" x=\"" + number(x) + "\" y=\"" + number(y) +
           "\" width=\"" + number(w) + "\" height=\"" + number(h) + "\"><title>" + escaped(title) +
           "</title></rect>";
}

std::string title_of(const Piece& piece) {
    return std::string(word_of(piece.known)) + ", " + local_time(piece.begin_ms) + " to " +
           local_time(piece.end_ms) + " (" + length_text((piece.end_ms - piece.begin_ms) / 1000) +
           ")" + (piece.known == Known::failed && !piece.reason.empty() ? ": " + piece.reason : "");
}

/// Neighbours that are drawn together: what was failed, in front of the rest.
struct Crowd {
    Piece failed{};  ///< from the begin of the first outage to the end of the last
    Piece rest{};    ///< from end to end; of its kinds the one that is known least
    int outages = 0;
    int others = 0;

    void add(const Piece& piece) {
        const bool is_outage = piece.known == Known::failed;
        Piece& part = is_outage ? failed : rest;
        int& count = is_outage ? outages : others;
        if (count++ == 0) {
            part = piece;
        }
        part.end_ms = piece.end_ms;
        if (piece.known == Known::unwatched || part.known == Known::active) {
            part.known = piece.known;
        }
    }
    bool is_empty() const { return outages + others == 0; }
    std::int64_t begin_ms() const {
        return outages == 0  ? rest.begin_ms
               : others == 0 ? failed.begin_ms
                             : std::min(failed.begin_ms, rest.begin_ms);
    }
};

/// Of several pieces, how often.
std::string title_of(const Piece& piece, int times) {
    if (times == 1) {
        return title_of(piece);
    }
    return std::string(word_of(piece.known)) + " " + std::to_string(times) + " times, " +
           local_time(piece.begin_ms) + " to " + local_time(piece.end_ms);
}

std::string rounded(double value) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), value < 10 ? "%.1f" : "%.0f", value);
    return text.data();
}

}  // namespace

std::string escaped(const std::string& text) {
    std::string made;
    for (const char character : shared::harmless(text)) {
        switch (character) {
            case '&':
                made += "&amp;";
                break;
            case '<':
                made += "&lt;";
                break;
            case '>':
                made += "&gt;";
                break;
            case '"':
                made += "&quot;";
                break;
            case '\'':
                made += "&#39;";
                break;
            default:
                made += character;
        }
    }
    return made;
}

std::string band(const UplinkReport& uplink, std::int64_t since_ms, std::int64_t until_ms,
                 const std::string& label) {
    std::string text =
        "<svg class=\"band\" role=\"img\" viewBox=\"0 0 1000 32\" "
        "preserveAspectRatio=\"none\" aria-label=\"" +
        escaped(label) + "\">";
    std::string failed;
    const auto at = [&](std::int64_t at_ms) { return place(at_ms, since_ms, until_ms); };
    const auto width_of = [&](std::int64_t begin_ms, std::int64_t end_ms) {
        return at(end_ms) - at(begin_ms);
    };
    const auto draw = [&](const Crowd& crowd) {
        if (crowd.others > 0) {
            const Piece& rest = crowd.rest;
            text += rectangle(at(rest.begin_ms), 4, width_of(rest.begin_ms, rest.end_ms), 24,
                              word_of(rest.known), title_of(rest, crowd.others));
        }
        if (crowd.outages > 0) {
            // However short, an outage is seen.
            const Piece& outage = crowd.failed;
            failed += rectangle(at(outage.begin_ms), 0,
                                std::max(width_of(outage.begin_ms, outage.end_ms), least_width), 32,
                                "failed", title_of(outage, crowd.outages));
        }
    };
    // Of very many, which a line that flaps all day has, those that no eye can part are drawn
    // together.
    const bool is_crowded = uplink.pieces.size() > most_single;
    Crowd narrow;
    const auto end_crowd = [&] {
        draw(narrow);
        narrow = {};
    };
    for (const Piece& piece : uplink.pieces) {
        const bool is_wide = !is_crowded || width_of(piece.begin_ms, piece.end_ms) >= least_width;
        if (is_wide ||
            (!narrow.is_empty() && width_of(narrow.begin_ms(), piece.end_ms) > 2 * least_width)) {
            end_crowd();
        }
        narrow.add(piece);
        if (is_wide) {
            end_crowd();
        }
    }
    end_crowd();
    return text + failed + "</svg>";
}

std::string time_axis(std::int64_t since_ms, std::int64_t until_ms) {
    const std::int64_t length_ms = until_ms - since_ms;
    const char* const form = length_ms <= std::int64_t{10} * 60'000      ? "%H:%M:%S"
                             : length_ms <= std::int64_t{2} * 86'400'000 ? "%H:%M"
                                                                         : "%d %b";
    std::string text = "<div class=\"axis\" aria-hidden=\"true\">";
    constexpr int marks = 5;
    for (int i = 0; i < marks; ++i) {
        const std::int64_t at_ms = since_ms + length_ms * i / (marks - 1);
        text += "<span>" + local(at_ms, form) + "</span>";
    }
    return text + "</div>";
}

std::string legend() {
    std::string text = std::string(hatch) + "<ul class=\"legend\">";
    for (const Known known : {Known::active, Known::failed, Known::unknown, Known::unwatched}) {
        const char* const word = known == Known::unknown     ? "not judged"
                                 : known == Known::unwatched ? "not watched"
                                                             : word_of(known);
        text += std::string("<li><i class=\"") + word_of(known) + "\"></i>" + word + "</li>";
    }
    return text + "</ul>";
}

std::string chart(const TargetReport& target, std::int64_t since_ms, std::int64_t until_ms) {
    if (!target.is_measured) {
        return "";
    }
    constexpr double height = 120;
    double highest_rtt = 1;
    double highest_loss = 0;
    for (const Point& point : target.points) {
        highest_rtt = std::max(highest_rtt, point.rtt_ms.value_or(0));
        highest_loss = std::max(highest_loss, point.loss_percent.value_or(0));
    }
    std::string bars;
    std::string line;
    std::int64_t last_end_ms = 0;
    for (const Point& point : target.points) {
        if (!point.rtt_ms) {
            continue;
        }
        const double begin = place(point.begin_ms, since_ms, until_ms);
        const double end = place(point.end_ms, since_ms, until_ms);
        if (*point.loss_percent > 0) {
            const double size = std::max(2.0, height * *point.loss_percent / 100.0);
            bars +=
                rectangle(begin, height - size, std::max(1.5, end - begin), size, "loss",
                          rounded(*point.loss_percent) + " % loss, " + local_time(point.begin_ms));
        }
        // Times without a measurement leave the line open.
        line += (line.empty() || point.begin_ms > last_end_ms ? "M" : "L") +
                number((begin + end) / 2) + " " +
                number(height - (height - 8) * *point.rtt_ms / highest_rtt) + " ";
        last_end_ms = point.end_ms;
    }
    const std::string label = target.address + ": round-trip time up to " + rounded(highest_rtt) +
                              " ms, loss up to " + rounded(highest_loss) + " %";
    return "<figure class=\"chart\"><figcaption><b>" + escaped(target.address) +
           "</b> <span><i class=\"rtt\"></i>round-trip time, up to " + rounded(highest_rtt) +
           " ms</span> <span><i class=\"loss\"></i>loss, up to " + rounded(highest_loss) +
           " %</span></figcaption><svg role=\"img\" viewBox=\"0 0 1000 120\" "
           "preserveAspectRatio=\"none\" aria-label=\"" +
           escaped(label) + "\"><line class=\"base\" x1=\"0\" y1=\"120\" x2=\"1000\" y2=\"120\"/>" +
           bars + "<path class=\"rtt\" d=\"" + line + "\"/></svg></figure>";
}

std::string hour_bars(const UplinkReport& uplink) {
    double highest = 0;
    for (const Answers& hour : uplink.by_hour) {
        highest = std::max(highest, hour.loss().value_or(0));
    }
    if (highest == 0) {
        return "";
    }
    std::string bars;
    for (std::size_t hour = 0; hour < uplink.by_hour.size(); ++hour) {
        const auto loss = uplink.by_hour[hour].loss();
        const double size = loss && *loss > 0 ? std::max(2.0, 38 * *loss / highest) : 1;
        bars += rectangle(static_cast<double>(hour) * 10 + 1, 40 - size, 8, size,
                          loss && *loss > 0 ? "loss" : "base",
                          std::to_string(hour) +
                              " h: " + (loss ? rounded(*loss) + " % unanswered" : "nothing asked"));
    }
    return "<figure class=\"hours\"><figcaption>Unanswered by hour of the day, up to " +
           rounded(highest) +
           " %</figcaption><svg role=\"img\" viewBox=\"0 0 240 40\" preserveAspectRatio=\"none\" "
           "aria-label=\"unanswered probes by hour of the day\">" +
           bars +
           "</svg><div class=\"axis\" aria-hidden=\"true\"><span>0</span><span>6</span>"
           "<span>12</span><span>18</span><span>24</span></div></figure>";
}

std::string outage_table(const UplinkReport& uplink, std::size_t most) {
    if (uplink.outages.empty()) {
        return "<p class=\"none\">No outage was seen.</p>";
    }
    std::string text =
        "<table class=\"outages\"><thead><tr><th>Begin</th><th>End</th><th>Length</th>"
        "<th>Reason</th></tr></thead><tbody>";
    std::size_t told = 0;
    for (auto outage = uplink.outages.rbegin(); outage != uplink.outages.rend() && told < most;
         ++outage, ++told) {
        text += "<tr><td data-name=\"Begin\">" + local_time(outage->begin_ms) +
                "</td><td data-name=\"End\">" +
                (outage->is_going_on ? "going on" : local_time(outage->end_ms)) +
                "</td><td data-name=\"Length\">" + escaped(length_of(*outage)) +
                "</td><td data-name=\"Reason\">" + escaped(outage->reason) + "</td></tr>";
    }
    text += "</tbody></table>";
    if (uplink.outages.size() > most) {
        text += "<p class=\"none\">and " + std::to_string(uplink.outages.size() - most) +
                " earlier ones</p>";
    }
    return text;
}

std::string page_head(const std::string& title, bool with_script) {
    return "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta name=\"color-scheme\" content=\"light dark\">\n<title>" +
           escaped(title) + "</title>\n<link rel=\"icon\" href=\"data:,\">\n<style>\n" +
           std::string(page_style) + "</style>\n" +
           (with_script ? "<script src=\"/page.js\" defer></script>\n" : "") + "</head>\n";
}

}  // namespace lbwatch
