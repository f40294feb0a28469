// The state page: what a running daemon knows now, in one small file in memory that any process may
// map and read. The log is the history; this is the present.
//
// The file /run/quorsyncd.state holds one StatePage. Each daemon makes it anew at its start; the
// page of a daemon that has ended stays, and is recognised by pid and start time. The daemon
// updates it by single atomic stores and additions, without a system call. Until a page is
// published, and where it cannot be, the updates go into a page of the process's own: callers need
// no distinction.
//
// All times are pairs of CLOCK_MONOTONIC and CLOCK_REALTIME in nanoseconds; 0 is "never".
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

inline constexpr const char* STATE_PAGE = "/run/quorsyncd.state";

using PageNumber = std::atomic<std::int64_t>;
static_assert(PageNumber::is_always_lock_free && sizeof(PageNumber) == 8);

struct PageTime {
    PageNumber monotonic;
    PageNumber wall;

    void set_now();
    bool ever() const { return monotonic != 0; }
};

// A text of at most 8 * WORDS bytes; a longer one is cut. Any thread may set it, any process read
// it: a reader never sees a part of it, but nothing where the writer died in the middle.
template <std::size_t WORDS>
struct PageText {
    PageNumber changes;  // odd while the text is being changed
    std::array<PageNumber, WORDS> words;

    void set(std::string_view text);
    std::string get() const;
};

enum class PagePhase : std::int64_t {
    WAITING,  // for a role
    SERVING,
    STOPPED,  // a slave that was asked to end: its process stays and does nothing
};

enum class PageResult : std::int64_t { NONE, SUCCESS, FAILURE };

inline constexpr std::size_t PAGE_DATA_SETS = 2;  // configuration, clients: their kind less 1
inline constexpr std::size_t PAGE_LOG_LEVELS = 4;

// The last data set that was pushed or received whole, by this daemon or the one before it.
struct PageDataSet {
    PageTime done;
    PageNumber records;  // without the closing one
    PageNumber duration;
    PageText<16> stamp;
};

// The push or reception that is under way. Where a master pushes to a stranger beside a server, the
// numbers are those of both.
struct PageTransferNow {
    PageNumber kind;  // 0 for none
    PageNumber records;
    PageNumber bytes;
    PageTime since;
    PageNumber moved;  // CLOCK_MONOTONIC of its last step: asked for, begun, a record, its end
    PageNumber tries;  // sets begun one soon after the other without a new stamp at their end
};

// Since the start of the daemon.
struct PageCounters {
    PageNumber heartbeats_sent;      // by a slave
    PageNumber heartbeats_answered;  // answers that a slave received
    PageNumber heartbeats_missed;    // periods of a slave without an answer
    PageNumber heartbeats_received;  // by a master, from a configured server
    PageNumber answers;              // that a master sent, to anybody
    PageNumber requests;             // for a data set, sent by a slave or received by a master
    PageNumber transfers_begun;      // pushes of a master, receptions of a slave
    PageNumber transfers_whole;
    PageNumber transfers_broken;
    PageNumber records_sent;
    PageNumber records_stored;
    PageNumber records_failed;  // that could not be sent or stored
    PageNumber fetches_whole;
    PageNumber fetches_failed;
    PageNumber strangers_datagrams;
    PageNumber take_overs;
    PageNumber step_downs;
    std::array<PageNumber, PAGE_LOG_LEVELS> log_lines;
    PageNumber log_lines_lost;  // not written to the daily log
};

// A change of the layout needs another LAYOUT: readers refuse what they do not know.
struct StatePage {
    static constexpr std::int64_t MAGIC = 0x4554415453435351;  // "QSCSTATE"
    static constexpr std::int64_t LAYOUT = 2;

    PageNumber magic;
    PageNumber layout;
    PageText<2> version;  // of the program
    PageNumber pid;
    PageNumber start_ticks;  // start_ticks_of(pid)
    PageTime started;

    PageNumber phase;        // PagePhase
    PageNumber role_reason;  // RoleReason (role.h), while it waits for a role
    PageNumber role;         // ROLE_*
    PageNumber status;       // STATUS_*, of a slave
    PageNumber bottle;
    PageText<4> master_ip;
    PageText<4> slave_ip;

