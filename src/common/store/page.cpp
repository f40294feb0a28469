#include "common/store/page.h"

#include <db.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstring>

#include "owned.h"
#include "store.h"

static_assert(HASH_MAGIC == DB_HASHMAGIC);

namespace {

constexpr std::uint32_t SMALLEST_PAGE = 512;
constexpr std::uint32_t LARGEST_PAGE = 65536;

// Whether the first page is that of a plain hash file: no other kind, neither encrypted nor spread
// over several files.
bool is_hash_file(const MetaPage& meta) {
    constexpr std::uint8_t META_PAGE = 8;
    constexpr unsigned PARTITIONED = 0x02U | 0x04U;
    return meta.magic == HASH_MAGIC && meta.encryption == 0 && meta.type == META_PAGE &&
           (meta.flags & PARTITIONED) == 0 && std::has_single_bit(meta.page_size) &&
           meta.page_size >= SMALLEST_PAGE && meta.page_size <= LARGEST_PAGE;
}

template <typename Start>
std::optional<Start> read_start(int fd) {
    Start start{};
    return pread(fd, &start, sizeof start, 0) == static_cast<ssize_t>(sizeof start)
               ? std::optional(start)
               : std::nullopt;
}

// Whether it is a page of a hash file, and its free space lies inside: the verifier does not look,
// and a put would write to wherever that is.
bool is_hash_page(const std::array<std::uint8_t, 26>& header, std::uint32_t page_size) {
    constexpr std::size_t ENTRIES_AT = 20;
    constexpr std::size_t FREE_END_AT = 22;
    constexpr std::size_t TYPE_AT = 25;
    constexpr std::uint8_t FREE = 0;
    constexpr std::uint8_t UNSORTED = 2;
    constexpr std::uint8_t OVERFLOW_ITEM = 7;
    constexpr std::uint8_t SORTED = 13;
    const std::uint8_t type = header[TYPE_AT];
    if (type != UNSORTED && type != SORTED) {
        return type == FREE || type == OVERFLOW_ITEM;
    }
    std::uint16_t entries = 0;
    std::uint16_t free_end = 0;
    std::memcpy(&entries, header.data() + ENTRIES_AT, sizeof entries);
    std::memcpy(&free_end, header.data() + FREE_END_AT, sizeof free_end);
    const std::size_t index_end = header.size() + entries * sizeof(std::uint16_t);
    // In the largest page, the end is beyond 16 bits and stands as 0.
    const std::size_t end = free_end == 0 ? LARGEST_PAGE : free_end;
    return index_end <= end && end <= page_size;
}

}  // namespace

std::optional<MetaPage> read_meta_page(int fd) {
    return read_start<MetaPage>(fd);
}

std::optional<HashMeta> read_hash_meta(int fd) {
    const auto meta = read_start<HashMeta>(fd);
    const bool plain =
        meta && is_hash_file(meta->page) && meta->page.flags == 0 && meta->kinds == 0;
    return plain ? meta : std::nullopt;
}

bool harms_the_verifier(int fd, off_t size) {
    const auto meta = read_meta_page(fd);
    if (!meta) {
        return false;
    }
    if (!is_hash_file(*meta)) {
        return true;
    }
    for (off_t page = meta->page_size; page < size; page += meta->page_size) {
        std::array<std::uint8_t, 26> header{};
        if (pread(fd, header.data(), header.size(), page) == static_cast<ssize_t>(header.size()) &&
            !is_hash_page(header, meta->page_size)) {
            return true;
        }
    }
    return false;
}

std::optional<StoreFormat> db_format(const char* path) {
    const OwnedFd fd(open(path, O_RDONLY | O_CLOEXEC));
    const auto meta = read_meta_page(fd.get());
    return meta ? std::optional(StoreFormat{meta->magic, meta->version}) : std::nullopt;
}

std::optional<std::size_t> db_count(const char* path) {
    const OwnedFd fd(open(path, O_RDONLY | O_CLOEXEC));
    const auto meta = read_hash_meta(fd.get());
    return meta ? std::optional<std::size_t>(meta->records) : std::nullopt;
}
