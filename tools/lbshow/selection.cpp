#include "lbshow/selection.h"

#include <algorithm>
#include <map>

namespace lbshow {

namespace {

template <class Item, class Keep>
void keep_if(std::vector<Item>& items, Keep keep) {
    std::erase_if(items, [&keep](const Item& item) { return !keep(item); });
}

}  // namespace

std::string select(dumps::State& state, const Selection& selection) {
    std::map<std::string, bool> is_known;
    for (const std::string& name : selection.names) {
        is_known[name] = false;
    }
    const auto keep_named = [&](auto& items, bool is_asked_for, auto has_name) {
        keep_if(items, [&](const auto& item) {
            bool is_named = selection.names.empty();
            for (auto& [name, known] : is_known) {
                if (is_asked_for && has_name(item, name)) {
                    known = true;
                    is_named = true;
                }
            }
            return is_asked_for && is_named;
        });
    };
    keep_named(
        state.interfaces, selection.interfaces,
        [](const dumps::Interface& item, const std::string& name) { return item.name == name; });
    keep_named(state.rules, selection.rules, [](const dumps::Rule& item, const std::string& name) {
        return item.name() == name || std::to_string(item.number) == name;
    });
    keep_named(state.routes, selection.routes,
               [](const dumps::Route& item, const std::string& name) {
                   return item.prefix == name || item.rule_name() == name ||
                          std::to_string(item.rule_number) == name;
               });
    const auto unknown =
        std::find_if(is_known.begin(), is_known.end(), [](const auto& one) { return !one.second; });
    return unknown == is_known.end() ? "" : unknown->first;
}

}  // namespace lbshow
