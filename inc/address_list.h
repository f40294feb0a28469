// A comma list of addresses in config.db that is asked about often.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The list is read anew at most once a second, so that a stranger's datagram or connection costs no
// reading of the file. Any thread; logs as the store does.
class AddressList {
public:
    // The value of `key`, which is one of keys.h.
    explicit AddressList(const char* key) : key_(key) {}

    // The items, none where the key is missing; while config.db cannot be read, those of the last
    // time that it could be, and nothing if it never could.
    std::optional<std::vector<std::string>> items();

    // Whether `address` (dotted) is one of them; `if_unknown` if config.db could never be read.
    bool has(const std::string& address, bool if_unknown);

private:
    void read();

    const char* key_;
    std::mutex lock_;  // guards all below
    std::optional<std::vector<std::string>> items_;
    std::optional<std::chrono::steady_clock::time_point> read_at_;
};
