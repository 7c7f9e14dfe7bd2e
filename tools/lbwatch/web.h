#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lbwatch/board.h"
#include "lbwatch/host_names.h"

namespace lbwatch {

/// Answers requests from the board and the history: `/`, `/page.js`, `/metrics`, `/api/state`,
/// `/api/events` and `/api/report`. `hosts` are names of this machine beside its own. It only
/// reads, and no path of a request names a file. One thread at a time.
class Web {
  public:
    Web(const Board& board, std::string version, std::vector<std::string> hosts = {});
    ~Web();

    /// The whole answer to a whole request head: request line and headers, up to and with its empty
    /// line. Only GET and HEAD are answered; of the headers that of the host alone has an effect.
    std::string answer(const std::string& head);

    /// Whether the request names this machine; what does not is refused by answer().
    bool is_meant(const std::string& head) const { return hosts_.accept(head); }

    /// Whether the request asks for the stream of events, which the caller then keeps up; the
    /// number behind which it goes on into `after`.
    static bool is_stream(const std::string& head, std::uint64_t& after);

  private:
    class Routes;
    std::unique_ptr<Routes> routes_;
    HostNames hosts_;
};

}  // namespace lbwatch
