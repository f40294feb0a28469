// What the fuzz targets share. A target is these two functions: clang's fuzzer calls them with
// bytes that it makes up, the unit tests with the files of the corpus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "../namespaces.h"
#include "log.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Private namespaces, /tmp included (name files relative to the working directory), and no log.
inline void begin_fuzzing(int* argc, char*** argv) {
    live_in_namespaces(*argc, *argv, {"/tmp"});
    set_log_sink([](int, const char*) {});
    // A target's threads work on until the end: nothing may be taken apart under them.
    std::atexit([] { std::_Exit(0); });
}

// A promise that was broken ends the target.
inline void expect(bool kept, const char* promise) {
    if (!kept) {
        std::fprintf(stderr, "broken: %s\n", promise);
        std::abort();
    }
}

// A file of its own, so that nothing known about an older one holds for it.
inline void put_file(const std::string& path, std::string_view bytes) {
    const std::string fresh = path + ".fuzz";
    std::ofstream(fresh, std::ios::binary) << bytes;
    std::filesystem::rename(fresh, path);
}

inline std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline std::string_view text_of(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}
