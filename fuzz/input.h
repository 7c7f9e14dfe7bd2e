#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

/// What the fuzz targets share. Each target is one file with libFuzzer's entry point; it hands the
/// bytes to the very function that the daemon or its companion uses.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// The bytes as a file to read from.
inline std::unique_ptr<FILE, int (*)(FILE*)> as_file(const std::uint8_t* data, std::size_t size) {
    FILE* const file =
        size == 0 ? fopen("/dev/null", "r") : fmemopen(const_cast<std::uint8_t*>(data), size, "r");
    return {file, fclose};
}
