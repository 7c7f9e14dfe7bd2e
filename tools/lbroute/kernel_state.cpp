#include "lbroute/kernel_state.h"

#include <algorithm>

namespace lbroute {

namespace {

template <class Item, class Value, class Key>
const Item* find_by(const std::vector<Item>& items, Value Item::*member, const Key& key) {
    const auto found = std::ranges::find(items, key, member);
    return found == items.end() ? nullptr : &*found;
}

}  // namespace

const Link* KernelState::link(int index) const {
    return find_by(links, &Link::index, index);
}
const Link* KernelState::link(const std::string& name) const {
    return find_by(links, &Link::name, name);
}
const HopObject* KernelState::hop(std::uint32_t id) const {
    return find_by(hops, &HopObject::id, id);
}
const Group* KernelState::group(std::uint32_t id) const {
    return find_by(groups, &Group::id, id);
}

}  // namespace lbroute
