// Requests to the page and the metrics, as they come from a network.
#include <string>

#include "fuzz/input.h"
#include "lbwatch/board.h"
#include "lbwatch/web.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const lbwatch::Board board;
    static lbwatch::Web web(board, "fuzz");
    const std::string head(reinterpret_cast<const char*>(data), size);
    std::uint64_t after = 0;
    lbwatch::Web::is_stream(head, after);
    web.answer(head);
    return 0;
}
