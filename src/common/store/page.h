// The pages of a database file, as far as they have to be looked at before the library may.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

// The beginning of the first page.
struct MetaPage {
    std::uint32_t position[3];  // in the log, in the file
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t page_size;
    std::uint8_t encryption;
    std::uint8_t type;
    std::uint8_t flags;
    std::uint8_t unused;
};
static_assert(sizeof(MetaPage) == 28);

// The same of a hash file, with what says where its records are.
struct HashMeta {
    MetaPage page;
    std::uint32_t free_list;  // the first page of it, 0 for none
    std::uint32_t last_page;
    std::uint32_t counts[3];
    std::uint32_t kinds;  // duplicate keys, several databases in one file
    std::uint8_t identity[20];
    std::uint32_t max_bucket;
    std::uint32_t masks[2];
    std::uint32_t fill_factor;
    std::uint32_t records;
    std::uint32_t hash_of_a_text;
    std::uint32_t spares[32];  // what to add to the buckets of each doubling to get their pages
};
static_assert(sizeof(HashMeta) == 224);

// Nothing when the file is too short for a page or cannot be read.
std::optional<MetaPage> read_meta_page(int fd);

// Nothing when it is no plain hash file: duplicate keys, checksums and the like are not used here.
std::optional<HashMeta> read_hash_meta(int fd);

// Whether the library's verifier must not see the file, which has `size` bytes: it believes what a
// file says it is. On pages of other kinds it divides by zero, frees memory twice and leaks, and it
// opens a partitioned file's parts, up to 4 billion. A file in the other byte order, which no host
// of a pair makes, counts as foreign, too.
bool harms_the_verifier(int fd, off_t size);
