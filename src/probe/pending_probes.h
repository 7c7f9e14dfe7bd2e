#pragma once

#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>

/// One probe in flight.
struct PktData {
    static constexpr int sent = -2;
    static constexpr int answered = 0;

    std::string interface;  ///< kernel name of the interface it was sent through
    int status = sent;
    timespec send_time{};  ///< monotonic clock
    std::string target;
};

/// The probes in flight of one family, in all namespaces: by packet identifier, which a reply
/// carries, and by interface and target, of which at most one probe is in flight.
/// The caller holds the family's result mutex.
class PendingProbes {
  public:
    /// The identifier of the probe of that interface and target.
    std::optional<int> find(const std::string& interface, const std::string& target) const;
    /// The probe of an identifier, or null.
    const PktData* find(int packet_id) const;

    /// Adds a probe. An identifier that is still in flight, after a full wrap, keeps its entry.
    void insert(int packet_id, const PktData& probe);
    void erase(int packet_id);
    /// Marks the probe of that identifier as answered; an unknown identifier changes nothing.
    void mark_answered(int packet_id);

    std::size_t size() const { return by_id_.size(); }

  private:
    std::map<int, PktData> by_id_;
    std::unordered_map<std::string, int> by_path_;
};
