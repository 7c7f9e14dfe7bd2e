#include "platform/keep_alive_quorum.h"

bool KeepAliveQuorum::report(Worker worker) {
    known_.insert(worker);
    heard_.insert(worker);
    if (heard_.size() < known_.size()) {
        return false;
    }
    heard_.clear();
    return true;
}
