#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>

/// One value per network namespace, keyed by the namespace's name (empty: the default namespace).
/// Several threads fill and read such a table at once; the table guards itself, and no call blocks.
template <class Value>
class NamespaceTable {
  public:
    /// The value of the namespace, or a default one where none was set.
    Value get(const std::string& ns_name) const {
        const std::lock_guard guard(lock_);
        const auto found = values_.find(ns_name);
        return found == values_.end() ? Value{} : found->second;
    }

    void set(const std::string& ns_name, Value value) { exchange(ns_name, std::move(value)); }

    /// Sets the value and returns the one before.
    Value exchange(const std::string& ns_name, Value value) {
        const std::lock_guard guard(lock_);
        return std::exchange(values_[ns_name], std::move(value));
    }

  private:
    mutable std::mutex lock_;
    std::map<std::string, Value> values_;  // guarded by lock_
};
