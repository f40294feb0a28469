// What the unit tests share.
#pragma once

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "owned.h"
#include "store.h"

using namespace std::chrono_literals;
using namespace std::string_literals;
using namespace std::string_view_literals;

inline std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& path, std::string_view text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// A script that can be executed.
inline void write_program(const std::string& path, const std::string& commands,
                          const std::string& interpreter = "/bin/sh") {
    write_file(path, "#!" + interpreter + "\n" + commands + "\n");
    std::filesystem::permissions(path, std::filesystem::perms{0755});
}

// An event tool that writes its arguments down, one call a line.
inline constexpr const char* EVENTS = "/etc/quoradmind/events";
inline void write_event_tool() {
    EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // an orphan becomes our child
    write_program("/usr/local/bin/evpost_ex",
                  "line=; for a; do line=$line$a,; done; echo \"$line\" >>"s + EVENTS);
}

// What was reported, once the tool, which runs in the background, has ended everywhere.
inline std::string events() {
    while (wait(nullptr) > 0) {}
    return contents(EVENTS);
}

// Everything that the test has logged so far.
inline std::string logged() {
    std::string text;
    for (const auto& entry : std::filesystem::directory_iterator("/var/log")) {
        if (entry.path().filename().string().starts_with("quorsyncd_")) {
            text += contents(entry.path());
        }
    }
    return text;
}

inline std::size_t count_of(const std::string& text, std::string_view part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// Waits until `condition` holds; false after half a minute, when it never will.
inline bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Each test starts with empty configuration, log and program directories.
class WithFiles : public testing::Test {
protected:
    void SetUp() override { remove_files(); }

    static void remove_files() {
        for (const char* place :
             {"/etc/quoradmind", "/etc/quorsyncd", "/var/log", "/usr/local/bin"}) {
            for (const auto& entry : std::filesystem::directory_iterator(place)) {
                std::filesystem::remove_all(entry.path());
            }
        }
    }
};

// What the store holds under `key`; "(absent)" for no such key.
inline std::string stored(const char* path, const std::string& key) {
    const OwnedText value(db_get(path, key.c_str()));
    return value ? std::string(value.get()) : "(absent)";
}

inline void put(const char* path, const std::string& key, const std::string& value) {
    ASSERT_TRUE(db_store(path, key.c_str(), value.c_str()));
}

// All records of a file, in its own order.
inline std::vector<std::pair<std::string, std::string>> records_of(const char* path) {
    const auto store = db_open(path);
    StoreCursor cursor(*store);
    std::vector<std::pair<std::string, std::string>> records;
    for (std::string_view key, value; cursor.next(key, value);) {
        records.emplace_back(key, value);
    }
    return records;
}
