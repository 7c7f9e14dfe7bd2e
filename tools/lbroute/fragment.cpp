#include "lbroute/fragment.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <map>
#include <system_error>
#include <utility>
#include <variant>

namespace lbroute {

namespace {

constexpr std::string_view first_line = "protocol static {";
constexpr std::string_view last_line = "};";
constexpr std::string_view link_line = "check link 1;";
constexpr std::size_t most_faults = 20;

/// A piece of the text for a message: short, and without bytes that act on a terminal.
std::string quoted(std::string_view piece) {
    constexpr std::size_t longest = 60;
    std::string shown(piece.substr(0, longest));
    std::ranges::replace_if(
        shown, [](char c) { return c < ' ' || c > '~'; }, '?');
    return "'" + shown + (piece.size() > longest ? "...'" : "'");
}

/// Takes the next word off the front; words are parted by blanks, as `lb` writes them.
std::string_view take_word(std::string_view& rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(word.size());
    return word;
}

template <class Number>
std::optional<Number> number_in(std::string_view word, Number least, Number greatest) {
    Number number{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc{} || end != word.data() + word.size() || number < least ||
        number > greatest) {
        return std::nullopt;
    }
    return number;
}

using Reason = std::string;

std::variant<Prefix, Reason> read_prefix(std::string_view word, Family family) {
    const std::size_t slash = word.find('/');
    const auto address = Address::parse(word.substr(0, slash), family);
    if (!address) {
        return quoted(word) + " is no " + std::string(name_of(family)) + " prefix";
    }
    if (slash == std::string_view::npos) {
        return quoted(word) + " has no length; for this host alone write " + address->text() + "/" +
               std::to_string(bits_of(family));
    }
    const auto length = number_in<int>(word.substr(slash + 1), 0, bits_of(family));
    if (!length) {
        return quoted(word) + " has no length of 0 to " + std::to_string(bits_of(family));
    }
    // Network or host: which one was meant, only the operator knows.
    const Prefix network{.address = network_of(*address, *length), .length = *length};
    if (network.address != *address) {
        return quoted(word) + " has bits beyond its length; write " + network.text() + " or " +
               address->text() + "/" + std::to_string(bits_of(family));
    }
    return network;
}

/// One line of a route being read; what it finds wrong goes to the list of faults.
class RouteReader {
  public:
    RouteReader(std::string_view line, Family family) : rest_(line), family_(family) {}

    /// None: the line gives no route, and a reason says why.
    std::optional<FragmentRoute> read() {
        if (!rest_.ends_with(';')) {
            return refuse("the route's line does not end with a semicolon");
        }
        rest_.remove_suffix(1);
        take_word(rest_);  // "route"
        auto prefix = read_prefix(take_word(rest_), family_);
        if (const auto* reason = std::get_if<Reason>(&prefix)) {
            return refuse(*reason);
        }
        FragmentRoute route{.prefix = std::get<Prefix>(prefix), .hops = {}, .metric = {}};
        place_ = "route " + route.prefix.text() + ": ";
        if (const auto word = take_word(rest_); word != "multipath") {
            return refuse("'multipath' expected, found " + quoted(word));
        }
        return read_hops(std::move(route));
    }

    const std::vector<std::string>& reasons() const { return reasons_; }

  private:
    std::nullopt_t refuse(const std::string& reason) {
        reasons_.push_back(place_ + reason + "; the route is left out");
        return std::nullopt;
    }

    std::optional<FragmentRoute> read_hops(FragmentRoute route) {
        std::string_view word = take_word(rest_);
        for (; word == "via"; word = take_word(rest_)) {
            const std::string_view gateway = take_word(rest_);
            if (const auto after = take_word(rest_); after != "weight") {
                return refuse("'weight' expected, found " + quoted(after));
            }
            add_hop(route, gateway, take_word(rest_));
        }
        if (word == "metric") {
            const std::string_view metric = take_word(rest_);
            route.metric =
                number_in<std::uint32_t>(metric, 0, std::numeric_limits<std::uint32_t>::max());
            if (!route.metric) {
                return refuse("metric " + quoted(metric) + " is not within 0 to 4294967295");
            }
            word = take_word(rest_);
        }
        if (!word.empty()) {
            return refuse(quoted(word) + " is not understood");
        }
        if (route.hops.empty()) {
            return refuse("it has no next hop");
        }
        return route;
    }

    void add_hop(FragmentRoute& route, std::string_view gateway, std::string_view weight) {
        const auto address = Address::parse(gateway, family_);
        const auto number = number_in<int>(weight, 1, std::numeric_limits<int>::max());
        if (!address) {
            reasons_.push_back(place_ + "next hop " + quoted(gateway) + " is no " +
                               std::string(name_of(family_)) + " address; it is left out");
        } else if (!number) {
            reasons_.push_back(place_ + "weight " + quoted(weight) + " of next hop " +
                               address->text() + " is not within 1 to 2147483647; it is left out");
        } else {
            route.hops.push_back({.gateway = *address, .weight = *number});
        }
    }

    std::string_view rest_;
    Family family_;
    std::string place_;
    std::vector<std::string> reasons_;
};

/// Faults in the order of the lines, not more than an operator reads.
class Faults {
  public:
    void add(int line, std::string reason) {
        if (list_.size() < most_faults) {
            list_.push_back({.line = line, .reason = std::move(reason)});
            return;
        }
        first_untold_ = untold_ == 0 ? line : first_untold_;
        ++untold_;
    }

    std::vector<FragmentFault> all() && {
        if (untold_ > 0) {
            list_.push_back({.line = first_untold_,
                             .reason = "and " + std::to_string(untold_) + " more from here on"});
        }
        return std::move(list_);
    }

  private:
    std::vector<FragmentFault> list_;
    int untold_ = 0;
    int first_untold_ = 0;
};

/// Takes the next line off the front, without its newline.
std::string_view take_line(std::string_view& rest) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    return line;
}

FragmentReading incomplete(int line, std::string reason) {
    return {.wholeness = Wholeness::incomplete,
            .fragment = {},
            .faults = {{.line = line, .reason = std::move(reason)}}};
}

}  // namespace

FragmentReading parse_fragment(std::string_view text, Family family) {
    if (text.empty()) {
        return {};
    }
    std::string_view rest = text;
    if (const auto line = take_line(rest); line != first_line) {
        return incomplete(1, "'" + std::string(first_line) + "' expected, found " + quoted(line));
    }
    std::map<Prefix, FragmentRoute> routes;
    Faults faults;
    bool check_link = false;
    int number = 2;
    for (;; ++number) {
        if (rest.empty()) {
            return incomplete(number, "the file ends before its closing '};' line");
        }
        const std::string_view line = take_line(rest);
        if (line == last_line) {
            break;
        }
        if (line == link_line) {
            check_link = true;
        } else if (line.starts_with("route ")) {
            RouteReader reader(line, family);
            if (auto route = reader.read()) {
                const Prefix prefix = route->prefix;
                routes.insert_or_assign(prefix, std::move(*route));
            }
            for (const std::string& reason : reader.reasons()) {
                faults.add(number, reason);
            }
        } else {
            faults.add(number, quoted(line) + " is not understood; the line is left out");
        }
    }
    if (!rest.empty()) {
        return incomplete(number + 1, "text follows the closing '};' line");
    }
    FragmentReading reading{.wholeness = Wholeness::whole,
                            .fragment = {.check_link = check_link, .routes = {}},
                            .faults = std::move(faults).all()};
    for (auto& [prefix, route] : routes) {
        reading.fragment.routes.push_back(std::move(route));
    }
    return reading;
}

}  // namespace lbroute
