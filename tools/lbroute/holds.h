#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lbroute/address.h"
#include "lbroute/state_folder.h"

/// Maintenance holds: uplinks that an operator took out of the routes, whatever `lb` says.
///
/// They lie in the state folder's file `holds`, which the commands `hold` and `release` change and
/// the running program reads. Times are milliseconds of CLOCK_BOOTTIME: it runs on in suspend, no
/// setting of the wall clock moves it, and like the folder it begins anew with the machine.
namespace lbroute {

/// One uplink in one family; an uplink held in both has two of them.
struct Hold {
    std::string namespace_name;  ///< empty: the default namespace
    std::string interface;
    Family family = Family::ipv4;
    std::optional<std::int64_t> until_ms;  ///< none: until it is released
    bool is_forced = false;                ///< also out of routes that are left without a next hop

    bool operator==(const Hold&) const = default;
};

/// Holds read, and what was wrong with the file; what is right of it counts.
struct HoldsReading {
    std::vector<Hold> holds;
    std::string problem;
    bool is_unread = false;  ///< what the file holds is not known: nobody could read it
};

std::int64_t boottime_ms();

/// `90s`, `30m`, `2h` or `1d` in milliseconds, up to ten years; none for anything else.
std::optional<std::int64_t> parse_duration_ms(std::string_view text);

/// Adds the hold, in the place of one of the same uplink and family.
void add_hold(std::vector<Hold>& holds, Hold hold);
/// Takes the uplink's hold out; false where there was none.
bool remove_hold(std::vector<Hold>& holds, const std::string& namespace_name,
                 const std::string& interface, Family family);
/// Takes out the holds whose time is over.
void drop_ended(std::vector<Hold>& holds, std::int64_t now_ms);
/// The uplink's hold in that family, null where it is not held. `holds` has no ended ones.
const Hold* hold_of(const std::vector<Hold>& holds, const std::string& namespace_name,
                    const std::string& interface, Family family);
/// When the next hold ends by itself.
std::optional<std::int64_t> next_end_ms(const std::vector<Hold>& holds);

/// The file's text (JSON) and back.
std::string holds_text(const std::vector<Hold>& holds);
HoldsReading parse_holds(std::string_view text);

/// The holds in force; a missing folder or file means none.
HoldsReading read_holds(const StateFolder& folder, std::int64_t now_ms);
/// Reads, changes and writes the file while no other command does. Gives the holds then in force;
/// `problem` may also name what was wrong with the file before.
struct HoldsChange {
    bool is_written = false;
    std::vector<Hold> holds;
    std::string problem;
};
HoldsChange change_holds(const StateFolder& folder, std::int64_t now_ms,
                         const std::function<void(std::vector<Hold>&)>& change);

}  // namespace lbroute
