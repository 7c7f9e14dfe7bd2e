#include "lbsim/table.h"

#include <algorithm>
#include <utility>

namespace lbsim {

Table::Table(std::vector<std::string> head, std::size_t flush_left)
    : lines_{std::move(head)}, flush_left_(flush_left) {}

void Table::add(std::vector<std::string> cells) {
    lines_.push_back(std::move(cells));
}

std::string Table::text() const {
    std::vector<std::size_t> widths(lines_.front().size(), 0);
    for (const auto& line : lines_) {
        for (std::size_t i = 0; i < line.size(); ++i) {
            widths[i] = std::max(widths[i], line[i].size());
        }
    }
    std::string text;
    for (const auto& line : lines_) {
        std::string row;
        for (std::size_t i = 0; i < line.size(); ++i) {
            const std::string blanks(widths[i] - line[i].size(), ' ');
            row += i == 0 ? "" : "  ";
            row += i < flush_left_ ? line[i] + blanks : blanks + line[i];
        }
        row.erase(row.find_last_not_of(' ') + 1);
        text += row + '\n';
    }
    return text;
}

std::string shown_seconds(std::int64_t duration_us) {
    const std::int64_t tenths = (duration_us + (duration_us < 0 ? -50'000 : 50'000)) / 100'000;
    const std::int64_t size = tenths < 0 ? -tenths : tenths;
    std::string text = tenths < 0 ? "-" : "";
    text += std::to_string(size / 10);
    text += '.';
    text += std::to_string(size % 10);
    return text + " s";
}

}  // namespace lbsim
