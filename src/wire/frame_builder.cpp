#include "wire/frame_builder.h"

#include <algorithm>

#include "wire/checksum.h"

namespace {

EthernetHeader ethernet(const MacAddress& destination, const MacAddress& source,
                        std::uint16_t ethertype) {
    return {.destination = destination, .source = source, .ethertype = ethertype};
}

IcmpEcho echo_request(std::uint8_t type, std::uint16_t identifier, std::uint16_t sequence,
                      std::uint32_t packet_id) {
    IcmpEcho icmp;
    icmp.type = type;
    icmp.identifier = identifier;
    icmp.sequence = sequence;
    icmp.packet_id = packet_id;
    return icmp;
}

}  // namespace

void set_sequence(IcmpEcho& icmp, std::uint16_t sequence) {
    icmp.sequence = sequence;
    icmp.checksum = 0;
    icmp.checksum = internet_checksum(bytes_of(icmp));
}

EchoFrame4 echo_frame4(const MacAddress& destination, const MacAddress& source_mac,
                       const Ipv4Bytes& source, const Ipv4Bytes& target, std::uint16_t identifier,
                       std::uint32_t packet_id) {
    EchoFrame4 frame;
    frame.ethernet = ethernet(destination, source_mac, ethertype_ipv4);
    frame.ip.total_length = sizeof frame.ip + sizeof frame.icmp;
    frame.ip.source = source;
    frame.ip.destination = target;
    frame.ip.checksum = internet_checksum(bytes_of(frame.ip));
    frame.icmp = echo_request(icmp_echo_request, identifier, 0, packet_id);
    frame.icmp.checksum = internet_checksum(bytes_of(frame.icmp));
    return frame;
}

EchoFrame6 echo_frame6(const MacAddress& destination, const MacAddress& source_mac,
                       const Ipv6Bytes& source, const Ipv6Bytes& target, std::uint16_t identifier,
                       std::uint32_t packet_id) {
    EchoFrame6 frame;
    frame.ethernet = ethernet(destination, source_mac, ethertype_ipv6);
    frame.ip.payload_length = sizeof frame.icmp;
    frame.ip.source = source;
    frame.ip.destination = target;
    frame.icmp = echo_request(icmp6_echo_request, identifier, 0, packet_id);
    frame.icmp.checksum = icmp6_checksum(frame.ip, bytes_of(frame.icmp));
    return frame;
}

TunnelEcho4 tunnel_echo4(std::uint16_t identifier, std::uint16_t sequence,
                         std::uint32_t packet_id) {
    TunnelEcho4 message;
    message.icmp = echo_request(icmp_echo_request, identifier, sequence, packet_id);
    message.icmp.checksum = internet_checksum(bytes_of(message.icmp));  // the padding adds nothing
    return message;
}

TunnelEcho6 tunnel_echo6(std::uint16_t identifier, std::uint32_t seconds,
                         std::uint32_t microseconds, std::uint32_t packet_id) {
    TunnelEcho6 message;
    message.identifier = identifier;
    message.sequence = 1;
    message.seconds = seconds;
    message.microseconds = microseconds;
    message.packet_id = packet_id;
    message.checksum = internet_checksum(bytes_of(message).first(offsetof(TunnelEcho6, padding)));
    return message;
}

ArpFrame arp_request_frame(const MacAddress& source_mac, const Ipv4Bytes& source,
                           const Ipv4Bytes& target) {
    ArpFrame frame;
    frame.ethernet = ethernet(broadcast_mac, source_mac, ethertype_arp);
    frame.operation = arp_request;
    frame.sender_mac = source_mac;
    frame.sender_address = source;
    frame.target_address = target;
    return frame;
}

NeighborSolicitation neighbor_solicitation(const MacAddress& source_mac, const Ipv6Bytes& source,
                                           const Ipv6Bytes& destination, const Ipv6Bytes& target) {
    NeighborSolicitation frame;
    frame.ethernet = ethernet({0x33, 0x33, 0xff, target[13], target[14], target[15]}, source_mac,
                              ethertype_ipv6);
    frame.ip.payload_length = sizeof frame - offsetof(NeighborSolicitation, type);
    frame.ip.source = source;
    frame.ip.destination = destination;
    std::copy(target.begin() + 13, target.end(), frame.ip.destination.begin() + 13);
    frame.target = target;
    frame.option_mac = source_mac;
    frame.checksum =
        icmp6_checksum(frame.ip, bytes_of(frame).subspan(offsetof(NeighborSolicitation, type)));
    return frame;
}
