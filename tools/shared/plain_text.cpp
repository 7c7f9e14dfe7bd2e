#include "shared/plain_text.h"

#include <array>
#include <cstdio>

namespace shared {

std::string harmless(const std::string& text) {
    std::string shown;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte < 0x7f) {
            shown += character;
            continue;
        }
        std::array<char, 5> escaped{};
        snprintf(escaped.data(), escaped.size(), "\\x%02x", static_cast<unsigned>(byte));
        shown += escaped.data();
    }
    return shown;
}

std::string or_dash(const std::string& text) {
    return text.empty() ? "-" : harmless(text);
}

}  // namespace shared
