// The records of a plain hash file, read page by page without the library.
//
// The library believes what a file says about itself, so whoever hands a file to it has to verify
// all pages before the first record is read, which takes longer than reading them. This walk
// believes nothing: each number is checked before it is used, and each page of the file must have
// its one place, so that the end of a walk says that no record was left out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/store/page.h"

// The beginning of every page but the first.
struct PageHeader {
    std::uint32_t position[2];  // in the log
    std::uint32_t number;
    std::uint32_t previous;
    std::uint32_t next;      // 0 for none
    std::uint16_t entries;   // an overflow page counts its users there
    std::uint16_t free_end;  // an overflow page has the length of what it holds there
    std::uint8_t level;
    std::uint8_t type;
};

// The records come in the order of the library's own cursor. Logs nothing; not shared between
// threads.
class PageWalk {
public:
    // Reads from `fd`, a descriptor of the caller, which nobody writes to meanwhile.
    explicit PageWalk(int fd);

    // The next record, or false at the end and on a failure. The views hold until the next call.
    bool next(std::string_view& key, std::string_view& value);

    // Why it ended before the end of the file: an errno, or DB_VERIFY_BAD for a file that is
    // damaged or no plain hash file; 0 when it did not.
    int error() const { return error_; }

private:
    bool begin();
    bool fail(int error);
    bool read_page(std::uint32_t number, std::vector<char>& page, PageHeader& header);
    bool next_page();
    bool use_bucket_page(std::uint32_t number, std::uint32_t previous);
    bool is_bucket_page(std::uint32_t number, std::uint32_t previous) const;
    std::uint32_t first_page_of(std::uint32_t bucket) const;
    std::size_t index_end() const;
    std::size_t offset_of(std::size_t entry) const;
    bool item(std::size_t entry, std::string_view& text, std::string& large);
    bool read_large(std::uint32_t number, std::uint32_t length, std::string& text);
    bool finish();

    int fd_;
    int error_ = 0;
    HashMeta meta_{};
    std::uint32_t pages_ = 0;
    std::vector<bool> seen_;
    std::uint32_t bucket_ = 0;  // the next one

    std::vector<char> page_;  // the one whose records come now
    PageHeader header_{};
    std::size_t entry_ = 0;  // the next one in it

    std::vector<char> large_page_;
    std::string large_key_;
    std::string large_value_;
};

// Whether all records can be read: 0, or as PageWalk::error().
int check_pages(int fd);
