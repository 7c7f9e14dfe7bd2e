#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lbroute/address.h"
#include "lbroute/fragment_file.h"
#include "lbroute/plan.h"

/// The routes in the syntax of bird 2 and 3, for machines where one of them writes the kernel's.
namespace lbroute {

struct Bird2Hop {
    Address gateway;
    std::string interface;    ///< named in the text where known; a link-local gateway needs it
    int weight = 1;           ///< above 0; scaled to bird's 1 to 256 within its route
    int link = 0;             ///< the interface's number
    bool is_on_link = false;  ///< as in PlannedHop

    bool operator==(const Bird2Hop&) const = default;
};

struct Bird2Route {
    Prefix prefix;
    std::vector<Bird2Hop> hops;
    std::optional<std::uint32_t> metric;  ///< bird's krt_metric

    bool operator==(const Bird2Route&) const = default;
};

/// The routes of one family.
struct Bird2Routes {
    bool check_link = false;
    std::vector<Bird2Route> routes;
};

struct Bird2Text {
    std::string text;                   ///< of the whole file, one static protocol a family
    std::vector<std::string> left_out;  ///< what bird cannot be told, for the log
};

/// The family's routes of a plan, with the next hops that are in use; a route without any is none.
Bird2Routes bird2_routes(const std::vector<PlannedRoute>& planned, Family family, bool check_link);

Bird2Text bird2_text(const Bird2Routes& ipv4, const Bird2Routes& ipv6);

/// The text for a namespace: its plan, with the line about links where its fragment has it.
Bird2Text bird2_text_of_plan(const std::vector<PlannedRoute>& planned,
                             const std::array<FragmentFile, 2>& fragments);

/// The file that bird's configuration includes, and the command that makes bird read it. For one
/// thread.
class Bird2File {
  public:
    Bird2File(std::string path, std::string command)
        : path_(std::move(path)), command_(std::move(command)) {}

    /// Puts the text in force: writes the file where it holds another (whole, by renaming), and
    /// runs the command after a write, after a failed command, and at the first call. Blocks for as
    /// long as the command runs, ten seconds at most. Gives what failed, or an empty text.
    std::string put(const std::string& text);
    /// What the file holds now; empty where it cannot be read.
    std::string text() const;

  private:
    std::string write(const std::string& text) const;

    std::string path_;
    std::string command_;
    bool is_in_force_ = false;
};

}  // namespace lbroute
