#include "log_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>

#include "continuations.h"
#include "log.h"

namespace {

constexpr std::string_view LINE_START = "quorsyncd:";
constexpr std::size_t BUFFER_SIZE = 1UL << 20U;  // many times the longest message

int level_of(std::string_view word) {
    const auto* found = std::find(LEVEL_WORDS.begin(), LEVEL_WORDS.end(), word);
    return found == LEVEL_WORDS.end() ? -1 : static_cast<int>(found - LEVEL_WORDS.begin());
}

// A message from its very first byte: "quorsyncd:2.1 2026-11-16 03:52:26 INFO :text".
std::optional<LogMessage> parse_whole(std::string_view line) {
    const std::size_t version_end = line.find(' ', LINE_START.size());
    if (version_end == std::string_view::npos || line.size() < version_end + STAMP_LENGTH + 2) {
        return std::nullopt;
    }
    const auto time = parse_stamp(line.substr(version_end + 1, STAMP_LENGTH));
    const std::size_t level_start = version_end + STAMP_LENGTH + 2;
    const std::size_t level_end = line.find(" :", level_start);
    if (!time || level_end == std::string_view::npos) {
        return std::nullopt;
    }
    return LogMessage{*time, level_of(line.substr(level_start, level_end - level_start)),
                      line.substr(level_end + 2)};
}

// The lines of a file. A longer one than the buffer comes in pieces.
class LineReader {
public:
    explicit LineReader(LogBytes& bytes)
        : bytes_(bytes), buffer_(std::make_unique<char[]>(BUFFER_SIZE)) {}

    bool next(std::string_view& line) {
        for (;;) {
            const std::string_view rest(buffer_.get() + start_, end_ - start_);
            const std::size_t newline = rest.find('\n', searched_);
            if (newline != std::string_view::npos) {
                return take(newline, 1, line);
            }
            searched_ = rest.size();
            if (rest.size() == BUFFER_SIZE || !fill()) {
                return take(searched_, 0, line);
            }
        }
    }

    bool failed() const { return failed_; }

private:
    bool take(std::size_t length, std::size_t newline, std::string_view& line) {
        line = std::string_view(buffer_.get() + start_, length);
        start_ += length + newline;
        searched_ = 0;
        return length + newline > 0;
    }

    // Reads more behind what is there; false at the end of the file.
    bool fill() {
        if (start_ != 0) {
            std::memmove(buffer_.get(), buffer_.get() + start_, end_ - start_);
            end_ -= start_;
            start_ = 0;
        }
        const ssize_t got = bytes_.read(buffer_.get() + end_, BUFFER_SIZE - end_);
        failed_ = got < 0;
        end_ += got > 0 ? static_cast<std::size_t>(got) : 0;
        return got > 0;
    }

    LogBytes& bytes_;
    std::unique_ptr<char[]> buffer_;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
    std::size_t searched_ = 0;  // so much of the rest holds no newline
    bool failed_ = false;
};

// Whether nothing stands before the message in its line.
bool begins_with(std::string_view line, const LogMessage& message) {
    const std::string_view before(line.data(),
                                  static_cast<std::size_t>(message.text.data() - line.data()));
    return before.rfind(LINE_START) == 0;
}

}  // namespace

std::string_view without_origin(std::string_view text) {
    text = text.substr(0, text.find(" --"));
    return text.substr(0, text.find("---"));
}

std::optional<LogMessage> parse_log_line(std::string_view line, LogTime day) {
    // Only the rest of a message with a newline inside has one that begins later in the line.
    for (std::size_t at = line.starts_with(LINE_START) ? 0 : line.find(LINE_START);
         at != std::string_view::npos; at = line.find(LINE_START, at + 1)) {
        const auto message = parse_whole(line.substr(at));
        if (message && std::chrono::floor<std::chrono::days>(message->time) == day) {
            return message;
        }
    }
    return std::nullopt;
}

bool visit_messages(const DailyLog& log, const MessageVisitor& visit) {
    LogBytes bytes(log);
    if (!bytes.valid()) {
        return false;
    }
    LineReader lines(bytes);
    std::string_view line;
    if (log.begin > 0) {
        (void)lines.next(line);  // the rest of one
    }
    Continuations messages(visit);
    while (lines.next(line)) {
        const auto message = parse_log_line(line, log.day);
        messages.add(line.size() + 1, message ? &*message : nullptr,
                     message && begins_with(line, *message));
    }
    const int error = errno;
    messages.finish();
    errno = error;
    return !lines.failed();
}
