#include "lbsim/packed.h"

#include <nlohmann/json.hpp>

namespace lbsim {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Uplink, name, is_ipv6, ns_name, nexthop, source, targets,
                                   has_nexthop_as_target, settle_us, start_us, failure_us,
                                   answer_us)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Loaded, uplinks, messages, without_worker)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ObservedChange, at_us, kind, uplink, is_ipv6, ns_name, is_up,
                                   text)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Routed, at_us, uplink, is_routed)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Run, told, routed, duration_us, cycles, made_up_routers, echoes,
                                   reloads)

namespace {

template <class Result>
std::string pack(const Result& result) {
    std::string bytes;
    nlohmann::json::to_cbor(result, bytes);
    return bytes;
}

}  // namespace

std::string packed(const Loaded& loaded) {
    return pack(loaded);
}

std::string packed(const Run& run) {
    return pack(run);
}

Loaded unpacked_loaded(const std::string& bytes) {
    return nlohmann::json::from_cbor(bytes).get<Loaded>();
}

Run unpacked_run(const std::string& bytes) {
    return nlohmann::json::from_cbor(bytes).get<Run>();
}

}  // namespace lbsim