    PageTime period;              // a slave's last one began; every 2 seconds while it is well
    PageTime heartbeat_sent;      // by a slave
    PageTime heartbeat_received;  // by a master, from a configured server
    PageTime heartbeat_answered;  // received by a slave, or sent to that server by a master; also
                                  // by the daemon before, as long as there was none since
    PageNumber unanswered;        // heartbeats of a master since the last one that it answered
    std::array<PageText<16>, PAGE_DATA_SETS> answered_stamps;  // that a master sent last
    PageTime stamps_compared;  // by a slave, with those of an answer
    PageNumber sets_missing;   // bit per kind: stamps differ on a slave; on a master asked for, and
                               // not pushed whole since
    PageNumber quiet_answers;  // of a master since the last request or whole push
    PageNumber partner;        // of a master: the configured server that sent the last heartbeat

    PageTime take_over;
    std::array<PageNumber, 2> take_overs_before;  // CLOCK_MONOTONIC of the two before that one
    PageTime step_down;
    PageTime services_started;   // by the last take-over
    PageNumber services_result;  // PageResult
    PageText<16> services_text;  // why the start failed

    PageTransferNow transfer;
    std::array<PageDataSet, PAGE_DATA_SETS> sets;

    PageText<4> fetch_server;
    PageTime fetch_began;
    PageNumber fetching;      // 1 while a fetch is under way
    PageTime fetch_ended;     // the last one before
    PageNumber fetch_result;  // of it, 0 for success

    PageNumber log_error;  // the errno of the last line for the daily log, 0 when it was written
    PageCounters counters;
};
static_assert(std::is_standard_layout_v<StatePage> && alignof(StatePage) == 8);
static_assert(sizeof(StatePage) == 1448, "another layout needs another LAYOUT");

// The pid of the daemon that is at work by the page at `path`; 0 for none, and for this process.
pid_t daemon_of_page(const char* path = STATE_PAGE);

// Makes the page of this process and publishes it, with what it holds so far and what the page in
// its place tells of the last data sets and the last answer. 0 or an errno; EBUSY where the page
// belongs to another daemon that is at work, unless this one holds the host (only_daemon.h): then
// that one has stopped its work. Before other threads are started.
[[nodiscard]] int publish_state_page(const char* version, const char* path = STATE_PAGE,
                                     bool holds_host = false);

// When the process started, in clock ticks since boot; 0 when there is none of that pid.
std::int64_t start_ticks_of(std::int64_t pid);

// The page at `path`, mapped for reading.
class StatePageView {
public:
    explicit StatePageView(const char* path = STATE_PAGE);
    ~StatePageView();
    StatePageView(const StatePageView&) = delete;
    StatePageView& operator=(const StatePageView&) = delete;

    // Null when there is none, or one that is not of this layout.
    const StatePage* get() const { return page_; }

    // Why there is none: an errno, EPROTO for another layout.
    int error() const { return error_; }

private:
    const StatePage* page_ = nullptr;
    int error_ = 0;
};

// A copy that no longer changes.
std::shared_ptr<const StatePage> copy_of(const StatePage& page);

// Whether the process that made the page is alive.
bool is_alive(const StatePage& page);

// --- What happens in the daemon. Any thread, except where one is named. errno is kept ------------

namespace page {

// The page of this process.
StatePage& own();

void waits_for_role(int reason);
void takes_role(int role, const char* master_ip, const char* slave_ip);
void stops();  // async-signal-safe

// Slave.
void period_begins();
void heartbeat_sent();
void answer_received();
void stamps_compared(bool config_differs, bool clients_differ);
void takes_over(int role, int status);
void steps_down(int role, int status);
void services_started(bool success, std::string_view text);

// Master. Addresses are in network byte order.
void heartbeat_received(std::uint32_t server);
void request_received(std::uint32_t kind);
void answer_sent(std::uint32_t address, std::string_view config_stamp,
                 std::string_view client_stamp);
void fetch_begins(std::string_view server);
int fetch_ends(int result);  // returns it

// Records that were sent or stored, or could not be. Those sent count for the push under way.
void records_sent(std::size_t records, std::size_t bytes, std::size_t failed);
void record_stored(bool success);

// The log: a message; an attempt to write lines into the daily log, with its errno or 0.
void message_logged(int level);
void lines_written(std::string_view lines, int error);

// One push, or the receptions of one connection. What has begun and not ended whole is broken when
// this goes.
class Transfer {
public:
    Transfer() = default;
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() { ends(false, {}); }

    void begins(std::uint32_t kind);

    // A record of that kind came; begins what is not under way.
    void receives(std::uint32_t kind, std::size_t bytes);

    // It was whole if the stamp is in place on the other side or, on a slave, on this one.
    bool ends(bool whole, std::string_view stamp);  // returns `whole`

private:
    std::uint32_t kind_ = 0;
};

}  // namespace page
