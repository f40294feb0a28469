#include "log_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <string_view>

#include "log.h"
#include "log_reader.h"

namespace {

using std::chrono::days;
using std::chrono::hours;

constexpr std::string_view PACKED_END = ".gz";

// The search for a time looks at so many places of a log, then at as many between two of them.
constexpr off_t PLACES = 64;
constexpr off_t CLOSE_ENOUGH = 256L * 1024;
constexpr std::size_t PLACE_SIZE = 16UL * 1024;  // three times the longest line

// A small file may unpack to more than anybody waits for.
constexpr std::int64_t MOST_UNPACKED = std::int64_t{4} << 30U;

// Summer time ends, or a wrong clock is put right. A log that was written meanwhile goes back.
constexpr hours SET_BACK{2};

struct CloseDirectory {
    void operator()(DIR* directory) const { (void)closedir(directory); }
};

// How a log of that name was rotated: 0 for "", 2 for ".2", and for ".2.gz" without its end. Dates
// as "-20261118" make it 1. Nothing for the end of any other name.
std::optional<int> age_of_ending(std::string_view ending) {
    if (ending.empty()) {
        return 0;
    }
    int age = 0;
    const char* end = ending.data() + ending.size();
    const auto [rest, error] = std::from_chars(ending.data() + 1, end, age);
    if ((ending[0] != '.' && ending[0] != '-') || error != std::errc() || rest != end || age < 0) {
        return std::nullopt;
    }
    return ending[0] == '.' ? age : 1;
}

// "quorsyncd_2026_11_16.log", also with ".1", ".gz" or both behind it.
std::optional<DailyLog> daily_log(const std::string& directory, std::string_view name) {
    constexpr std::string_view END = ".log";
    constexpr std::size_t DAY_LENGTH = 10;
    const std::string start = PROGRAM_NAME + std::string("_");
    const std::string path = directory + "/" + std::string(name);
    const bool packed = name.ends_with(PACKED_END);
    if (packed) {
        name.remove_suffix(PACKED_END.size());
    }
    const std::size_t end = start.size() + DAY_LENGTH;
    if (!name.starts_with(start) || name.size() < end || !name.substr(end).starts_with(END)) {
        return std::nullopt;
    }
    const auto day = parse_day(name.substr(start.size(), DAY_LENGTH));
    const auto age = age_of_ending(name.substr(end + END.size()));
    return day && age ? std::optional<DailyLog>({path, *day, packed, *age}) : std::nullopt;
}

bool is_before(const DailyLog& left, const DailyLog& right) {
    return left.day != right.day   ? left.day < right.day
           : left.age != right.age ? left.age > right.age
                                   : left.packed < right.packed;
}

// The latest time of the lines that begin in that place: a value that was logged there may hold
// lines with earlier ones. Nothing where none begins.
std::optional<LogTime> latest_at(int fd, off_t place, LogTime day) {
    std::array<char, PLACE_SIZE> buffer;
    ssize_t got = 0;
    do {
        got = pread(fd, buffer.data(), buffer.size(), place);
    } while (got < 0 && errno == EINTR);
    std::string_view text(buffer.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    std::optional<LogTime> latest;
    while (!text.empty()) {
        text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
        const auto message = parse_log_line(text.substr(0, text.find('\n')), day);
        if (message && (!latest || message->time > *latest)) {
            latest = message->time;
        }
    }
    return latest;
}

off_t size_of(const DailyLog& log) {
    struct stat file {};
    return stat(log.path.c_str(), &file) == 0 ? file.st_size : 0;
}

}  // namespace

std::optional<std::vector<DailyLog>> daily_logs(const std::string& directory) {
    const std::unique_ptr<DIR, CloseDirectory> open(opendir(directory.c_str()));
    if (!open) {
        return std::nullopt;
    }
    std::vector<DailyLog> logs;
    while (const dirent* entry = readdir(open.get())) {
        if (auto log = daily_log(directory, entry->d_name)) {
            logs.push_back(std::move(*log));
        }
    }
    std::sort(logs.begin(), logs.end(), is_before);
    // A log stands beside its packed copy while that is being made.
    const auto is_copy = [](const DailyLog& log, const DailyLog& next) {
        return next.packed && log.path + std::string(PACKED_END) == next.path;
    };
    logs.erase(std::unique(logs.begin(), logs.end(), is_copy), logs.end());
    return logs;
}

void begin_at(DailyLog& log, LogTime since) {
    const OwnedFd fd(open(log.path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat file {};
    if (log.packed || log.day >= since || !fd.valid() || fstat(fd.get(), &file) != 0) {
        return;
    }
    off_t from = log.begin;
    off_t to = file.st_size;
    while (to - from > CLOSE_ENOUGH) {
        const off_t step = (to - from) / PLACES + 1;
        const off_t end = to;
        for (off_t place = from + step; place < end; place += step) {
            const auto latest = latest_at(fd.get(), place, log.day);
            if (!latest || *latest >= since - SET_BACK) {
                to = place;
                break;
            }
            from = place;
        }
    }
    log.begin = from;
}

std::vector<DailyLog> last_part(std::vector<DailyLog> logs, off_t bytes) {
    auto log = logs.end();
    while (log != logs.begin() && bytes > 0) {
        --log;
        const off_t size = size_of(*log);
        const off_t length = std::max<off_t>(size - log->begin, 0);
        log->begin = log->packed ? 0 : size - std::min(length, bytes);
        bytes -= length;
    }
    logs.erase(logs.begin(), log);
    return logs;
}

LogBytes::LogBytes(const DailyLog& log) : fd_(open(log.path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (!fd_.valid()) {
        return;
    }
    (void)posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    if (!log.packed) {
        (void)lseek(fd_.get(), log.begin, SEEK_SET);
        return;
    }
    packed_.reset(gzdopen(fd_.get(), "r"));
    if (packed_) {
        (void)fd_.release();
        (void)gzbuffer(packed_.get(), 256U * 1024);
    } else {
        fd_.reset();
        errno = ENOMEM;
    }
}

ssize_t LogBytes::read(char* to, std::size_t size) {
    if (packed_) {
        return read_packed(to, size);
    }
    ssize_t got = 0;
    do {
        got = ::read(fd_.get(), to, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

ssize_t LogBytes::read_packed(char* to, std::size_t size) {
    errno = EBADMSG;  // unless the system knows better
    const int got = gzread(packed_.get(), to, static_cast<unsigned>(size));
    int state = Z_OK;
    (void)gzerror(packed_.get(), &state);
    if (got == 0 && state == Z_BUF_ERROR) {  // the file ends in the middle
        return -1;
    }
    unpacked_ += std::max(got, 0);
    if (unpacked_ > MOST_UNPACKED) {
        errno = EFBIG;
        return -1;
    }
    return got;
}
