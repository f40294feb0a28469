#include "log_burst.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <vector>

#include "common/log_lines.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr std::size_t MOST_BYTES = 64UL * 1024;
constexpr auto LONGEST = 50ms;

// The bursts of all threads.
struct Bursts {
    std::mutex lock;  // taken before that of a burst
    std::vector<LogBurst*> open;
};

Bursts& bursts() {
    static auto& all = *new Bursts;  // never destroyed: threads log until the process is gone
    return all;
}

thread_local LogBurst* own_burst = nullptr;

}  // namespace

LogBurst::LogBurst() {
    assert(own_burst == nullptr);
    const std::lock_guard hold(bursts().lock);
    bursts().open.push_back(this);
    own_burst = this;
}

LogBurst::~LogBurst() {
    write();
    const std::lock_guard hold(bursts().lock);
    std::erase(bursts().open, this);
    own_burst = nullptr;
}

void LogBurst::add(int level, const char* message) {
    const int saved_errno = errno;
    const std::lock_guard hold(lock_);
    const StampedLine line(level, message);
    const auto now = steady_clock::now();
    if (now - begun_ >= LONGEST || lines_.size() + line.text().size() > MOST_BYTES ||
        file_name_ != line.file_name()) {
        write_held();
    }
    if (lines_.empty()) {
        begun_ = now;
        file_name_ = line.file_name();
    }
    lines_ += line.text();
    errno = saved_errno;
}

void LogBurst::write() {
    const int saved_errno = errno;
    const std::lock_guard hold(lock_);
    write_held();
    errno = saved_errno;
}

void LogBurst::write_held() {
    if (!lines_.empty()) {
        print_lines(lines_);
        append_to_daily_file(log_settings, file_name_.c_str(), lines_);
        lines_.clear();
    }
}

LogBurst* LogBurst::of_this_thread() {
    return own_burst;
}

void end_log_burst() {
    if (own_burst != nullptr) {
        own_burst->write();
    }
}

void end_all_log_bursts() {
    const std::lock_guard hold(bursts().lock);
    std::for_each(bursts().open.begin(), bursts().open.end(),
                  [](LogBurst* each) { each->write(); });
}
