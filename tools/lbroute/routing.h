#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "lbroute/bird2.h"
#include "lbroute/journal.h"
#include "lbroute/namespaces.h"
#include "lbroute/options.h"
#include "lbroute/surroundings.h"

namespace lbroute {

/// Has the kernel, or bird where `--bird2` names a file, route as the fragments ask, and tells what
/// changed by that. For one thread.
class Routing {
  public:
    /// Both outlive this object.
    Routing(const Options& options, Journal& journal);

    /// The namespace is entered. What waits for the dumps waits until `uncertain_until_ms`.
    ServedNamespace::Result route(Served& served, const Surroundings& surroundings);

    bool is_for_bird() const { return !options_.bird2_file.empty(); }
    /// Has bird route nothing; gives what kept it from that.
    std::vector<std::string> flush_bird();

  private:
    bool hand_to_bird(const Served& served, const ServedNamespace::Result& result,
                      Journal::Problems& problems);
    void tell(Served& served, const ServedNamespace::Result& result);
    void tell_changes(Served& served, const ServedNamespace::Result& result) const;
    void tell_put_back(Served& served, std::ptrdiff_t steps) const;
    void forget_flows(Served& served, const std::vector<Address>& addresses);

    const Options& options_;
    Journal& journal_;
    Bird2File bird_;
};

}  // namespace lbroute
