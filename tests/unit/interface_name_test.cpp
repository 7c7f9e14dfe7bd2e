#include "config/interface_name.h"

#include <gtest/gtest.h>

namespace {

struct Name {
    const char* kernel;
    const char* router;
};

class InterfaceName : public testing::TestWithParam<Name> {};

TEST_P(InterfaceName, is_translated) {
    EXPECT_EQ(linux_ifname_to_qel_ifname(GetParam().kernel, nullptr), GetParam().router);
}

INSTANTIATE_TEST_SUITE_P(
    All, InterfaceName,
    testing::Values(Name{"gi1_3", "gigabitethernet 1/0/3"},
                    Name{"gi1_3.100", "gigabitethernet 1/0/3.100"},
                    Name{"gi1_3.100.20", "gigabitethernet 1/0/3.100.20"},
                    Name{"te1_2", "tengigabitethernet 1/0/2"},
                    Name{"te1_2.4000.4000", "tengigabitethernet 1/0/2.4000.4"},  // cut at 31
                    Name{"gi1_3.1.2.3", "gigabitethernet 1/0/3.1.2"}, Name{"gi1", ""},
                    Name{"gre_7", "gre 7"}, Name{"gre7", ""}, Name{"lt_2", "lt 2"},
                    Name{"ip4ip4_1", "ip4ip4 1"}, Name{"br0", "bridge 0"}, Name{"bridge0", ""},
                    Name{"po1", "port-channel 1"}, Name{"po1.10", "port-channel 1.10"},
                    Name{"po1.10.20", "port-channel 1.10.20"}, Name{"lo_0", "loopback 0"},
                    Name{"lo", ""}, Name{"lo0", ""}, Name{"modem2", "modem 2"}, Name{"eth0", ""},
                    Name{"ppp0", ""}, Name{"tun0", ""}, Name{"", ""}, Name{"xgi1_1", ""}));

TEST(ShownName, of_a_name_without_a_counterpart_says_so) {
    EXPECT_EQ(shown_ifname("eth0", nullptr), "unknown interface");
    EXPECT_EQ(shown_ifname("po1", nullptr), "port-channel 1");
}

}  // namespace
