#include "state_page.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

#include "owned.h"
#include "replace_file.h"

namespace {

// A set that is begun so long after the last step of the one before is no repetition of it.
constexpr std::int64_t PAUSE = 60'000'000'000;

constexpr int MOST_READS = 1000;  // of a text that is being changed, or was when its writer died

StatePage& unpublished() {
    static auto& page = *new StatePage();  // never destroyed: threads run until the process is gone
    return page;
}

std::atomic<StatePage*> published = nullptr;

std::int64_t now(clockid_t clock) {
    timespec time{};
    (void)clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// Copies all numbers of one page into another one; nobody else writes to either meanwhile.
void copy_page(const StatePage& from, StatePage& to) {
    static_assert(sizeof(StatePage) % sizeof(PageNumber) == 0);
    const auto* source = reinterpret_cast<const PageNumber*>(&from);
    auto* target = reinterpret_cast<PageNumber*>(&to);
    for (std::size_t n = 0; n < sizeof(StatePage) / sizeof(PageNumber); ++n) {
        target[n] = source[n].load();
    }
}

void sign(StatePage& page, const char* version) {
    page.version.set(version);
    page.pid = getpid();
    page.start_ticks = start_ticks_of(getpid());
    page.started.set_now();
    page.layout = StatePage::LAYOUT;
    page.magic = StatePage::MAGIC;
}

// Makes the file and leaves its mapping in `page`. All of it is allocated now: a full file system
// would end the process at a later store.
int fill(const std::string& path, const char* version, StatePage*& page) {
    const OwnedFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!fd.valid() || fchmod(fd.get(), 0644) != 0) {
        return errno;
    }
    if (const int full = posix_fallocate(fd.get(), 0, sizeof(StatePage)); full != 0) {
        return full;
    }
    void* mapped =
        mmap(nullptr, sizeof(StatePage), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (mapped == MAP_FAILED) {
        return errno;
    }
    page = new (mapped) StatePage();
    copy_page(page::own(), *page);
    sign(*page, version);
    return 0;
}

void copy_time(const PageTime& from, PageTime& to) {
    to.monotonic = from.monotonic.load();
    to.wall = from.wall.load();
}

// What a daemon that is started again goes on telling until it knows something later.
void keep_last_events(const StatePage& before, StatePage& page) {
    if (before.started.monotonic > page.started.monotonic) {
        return;  // of before a restart of the host
    }
    if (!page.heartbeat_answered.ever()) {
        copy_time(before.heartbeat_answered, page.heartbeat_answered);
    }
    for (std::size_t n = 0; n < PAGE_DATA_SETS; ++n) {
        const PageDataSet& from = before.sets[n];
        PageDataSet& to = page.sets[n];
        if (!to.done.ever() && from.done.ever()) {
            to.stamp.set(from.stamp.get());
            to.records = from.records.load();
            to.duration = from.duration.load();
            copy_time(from.done, to.done);
        }
    }
}

void set_phase(PagePhase phase) {
    page::own().phase = static_cast<std::int64_t>(phase);
}

std::int64_t bit_of(std::uint32_t kind) {
    return kind < 63 ? std::int64_t{1} << kind : 0;
}

// Cheap enough for each record.
void note_step(PageTransferNow& transfer) {
    const std::int64_t time = now(CLOCK_MONOTONIC_COARSE);
    if (time - transfer.moved > PAUSE) {
        transfer.tries = 0;
    }
    transfer.moved = time;
}

void add_missing(StatePage& page, std::int64_t bits) {
    if ((bits & ~page.sets_missing) != 0) {
        note_step(page.transfer);  // not for a repeated request: nothing may come of any
    }
    page.sets_missing |= bits;
}

}  // namespace

void PageTime::set_now() {
    wall = now(CLOCK_REALTIME);
    monotonic = now(CLOCK_MONOTONIC);
}

template <std::size_t WORDS>
void PageText<WORDS>::set(std::string_view text) {
    static std::mutex one_writer;
    std::array<std::int64_t, WORDS> fresh{};
    (void)text.copy(reinterpret_cast<char*>(fresh.data()), sizeof fresh);
    const std::lock_guard hold(one_writer);
    ++changes;
    std::copy(fresh.begin(), fresh.end(), words.begin());
    ++changes;
}

template <std::size_t WORDS>
std::string PageText<WORDS>::get() const {
    std::array<std::int64_t, WORDS> copy{};
    for (int reads = 0; reads < MOST_READS; ++reads) {
        const std::int64_t before = changes;
        std::copy(words.begin(), words.end(), copy.begin());
        if (before % 2 == 0 && before == changes) {
            const char* text = reinterpret_cast<const char*>(copy.data());
            return {text, strnlen(text, sizeof copy)};
        }
        (void)sched_yield();
    }
    return {};
}

template struct PageText<2>;
template struct PageText<4>;
template struct PageText<16>;

// --- The file ------------------------------------------------------------------------------------

pid_t daemon_of_page(const char* path) {
    const StatePageView view(path);
    const StatePage* page = view.get();
    const bool at_work = page != nullptr && page->pid != getpid() && is_alive(*page) &&
                         page->phase != static_cast<std::int64_t>(PagePhase::STOPPED);
    return at_work ? static_cast<pid_t>(page->pid) : 0;
}

int publish_state_page(const char* version, const char* path, bool holds_host) {
    if (!holds_host && daemon_of_page(path) != 0) {
        return EBUSY;
    }
    const StatePageView before(path);
    StatePage* page = nullptr;
    const auto fill_page = [version, &before, &page](const std::string& fresh) {
        const int error = fill(fresh, version, page);
        if (error == 0 && before.get() != nullptr) {
            keep_last_events(*before.get(), *page);
        }
        return error;
    };
    const Replacement replaced = replace_file(path, fill_page);
    if (!replaced.in_place) {
        if (page != nullptr) {
            (void)munmap(page, sizeof *page);
        }
        return replaced.error;
    }
    published = page;  // that of a run before stays mapped: nobody counts its users
    return 0;
}

std::int64_t start_ticks_of(std::int64_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const OwnedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 1024> text{};
    if (!fd.valid() || read(fd.get(), text.data(), text.size() - 1) <= 0) {
        return 0;
    }
    const char* rest = std::strrchr(text.data(), ')');  // a name may hold anything
    char state = 'Z';
    long long ticks = 0;
    if (rest == nullptr ||
        std::sscanf(rest,
                    ") %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s "
                    "%lld",
                    &state, &ticks) != 2) {
        return 0;
    }
    return state == 'Z' || state == 'X' ? 0 : ticks;
}

StatePageView::StatePageView(const char* path) {
    const OwnedFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat file {};
    if (!fd.valid() || fstat(fd.get(), &file) != 0) {
        error_ = errno;
        return;
    }
    error_ = EPROTO;
    if (static_cast<std::size_t>(file.st_size) != sizeof(StatePage)) {
        return;
    }
    void* mapped = mmap(nullptr, sizeof(StatePage), PROT_READ, MAP_SHARED, fd.get(), 0);
    if (mapped == MAP_FAILED) {
        error_ = errno;
        return;
    }
    page_ = static_cast<const StatePage*>(mapped);
    if (page_->magic != StatePage::MAGIC || page_->layout != StatePage::LAYOUT) {
        (void)munmap(mapped, sizeof(StatePage));
        page_ = nullptr;
        return;
    }
    error_ = 0;
}

StatePageView::~StatePageView() {
    if (page_ != nullptr) {
        (void)munmap(const_cast<StatePage*>(page_), sizeof(StatePage));
    }
}

std::shared_ptr<const StatePage> copy_of(const StatePage& page) {
    auto copy = std::make_shared<StatePage>();
    copy_page(page, *copy);
    const auto copy_text = [](auto& to, const auto& from) {
        to.set(from.get());
    };
    copy_text(copy->version, page.version);
    copy_text(copy->master_ip, page.master_ip);
    copy_text(copy->slave_ip, page.slave_ip);
    copy_text(copy->services_text, page.services_text);
    copy_text(copy->fetch_server, page.fetch_server);
    for (std::size_t n = 0; n < PAGE_DATA_SETS; ++n) {
        copy_text(copy->sets[n].stamp, page.sets[n].stamp);
        copy_text(copy->answered_stamps[n], page.answered_stamps[n]);
    }
    return copy;
}

bool is_alive(const StatePage& page) {
    return page.start_ticks != 0 && start_ticks_of(page.pid) == page.start_ticks;
}

// --- What happens --------------------------------------------------------------------------------

namespace page {

StatePage& own() {
    StatePage* page = published.load(std::memory_order_acquire);
    return page != nullptr ? *page : unpublished();
}

void waits_for_role(int reason) {
    own().role_reason = reason;
    set_phase(PagePhase::WAITING);
}

void takes_role(int role, const char* master_ip, const char* slave_ip) {
    StatePage& page = own();
    page.master_ip.set(master_ip);
    page.slave_ip.set(slave_ip);
    page.role = role;
    page.period.set_now();
    set_phase(PagePhase::SERVING);
}

void stops() {
    set_phase(PagePhase::STOPPED);
}

void period_begins() {
    StatePage& page = own();
    if (page.counters.heartbeats_sent > 0 &&
        page.heartbeat_answered.monotonic < page.period.monotonic) {
        ++page.counters.heartbeats_missed;
    }
    page.period.set_now();
}

void heartbeat_sent() {
    own().heartbeat_sent.set_now();
    ++own().counters.heartbeats_sent;
}

void answer_received() {
    own().heartbeat_answered.set_now();
    ++own().counters.heartbeats_answered;
}

void stamps_compared(bool config_differs, bool clients_differ) {
    StatePage& page = own();
    const std::int64_t missing =
        (config_differs ? bit_of(1) : 0) | (clients_differ ? bit_of(2) : 0);
    add_missing(page, missing);
    page.sets_missing = missing;
    page.stamps_compared.set_now();
}

void takes_over(int role, int status) {
    StatePage& page = own();
    page.services_result = static_cast<std::int64_t>(PageResult::NONE);
    page.take_overs_before[1] = page.take_overs_before[0].load();
    page.take_overs_before[0] = page.take_over.monotonic.load();
    page.take_over.set_now();
    page.status = status;
    page.role = role;
    ++page.counters.take_overs;
}

void steps_down(int role, int status) {
    StatePage& page = own();
    page.step_down.set_now();
    page.status = status;
    page.role = role;
    ++page.counters.step_downs;
}

void services_started(bool success, std::string_view text) {
    StatePage& page = own();
    page.services_text.set(success ? std::string_view() : text);
    page.services_started.set_now();
    page.services_result =
        static_cast<std::int64_t>(success ? PageResult::SUCCESS : PageResult::FAILURE);
}

void heartbeat_received(std::uint32_t server) {
    StatePage& page = own();
    page.partner = server;
    page.heartbeat_received.set_now();
    ++page.unanswered;
    ++page.counters.heartbeats_received;
}

void request_received(std::uint32_t kind) {
    StatePage& page = own();
    add_missing(page, kind == 0 ? bit_of(1) | bit_of(2) : bit_of(kind));
    page.quiet_answers = 0;
    ++page.counters.requests;
}

void answer_sent(std::uint32_t address, std::string_view config_stamp,
                 std::string_view client_stamp) {
    StatePage& page = own();
    ++page.counters.answers;
    if (page.partner != address) {
        return;
    }
    const std::array<std::string_view, PAGE_DATA_SETS> stamps = {config_stamp, client_stamp};
    for (std::size_t n = 0; n < PAGE_DATA_SETS; ++n) {
        const std::string before = page.answered_stamps[n].get();
        if (before != stamps[n]) {
            page.answered_stamps[n].set(stamps[n]);
        }
        if (!before.empty() && before != stamps[n]) {
            add_missing(page, bit_of(static_cast<std::uint32_t>(n + 1)));
            page.quiet_answers = 0;  // those were to another stamp
        }
    }
    page.heartbeat_answered.set_now();
    page.unanswered = 0;
    ++page.quiet_answers;
}

void fetch_begins(std::string_view server) {
    StatePage& page = own();
    page.fetch_server.set(server);
    page.fetch_began.set_now();
    page.fetching = 1;
}

int fetch_ends(int result) {
    StatePage& page = own();
    page.fetch_result = result;
    page.fetch_ended.set_now();
    page.fetching = 0;
    ++(result == 0 ? page.counters.fetches_whole : page.counters.fetches_failed);
    return result;
}

void records_sent(std::size_t records, std::size_t bytes, std::size_t failed) {
    StatePage& page = own();
    note_step(page.transfer);
    page.transfer.records += static_cast<std::int64_t>(records);
    page.transfer.bytes += static_cast<std::int64_t>(bytes);
    page.counters.records_sent += static_cast<std::int64_t>(records);
    page.counters.records_failed += static_cast<std::int64_t>(failed);
}

void record_stored(bool success) {
    ++(success ? own().counters.records_stored : own().counters.records_failed);
}

void message_logged(int level) {
    if (level >= 0 && level < static_cast<int>(PAGE_LOG_LEVELS)) {
        ++own().counters.log_lines[static_cast<std::size_t>(level)];
    }
}

void lines_written(std::string_view lines, int error) {
    own().log_error = error;
    if (error != 0) {
        own().counters.log_lines_lost += std::count(lines.begin(), lines.end(), '\n');
    }
}

void Transfer::begins(std::uint32_t kind) {
    ends(false, {});
    kind_ = kind;
    PageTransferNow& begun = own().transfer;
    note_step(begun);
    ++begun.tries;
    begun.records = 0;
    begun.bytes = 0;
    begun.since.set_now();
    begun.kind = kind;
    ++own().counters.transfers_begun;
}

void Transfer::receives(std::uint32_t kind, std::size_t bytes) {
    if (kind_ != kind) {
        begins(kind);
    }
    note_step(own().transfer);
    ++own().transfer.records;
    own().transfer.bytes += static_cast<std::int64_t>(bytes);
}

bool Transfer::ends(bool whole, std::string_view stamp) {
    if (kind_ == 0) {
        return whole;
    }
    StatePage& page = own();
    ++(whole ? page.counters.transfers_whole : page.counters.transfers_broken);
    if (whole && kind_ <= PAGE_DATA_SETS) {
        PageDataSet& set = page.sets[kind_ - 1];
        if (set.stamp.get() != stamp) {
            set.stamp.set(stamp);
            page.transfer.tries = 0;
        }
        set.records = std::max<std::int64_t>(page.transfer.records - 1, 0);
        set.duration = now(CLOCK_MONOTONIC) - page.transfer.since.monotonic;
        set.done.set_now();
        page.sets_missing &= ~bit_of(kind_);
        page.quiet_answers = 0;
    }
    note_step(page.transfer);
    page.transfer.kind = 0;
    kind_ = 0;
    return whole;
}

}  // namespace page
