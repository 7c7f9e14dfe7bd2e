#include "lbroute/surroundings.h"

namespace lbroute {

Surroundings surroundings_of(const std::string& namespace_name, const Uplinks& uplinks,
                             const std::vector<Hold>& holds) {
    Surroundings surroundings{.uplinks = uplinks, .held = {}};
    for (const Hold& hold : holds) {
        if (hold.namespace_name == namespace_name) {
            surroundings.held[hold.family == Family::ipv4 ? 0 : 1][hold.interface] = hold.is_forced;
        }
    }
    return surroundings;
}

}  // namespace lbroute
