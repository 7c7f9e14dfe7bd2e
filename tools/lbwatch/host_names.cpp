#include "lbwatch/host_names.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace lbwatch {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char character) {
        return static_cast<char>(std::tolower(character));
    });
    return text;
}

bool is_address(const std::string& text, int family) {
    std::array<unsigned char, sizeof(in6_addr)> address{};
    return inet_pton(family, text.c_str(), address.data()) == 1;
}

/// Without its port, in small letters and without the dot that ends a whole name.
std::string bare_name(const std::string& host) {
    std::string name = lower(host.substr(0, host.find(':', host.find(']') + 1)));
    if (name.ends_with('.')) {
        name.pop_back();
    }
    return name;
}

}  // namespace

HostNames::HostNames(std::string own, std::vector<std::string> given) : names_{"localhost"} {
    names_.push_back(bare_name(own));
    for (const std::string& name : given) {
        names_.push_back(bare_name(name));
    }
    own_ = names_[1].substr(0, names_[1].find('.'));
    // A machine without a name of its own is called so: anybody can call a site localhost.it.
    if (own_ == "localhost") {
        own_.clear();
    }
}

bool HostNames::accept_name(std::string name) const {
    name = bare_name(name);
    if (name.empty() || is_address(name, AF_INET)) {
        return true;
    }
    if (name.starts_with('[') && name.ends_with(']')) {
        // The zone of a link-local one may stand behind it.
        const std::string address = name.substr(1, name.size() - 2);
        return is_address(address.substr(0, address.find('%')), AF_INET6);
    }
    return std::find(names_.begin(), names_.end(), name) != names_.end() ||
           (!own_.empty() && (name == own_ || name.starts_with(own_ + ".")));
}

bool HostNames::accept(const std::string& head) const {
    constexpr const char* blank = " \t";
    for (std::size_t at = head.find("\r\n"); at != std::string::npos;) {
        const std::size_t begin = at + 2;
        at = head.find("\r\n", begin);
        const std::string line = head.substr(begin, at == std::string::npos ? at : at - begin);
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos || lower(line.substr(0, colon)) != "host") {
            continue;
        }
        const std::size_t first = line.find_first_not_of(blank, colon + 1);
        const std::size_t last = line.find_last_not_of(blank);
        if (first != std::string::npos && !accept_name(line.substr(first, last + 1 - first))) {
            return false;
        }
    }
    return true;
}

std::string own_host_name() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

}  // namespace lbwatch
