#include "store_check.h"

#include <db.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <thread>
#include <tuple>

#include "store_handle.h"

namespace {

using namespace std::chrono_literals;

constexpr auto SECOND_LOOK = 20ms;
constexpr std::uint32_t VERIFY_CACHE = 16U << 20U;  // halves the time on a large file
constexpr off_t LARGE_FILE = 1 << 20;
constexpr std::time_t LEFTOVER_SECONDS = 2;
constexpr auto LEFTOVER_STEP = 100ms;
constexpr int LEFTOVER_TRIES = 40;  // by then it is old, unless others create it again and again
constexpr std::size_t MAX_VERDICTS = 64;

// What changes whenever a file's contents do.
using FileIdentity = std::tuple<dev_t, ino_t, off_t, std::time_t, long>;

FileIdentity identity_of(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_size, status.st_ctim.tv_sec,
            status.st_ctim.tv_nsec};
}

// Whether the next change would get another time: the system's clock of files ticks slowly.
bool has_settled(const struct stat& status) {
    constexpr auto TICK = 20ms;
    const auto changed = std::chrono::seconds(status.st_ctim.tv_sec) +
                         std::chrono::nanoseconds(status.st_ctim.tv_nsec);
    const auto age = std::chrono::system_clock::now().time_since_epoch() - changed;
    return age > TICK || age < -TICK;  // a clock may have been set
}

// Verdicts "sound" by path. Guarded by its own mutex: the locks of two paths do not exclude each
// other.
class Verdicts {
public:
    bool known(const std::string& path, const FileIdentity& identity) {
        const std::lock_guard lock(mutex_);
        const auto found = sound_.find(path);
        return found != sound_.end() && found->second == identity;
    }
    void keep(const std::string& path, const FileIdentity& identity) {
        const std::lock_guard lock(mutex_);
        if (sound_.size() >= MAX_VERDICTS) {
            sound_.clear();  // addresses from the wire name files: never more than some
        }
        sound_[path] = identity;
    }

private:
    std::mutex mutex_;
    std::map<std::string, FileIdentity> sound_;
};

Verdicts& verdicts() {
    static Verdicts instance;
    return instance;
}

constexpr std::uint32_t SMALLEST_PAGE = 512;
constexpr std::uint32_t LARGEST_PAGE = 65536;

// Whether the first page is that of a plain hash file: no other kind, neither encrypted nor spread
// over several files.
bool is_hash_file(const std::array<std::uint8_t, 28>& meta, std::uint32_t page_size) {
    constexpr std::size_t MAGIC_AT = 12;
    constexpr std::size_t ENCRYPTION_AT = 24;
    constexpr std::size_t TYPE_AT = 25;
    constexpr std::size_t FLAGS_AT = 26;
    constexpr std::uint8_t META_PAGE = 8;
    constexpr unsigned PARTITIONED = 0x02U | 0x04U;
    std::uint32_t magic = 0;
    std::memcpy(&magic, meta.data() + MAGIC_AT, sizeof magic);
    return magic == DB_HASHMAGIC && meta[ENCRYPTION_AT] == 0 && meta[TYPE_AT] == META_PAGE &&
           (meta[FLAGS_AT] & PARTITIONED) == 0 && std::has_single_bit(page_size) &&
           page_size >= SMALLEST_PAGE && page_size <= LARGEST_PAGE;
}

// Whether it is a page of a hash file, and its free room lies inside: the verifier does not look,
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

// The library's verifier believes what a file says it is: on pages of other kinds it divides by
// zero, frees memory twice and leaks, and it opens a partitioned file's parts, up to 4 billion. A
// file in the other byte order, which no host of a pair makes, counts as foreign, too.
bool harms_the_verifier(int fd, off_t size) {
    constexpr std::size_t PAGE_SIZE_AT = 20;
    std::array<std::uint8_t, 28> meta{};
    if (pread(fd, meta.data(), meta.size(), 0) != static_cast<ssize_t>(meta.size())) {
        return false;  // too short for any page
    }
    std::uint32_t page_size = 0;
    std::memcpy(&page_size, meta.data() + PAGE_SIZE_AT, sizeof page_size);
    if (!is_hash_file(meta, page_size)) {
        return true;
    }
    for (off_t page = page_size; page < size; page += page_size) {
        std::array<std::uint8_t, 26> header{};
        if (pread(fd, header.data(), header.size(), page) == static_cast<ssize_t>(header.size()) &&
            !is_hash_page(header, page_size)) {
            return true;
        }
    }
    return false;
}

}  // namespace

int verify_file(int fd, const std::string& path) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return errno;
    }
    const off_t size = status.st_size;
    if (harms_the_verifier(fd, size)) {
        return DB_VERIFY_BAD;
    }
    DB* db = create_handle(size > LARGE_FILE ? VERIFY_CACHE : 0);
    // verify() closes the handle, whatever its result. A key in the wrong bucket is only not found:
    // looking for one, a sixth of the time, is left out.
    const int result =
        db == nullptr ? ENOMEM : db->verify(db, path.c_str(), nullptr, nullptr, DB_NOORDERCHK);
    if (size > LARGE_FILE) {
        (void)malloc_trim(0);  // it notes every page: much memory in small pieces
    }
    return result;
}

int verify_store(const StoreLock& lock) {
    struct stat before {};
    if (fstat(lock.fd(), &before) != 0) {
        return errno;
    }
    if (verdicts().known(lock.path(), identity_of(before))) {
        return 0;
    }
    int result = verify_file(lock.fd(), lock.path());
    if (result != 0) {
        std::this_thread::sleep_for(SECOND_LOOK);
        (void)fstat(lock.fd(), &before);
        result = verify_file(lock.fd(), lock.path());
    }
    if (result == 0 && has_settled(before)) {
        verdicts().keep(lock.path(), identity_of(before));
    }
    return result;
}

bool verdict_known(const StoreLock& lock) {
    struct stat now {};
    return fstat(lock.fd(), &now) == 0 && verdicts().known(lock.path(), identity_of(now));
}

bool is_damage(int result) {
    // EINVAL: not a database of this kind at all.
    return result == DB_VERIFY_BAD || result == DB_RUNRECOVERY || result == DB_PAGE_NOTFOUND ||
           result == EINVAL;
}

void keep_verdict(const StoreLock& lock) {
    struct stat now {};
    // A small file is verified faster than it is worth trusting beside foreign writers.
    if (lock.exists() && fstat(lock.fd(), &now) == 0 && now.st_size > LARGE_FILE) {
        verdicts().keep(lock.path(), identity_of(now));
    }
}

void remove_leftover_creation(const std::string& path) {
    const std::string leftover = creation_of(path);
    struct stat status {};
    for (int tries = 0; tries < LEFTOVER_TRIES && stat(leftover.c_str(), &status) == 0; ++tries) {
        // A clock that was set may have put the file's time into the future: that is old, too.
        if (std::abs(std::time(nullptr) - status.st_mtime) > LEFTOVER_SECONDS) {
            (void)unlink(leftover.c_str());
            return;
        }
        std::this_thread::sleep_for(LEFTOVER_STEP);
    }
}

std::string creation_of(const std::string& path) {
    const std::size_t name = path.rfind('/') + 1;
    return path.substr(0, name) + "__db." + path.substr(name);
}
