#pragma once

#include <string>

#include "config/lb_data_factory.h"
#include "config/own_records.h"
#include "probe/host_view.h"

/// A file of the test's own, removed with it.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& content);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

/// The whole content of a file.
std::string content_of(const std::string& path);

/// A loader that has read this configuration.
struct Loaded {
    explicit Loaded(const std::string& configuration);

    LBDataFactory factory;
    bool is_complete = false;  ///< what load() returned
    const LBData& data() const { return factory.data; }
    LBHealth& health(const std::string& name) { return factory.data.health.at(name); }
    LBHealth& health6(const std::string& name) { return factory.data.health6.at(name); }
};

/// A worker's context for tests.
struct TestContext {
    explicit TestContext(bool ipv6 = false, std::string ns_name = "");

    std::string name;
    HostView view;
    OwnRecords own;
    context ctx;
    operator context*() { return &ctx; }
};
