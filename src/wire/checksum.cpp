#include "wire/checksum.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace {

/// The sum of the 16-bit words of `data`, without a byte left over.
std::uint32_t sum_words(std::span<const std::uint8_t> data) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
        sum += static_cast<std::uint32_t>(data[i] << 8U | data[i + 1]);
    }
    return sum;
}

std::uint16_t fold_and_complement(std::uint32_t sum) {
    while (sum >> 16U != 0) {
        sum = (sum >> 16U) + (sum & 0xffffU);
    }
    return static_cast<std::uint16_t>(~sum & 0xffffU);
}

bool has_odd_byte(std::span<const std::uint8_t> data) {
    return data.size() % 2 != 0;
}

}  // namespace

std::uint16_t internet_checksum(std::span<const std::uint8_t> data) {
    const std::uint32_t left_over = has_odd_byte(data) ? data.back() : 0U;
    return fold_and_complement(sum_words(data) + left_over);
}

std::uint16_t internet_checksum(const unsigned short* data, int length) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
    return internet_checksum({bytes, length > 0 ? static_cast<std::size_t>(length) : 0U});
}

std::uint16_t icmp6_checksum(const Ipv6Header& ip, std::span<const std::uint8_t> message) {
    Ipv6PseudoHeader pseudo;
    pseudo.source = ip.source;
    pseudo.destination = ip.destination;
    pseudo.upper_layer_length = static_cast<std::uint32_t>(message.size());
    pseudo.next_header = ip.next_header;
    const std::uint32_t padded = has_odd_byte(message) ? std::uint32_t{message.back()} << 8U : 0U;
    return fold_and_complement(sum_words(bytes_of(pseudo)) + sum_words(message) + padded);
}

namespace {

/// The header with a checksum of 0 and the data behind it.
std::vector<std::uint8_t> joined(const IcmpHeaderBytes& header, const unsigned char* data,
                                 int length) {
    constexpr std::size_t checksum_at = offsetof(IcmpEcho, checksum);
    const auto count = static_cast<std::size_t>(std::max(length, 0));
    std::vector<std::uint8_t> message(header.begin(), header.end());
    std::fill_n(message.begin() + checksum_at, sizeof(Be16), std::uint8_t{0});
    message.insert(message.end(), data, data + count);
    return message;
}

}  // namespace

std::uint16_t icmp4_checksum(IcmpHeaderBytes header, const unsigned char* data, int length) {
    std::vector<std::uint8_t> message = joined(header, data, length);
    message.resize(message.size() + message.size() % 2);
    return internet_checksum(message);
}

std::uint16_t icmp6_checksum(const Ipv6Header& ip, IcmpHeaderBytes header,
                             const unsigned char* data, int length) {
    return icmp6_checksum(ip, joined(header, data, length));
}
