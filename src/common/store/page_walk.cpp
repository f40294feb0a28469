#include "common/store/page_walk.h"

#include <db.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t HEADER_SIZE = 26;
constexpr std::size_t LARGE_ITEM_SIZE = 12;

enum PageType : std::uint8_t { UNUSED = 0, UNSORTED = 2, OVERFLOW_PAGE = 7, SORTED = 13 };
enum ItemType : std::uint8_t { SMALL_ITEM = 1, LARGE_ITEM = 3 };

template <typename Number>
Number number_at(const std::vector<char>& page, std::size_t offset) {
    Number number{};
    std::memcpy(&number, page.data() + offset, sizeof number);
    return number;
}

bool holds_records(const PageHeader& header) {
    return header.type == UNSORTED || header.type == SORTED;
}

}  // namespace

PageWalk::PageWalk(int fd) : fd_(fd) {
    (void)begin();
}

bool PageWalk::fail(int error) {
    error_ = error;
    return false;
}

bool PageWalk::begin() {
    struct stat status {};
    if (fstat(fd_, &status) != 0) {
        return fail(errno);
    }
    const auto meta = read_hash_meta(fd_);
    if (!meta || status.st_size % meta->page.page_size != 0) {
        return fail(DB_VERIFY_BAD);
    }
    meta_ = *meta;
    const off_t pages = status.st_size / meta_.page.page_size;
    if (pages != off_t{meta_.last_page} + 1 || pages > INT32_MAX || meta_.max_bucket >= pages) {
        return fail(DB_VERIFY_BAD);
    }
    pages_ = static_cast<std::uint32_t>(pages);
    seen_.resize(pages_);
    seen_.front() = true;
    page_.resize(meta_.page.page_size);
    large_page_.resize(meta_.page.page_size);
    return true;
}

// Each page has one place in the file's order, so it is read once only.
bool PageWalk::read_page(std::uint32_t number, std::vector<char>& page, PageHeader& header) {
    if (number >= pages_ || seen_[number]) {
        return fail(DB_VERIFY_BAD);
    }
    seen_[number] = true;
    const off_t at = off_t{number} * meta_.page.page_size;
    const ssize_t got = pread(fd_, page.data(), page.size(), at);
    if (got != static_cast<ssize_t>(page.size())) {
        return fail(got < 0 ? errno : DB_VERIFY_BAD);
    }
    std::memcpy(&header, page.data(), HEADER_SIZE);
    return true;
}

bool PageWalk::next(std::string_view& key, std::string_view& value) {
    while (error_ == 0 && entry_ >= header_.entries) {
        if (!next_page()) {
            return false;
        }
    }
    if (error_ != 0 || !item(entry_, key, large_key_) || !item(entry_ + 1, value, large_value_)) {
        return false;
    }
    entry_ += 2;
    return true;
}

bool PageWalk::next_page() {
    if (header_.next != 0) {
        return use_bucket_page(header_.next, header_.number);
    }
    if (bucket_ <= meta_.max_bucket) {
        return use_bucket_page(first_page_of(bucket_++), 0);
    }
    return finish();
}

bool PageWalk::use_bucket_page(std::uint32_t number, std::uint32_t previous) {
    entry_ = 0;
    if (!read_page(number, page_, header_)) {
        return false;
    }
    if (header_.type == UNUSED && header_.entries == 0 && header_.next == 0) {
        return true;  // of a bucket that never had a record
    }
    return is_bucket_page(number, previous) || fail(DB_VERIFY_BAD);
}

bool PageWalk::is_bucket_page(std::uint32_t number, std::uint32_t previous) const {
    if (!holds_records(header_) || header_.number != number || header_.previous != previous ||
        header_.level != 0 || header_.entries % 2 != 0 || index_end() > page_.size()) {
        return false;
    }
    // Items are stored from the end of the page downwards. In the largest page, its end is beyond
    // 16 bits and stands as 0.
    const std::size_t lowest =
        header_.entries == 0 ? page_.size() : offset_of(header_.entries - 1U);
    return static_cast<std::uint16_t>(lowest) == header_.free_end;
}

// The buckets of each doubling of the table lie side by side.
std::uint32_t PageWalk::first_page_of(std::uint32_t bucket) const {
    const auto doubling = static_cast<std::size_t>(std::bit_width(bucket));
    return bucket + meta_.spares[doubling];
}

std::size_t PageWalk::index_end() const {
    return HEADER_SIZE + header_.entries * sizeof(std::uint16_t);
}

std::size_t PageWalk::offset_of(std::size_t entry) const {
    return number_at<std::uint16_t>(page_, HEADER_SIZE + entry * sizeof(std::uint16_t));
}

bool PageWalk::item(std::size_t entry, std::string_view& text, std::string& large) {
    const std::size_t begin = offset_of(entry);
    const std::size_t end = entry == 0 ? page_.size() : offset_of(entry - 1);
    if (begin < index_end() || begin >= end || end > page_.size()) {
        return fail(DB_VERIFY_BAD);
    }
    if (page_[begin] == SMALL_ITEM) {
        text = {page_.data() + begin + 1, end - begin - 1};
        return true;
    }
    if (page_[begin] != LARGE_ITEM || end - begin != LARGE_ITEM_SIZE) {
        return fail(DB_VERIFY_BAD);
    }
    if (!read_large(number_at<std::uint32_t>(page_, begin + 4),
                    number_at<std::uint32_t>(page_, begin + 8), large)) {
        return false;
    }
    text = large;
    return true;
}

bool PageWalk::read_large(std::uint32_t number, std::uint32_t length, std::string& text) {
    text.clear();
    for (std::uint32_t previous = 0; number != 0;) {
        PageHeader header{};
        if (!read_page(number, large_page_, header)) {
            return false;
        }
        if (header.type != OVERFLOW_PAGE || header.number != number ||
            header.previous != previous || header.entries != 1 ||
            header.free_end > large_page_.size() - HEADER_SIZE) {
            return fail(DB_VERIFY_BAD);
        }
        text.append(large_page_.data() + HEADER_SIZE, header.free_end);
        previous = number;
        number = header.next;
    }
    return text.size() == length || fail(DB_VERIFY_BAD);
}

// All pages that no record led to must be free ones. Always false.
bool PageWalk::finish() {
    for (std::uint32_t number = meta_.free_list; number != 0; number = header_.next) {
        if (!read_page(number, page_, header_)) {
            return false;
        }
        if (header_.type != UNUSED) {
            return fail(DB_VERIFY_BAD);
        }
    }
    for (std::uint32_t number = 0; number < pages_; ++number) {
        if (seen_[number]) {
            continue;
        }
        if (!read_page(number, page_, header_)) {
            return false;
        }
        // Made for a later bucket.
        if (header_.entries != 0 || (header_.type != UNUSED && !holds_records(header_))) {
            return fail(DB_VERIFY_BAD);
        }
    }
    header_ = {};
    meta_.free_list = 0;  // a further call finds the end again
    return false;
}

int check_pages(int fd) {
    PageWalk walk(fd);
    for (std::string_view key, value; walk.next(key, value);) {}
    return walk.error();
}
