#include "unit/support/loaded.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <utility>

TemporaryFile::TemporaryFile(const std::string& content) {
    std::string name = "/tmp/lb-unit-XXXXXX";
    const int number = mkstemp(name.data());
    FILE* const file = fdopen(number, "w");
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
    path_ = name;
}

TemporaryFile::~TemporaryFile() {
    unlink(path_.c_str());
}

std::string content_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

Loaded::Loaded(const std::string& configuration) {
    const TemporaryFile file(configuration);
    is_complete = factory.load(file.path());
}

TestContext::TestContext(bool ipv6, std::string ns_name) : name(std::move(ns_name)) {
    ctx.ipv6 = ipv6;
    ctx.ns_name = &name;
    ctx.view = &view;
    ctx.own = &own;
}
