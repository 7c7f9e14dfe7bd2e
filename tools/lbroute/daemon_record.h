#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>

#include "lbroute/kernel_state.h"
#include "lbroute/served_namespace.h"
#include "lbroute/state_folder.h"

/// What the running program leaves for `lbroute status` in the state folder's file `status`: what
/// only it can know: the kernel's refusals, the namespaces it does not serve, and its own options.
namespace lbroute {

struct DaemonRecord {
    pid_t pid = 0;      ///< 0: there is no record
    std::string start;  ///< of the process, as `start_of` gives it
    std::uint32_t table = main_table;
    bool is_sticky = true;
    std::string bird2_file;
    /// (namespace, gateway, interface) -> why the kernel refuses it
    std::map<std::tuple<std::string, std::string, std::string>, std::string> refused_hops;
    /// (namespace, prefix) -> why the kernel refuses it
    std::map<std::pair<std::string, std::string>, std::string> refused_routes;
    /// namespace -> why the place of its routing daemon could not be taken
    std::map<std::string, std::string> not_served;

    bool is_running() const;  ///< its process lives

    bool operator==(const DaemonRecord&) const = default;
};

/// Replaces what the record says of a namespace by what this view says.
void note_refusals(DaemonRecord& record, const std::string& namespace_name, const View& view);

/// Marks in a plan what the running program was refused.
void apply_refusals(const DaemonRecord& record, const std::string& namespace_name, View& view);

std::string record_text(const DaemonRecord& record);
/// An empty record where the text is none.
DaemonRecord parse_record(const std::string& text);

/// Gives what went wrong, or an empty text.
std::string write_record(const StateFolder& folder, const DaemonRecord& record);
DaemonRecord read_record(const StateFolder& folder);

}  // namespace lbroute
