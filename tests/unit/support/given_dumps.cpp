#include "unit/support/given_dumps.h"

#include "dumps/freshness.h"
#include "dumps/in_force.h"

namespace given {

Dump outbound(bool is_big) {
    return Bytes(4312, is_big)
        .text(0, "gi1_1")
        .text(64, "blue")
        .text(96, "192.0.2.1")
        .text(142, "192.0.2.10")
        .text(188, "198.51.100.1")
        .number(234, 3)
        .byte(242, 1)
        .byte(244, 0xe8)
        .text(270, "198.51.100.2")
        .number(320, 2)
        .byte(324, 2)
        .byte(325, 1)
        .number(328, 10)
        .number(332, 104)
        .number(336, 896)
        .number(340, 1)
        .number(344, 200)
        .number(348, 50)
        .byte(4288, 2)
        .number(4289, 5)
        .number(4293, 0)
        .number(4297, 900)
        .number(4301, 3)
        .number(4305, 2)
        .byte(4309, 1)
        .byte(4311, 1);
}

Dump rule(bool is_big) {
    return Bytes(3343, is_big)
        .text(0, "gi1_1")
        .byte(64, 3)
        .text(66, "eth0")
        .byte(130, 1)
        .byte(131, 1)
        .byte(3300, 2)
        .text(3301, "blue")
        .number(3337, 12)
        .byte(3341, 1);
}

Dump route(bool is_big) {
    return Bytes(109, is_big)
        .text(0, "10.0.0.0/8")
        .text(50, "192.0.2.1")
        .number(96, 0xffffffff)
        .number(100, 1)
        .number(104, 12);
}

dumps::State state() {
    return {.interfaces = dumps::read_interfaces(outbound(), 4, false).items,
            .rules = dumps::read_rules(rule(), false).items,
            .routes = dumps::read_routes(route(), false).items,
            .dump_directory = "/run/load-balance/wlb_dump",
            .files = {{.name = dumps::outbounds_name(4), .written = written},
                      {.name = "wlb_rules.bin", .written = written},
                      {.name = "wlb_routes.bin", .written = written}}};
}

dumps::State judged(std::int64_t age_s) {
    dumps::State made = state();
    dumps::judge_freshness(made, written + std::chrono::seconds(age_s), std::nullopt);
    dumps::resolve_next_hops(made);
    return made;
}

}  // namespace given
