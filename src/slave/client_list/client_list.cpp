#include "slave/client_list/client_list.h"

#include <cassert>
#include <utility>

#include "data_sets.h"
#include "keys.h"
#include "log.h"
#include "log_burst.h"
#include "state_page.h"

namespace {

using namespace std::chrono_literals;
using Phase = ListJournal::Phase;

constexpr auto SILENCE = 2s;  // after so long a push no longer counts as alive
constexpr int MOST_DUE = 100'000;

constexpr std::chrono::nanoseconds::rep NEVER = -1;
constexpr std::chrono::nanoseconds::rep NOW = -2;  // one is being worked on

bool is_whole(ListState state) {
    return state == ListState::COMPLETE || state == ListState::RESTORED;
}

bool is_part(ListState state) {
    return !is_whole(state) && state != ListState::CLOSING;
}

class SteadyClock : public ListClock {
public:
    std::chrono::nanoseconds now() override {
        return std::chrono::steady_clock::now().time_since_epoch();
    }
};

}  // namespace

ClientList& client_list() {
    // Never destroyed: the receiver may be at work on it while the process ends.
    static auto& clock = *new SteadyClock;
    static auto& list = *new ClientList(list_files(), clock);
    return list;
}

ClientList::ClientList(ListFiles& files, ListClock& clock, ListMemory memory)
    : files_(files), clock_(clock), memory_(std::move(memory)), last_record_(NEVER) {}

// --- What happened -------------------------------------------------------------------------------

void ClientList::start_as_slave() {
    const Turn turn(*this);
    if (load() && memory_.kept) {
        (void)files_.delete_stamp();  // it does not name the list that would be put back
    }
    (void)finish_closing();
}

void ClientList::start_as_master() {
    const Turn turn(*this);
    (void)load();
    memory_.due = 0;
    (void)move(ListEvent::MASTER_STARTS);
}

std::optional<StampPair> ClientList::stamps() {
    const Turn turn(*this);
    (void)finish_closing();
    return files_.stamps();
}

bool ClientList::ask() {
    const Turn turn(*this);
    const int due = memory_.due;
    memory_.due += due < MOST_DUE ? 1 : 0;
    const bool emptied = move(ListEvent::DIFFERENT_STAMPS);
    if (!emptied) {
        memory_.due = due;
        undo_keeping();
    }
    return emptied;
}

void ClientList::equal_stamps() {
    const Turn turn(*this);
    (void)move(ListEvent::EQUAL_STAMPS);
}

void ClientList::put(ClientPush& push, const std::string& key, const std::string& value) {
    const Turn turn(*this);
    begin(push);
    if (outdated(push) || !open_batch(push)) {
        page::record_stored(false);
        push.failed = true;
        return;
    }
    const bool stored = files_.put(key, value);
    page::record_stored(stored);
    push.failed = !stored || push.failed;
    push.stored = true;
}

bool ClientList::close(ClientPush& push, const std::string& stamp) {
    const Turn turn(*this);
    begin(push);
    close_batch();
    const bool asked = push.asked;
    push.whole = false;
    if (push.failed || outdated(push)) {
        refuse_stamp(push);
        return asked;
    }
    push.whole = move(asked ? ListEvent::PUSH_CLOSES : ListEvent::STAMP_COMES, stamp);
    // What may follow on this connection was not asked for.
    push.asked = asked && memory_.state == ListState::FILLING;
    return asked;
}

void ClientList::answered(ClientPush& push) {
    const Turn turn(*this);
    if (outdated(push)) {
        push = {.of_master = push.of_master, .stored = push.stored};
    }
}

void ClientList::flush(ClientPush& push) {
    const Turn turn(*this);
    if (memory_.batch == &push) {
        close_batch();
    }
}

void ClientList::end(ClientPush& push) {
    const Turn turn(*this);
    if (memory_.batch == &push) {
        close_batch();
    }
    if (push.asked && !outdated(push)) {
        (void)move(ListEvent::PUSH_BREAKS);
    }
    push.asked = false;
}

bool ClientList::holds_batch(const ClientPush& push) {
    const Turn turn(*this);
    return memory_.batch == &push;
}

void ClientList::take_over() {
    std::unique_lock lock(mutex_);
    taking_over_ = true;
    changed_.wait(lock, [this] { return !busy_ && memory_.batch == nullptr; });
    lock.unlock();  // the receiver's turn comes when this is over
    (void)move(ListEvent::TAKE_OVER);
    lock.lock();
    taking_over_ = false;
    changed_.notify_all();
}

bool ClientList::grows() {
    const auto last = last_record_.load();
    return last == NOW ||
           (last != NEVER && clock_.now() - std::chrono::nanoseconds(last) < SILENCE);
}

ClientList::Work::Work(ClientList& list) : list_(list) {
    list_.last_record_ = NOW;
}

ClientList::Work::~Work() {
    list_.last_record_ = list_.clock_.now().count();
}

// --- Moves ---------------------------------------------------------------------------------------

ClientList::Turn::Turn(ClientList& list) : list_(list) {
    if (!take()) {
        list_.close_batch();
        end();
        std::unique_lock lock(list_.mutex_);
        list_.changed_.wait(lock, [this] { return !list_.taking_over_; });
        list_.busy_ = true;
    }
}

ClientList::Turn::~Turn() {
    end();
}

// False when a take-over waits for the end of the open batch.
bool ClientList::Turn::take() {
    std::unique_lock lock(list_.mutex_);
    const bool must_wait = list_.taking_over_ && list_.memory_.batch == nullptr;
    if (must_wait) {
        lock.unlock();
        end_log_burst();  // its lines need not wait
        lock.lock();
    }
    list_.changed_.wait(lock, [this, must_wait] { return !must_wait || !list_.taking_over_; });
    list_.busy_ = true;
    return !list_.taking_over_;
}

void ClientList::Turn::end() {
    const std::lock_guard lock(list_.mutex_);
    list_.busy_ = false;
    list_.changed_.notify_all();
}

// Returns whether the list is a part although the own stamp is newer than that.
bool ClientList::load() {
    ListJournal journal = files_.read_journal();
    const bool kept = files_.has_kept();
    const bool before_journals = kept && !files_.has_journal();
    if (before_journals) {
        journal = {.phase = Phase::PART, .due = 1, .kept = true, .stamp = {}, .own = {}};
    }
    std::optional<StampPair> own;
    if (journal.phase != Phase::WHOLE && !before_journals) {
        own = files_.stamps();
    }
    const bool newer = own && !own->client.empty() && own->client != journal.own;
    const unsigned version = memory_.version;
    memory_ = {};
    memory_.version = version + 1;
    memory_.due = journal.due;
    if (journal.phase == Phase::CLOSED) {
        memory_.state = ListState::CLOSING;
        memory_.kept = kept;
        memory_.closing_stamp = newer ? own->client : journal.stamp;
    } else if (journal.phase == Phase::PART && (kept || !(journal.kept || newer))) {
        memory_.state = ListState::BROKEN;
        memory_.kept = kept;
    } else if (kept) {
        (void)files_.drop_kept();  // another name of client.db: a kill came before it was emptied
    }
    return newer && is_part(memory_.state);
}

// Whoever puts a list in the place of a part by hand removes the kept one.
void ClientList::look_for_kept() {
    if (is_part(memory_.state) && memory_.kept && !files_.has_kept()) {
        memory_.state = ListState::COMPLETE;
        memory_.kept = false;
        memory_.put_back = false;
        ++memory_.version;  // a push that is at work on the part belongs to no list any more
    }
}

bool ClientList::finish_closing() {
    return memory_.state != ListState::CLOSING || move(ListEvent::CLOSING_GOES_ON);
}

// False where a step failed, or where a closing that comes first or follows cannot be finished.
bool ClientList::move(ListEvent event, const std::string& stamp) {
    if (event != ListEvent::CLOSING_GOES_ON && !finish_closing()) {
        return false;
    }
    if (event != ListEvent::PUSH_CLOSES && event != ListEvent::PUSH_BREAKS) {
        look_for_kept();
    }
    const ListMove* move = find_move(memory_.state, event, memory_.kept);
    if (move == nullptr) {
        log_message(msg::LIST_MOVE_REFUSED, name_of(event), name_of(memory_.state));
    }
    assert(move != nullptr);
    close_batch();  // the steps need the file
    for (const ListStep step : move->steps) {
        if (step != ListStep::NOTHING && !take(step, stamp)) {
            return false;
        }
    }
    memory_.state = move->to;
    return finish_closing();
}

bool ClientList::take(ListStep step, const std::string& stamp) {
    switch (step) {
        case ListStep::KEEP:
            return keep();
        case ListStep::NOTE_ASKED:
            return note(Phase::PART);
        case ListStep::EMPTY:
            return empty();
        case ListStep::NOTE_CLOSED:
            return note(Phase::CLOSED);
        case ListStep::CLOSE:
            memory_.closing_stamp = stamp;
            return true;
        case ListStep::RETIRE_KEPT:
            return retire_kept();
        case ListStep::STORE_STAMP:
            return files_.store_stamp(memory_.state == ListState::CLOSING ? memory_.closing_stamp
                                                                          : stamp);
        case ListStep::DELETE_STAMP:
            return files_.delete_stamp();
        case ListStep::NOTE_WHOLE:
            return note(Phase::WHOLE) || is_whole(memory_.state);
        case ListStep::PUT_BACK:
            return put_back();
        case ListStep::FILL:
        case ListStep::BREAK:
        case ListStep::NOTHING:
            break;
    }
    return true;
}

bool ClientList::keep() {
    const Kept kept = files_.keep();
    memory_.kept = kept == Kept::YES;
    // Nothing would be left that belongs to the own stamp.
    return kept != Kept::LOST || files_.delete_stamp();
}

// One that fails may have emptied the file all the same: whatever is there is no list any more.
bool ClientList::empty() {
    const bool empty = files_.empty();
    memory_.state = empty ? ListState::EMPTIED : ListState::BROKEN;
    ++memory_.version;
    memory_.put_back = false;
    return empty;
}

// Nobody knows whether the administrator meant a list of less than half the records, or none.
bool ClientList::retire_kept() {
    const ListSizes sizes = files_.sizes();
    const bool shrunk = !sizes.kept || has_shrunk(*sizes.kept, sizes.now);
    memory_.kept = !(shrunk ? files_.keep_before_shrink(sizes) : files_.drop_kept());
    return !memory_.kept;
}

bool ClientList::put_back() {
    if (!files_.put_back()) {
        return false;
    }
    memory_.state = ListState::RESTORED;
    memory_.kept = false;
    ++memory_.version;
    memory_.put_back = true;
    return true;
}

bool ClientList::note(Phase phase) {
    ListJournal journal{.phase = phase, .due = memory_.due, .kept = false, .stamp = {}, .own = {}};
    if (phase == Phase::WHOLE) {
        return files_.write_journal(journal);
    }
    if (phase == Phase::PART) {
        journal.kept = memory_.kept;
    } else {
        journal.stamp = memory_.closing_stamp;
    }
    const std::optional<StampPair> own = files_.stamps();
    if (own) {
        journal.own = own->client;
    }
    return own && files_.write_journal(journal);
}

// After a move from a whole list that failed before it was emptied: it stays whole.
void ClientList::undo_keeping() {
    if (is_whole(memory_.state) && note(Phase::WHOLE) && memory_.kept) {
        memory_.kept = !files_.drop_kept();
    }
}

// --- Pushes --------------------------------------------------------------------------------------

void ClientList::begin(ClientPush& push) {
    if (push.begun) {
        return;
    }
    push.begun = true;
    if (push.of_master && memory_.due > 0) {
        --memory_.due;
        push.asked = true;
        push.refused = !move(ListEvent::PUSH_BEGINS);
        if (push.refused) {
            undo_keeping();
        }
    }
    push.version = memory_.version;
}

// Whether another file has come in the place of the one that the push was filling.
bool ClientList::outdated(const ClientPush& push) const {
    return push.asked && (push.refused || push.version != memory_.version);
}

void ClientList::refuse_stamp(const ClientPush& push) const {
    if (push.failed) {
        log_message(msg::STAMP_OF_BROKEN_SET, KEY_CLIENT_VERSION);
    } else if (memory_.put_back) {
        log_message(msg::STAMP_AFTER_PUTTING_BACK, KEY_CLIENT_VERSION);
    } else {
        log_message(msg::STAMP_AFTER_EMPTYING, KEY_CLIENT_VERSION);
    }
}

bool ClientList::open_batch(ClientPush& push) {
    if (memory_.batch == &push) {
        return true;
    }
    close_batch();
    const Batch batch = files_.open_batch();
    if (batch == Batch::FAILED) {
        return false;
    }
    if (batch == Batch::OPEN_EMPTY) {
        replaced_by_empty(push);
    }
    memory_.batch = &push;
    const FileId file = files_.batch_file();
    const bool replaced = batch == Batch::OPEN && push.asked && push.file.value_or(file) != file;
    push.file = file;
    if (replaced) {
        replaced_by_others(push);
    }
    return !replaced;
}

// What client.db held is gone: the records of this push and of others, and what the stamp names.
void ClientList::replaced_by_empty(ClientPush& push) {
    push.failed = push.failed || push.stored;
    push.version = ++memory_.version;
    if (is_whole(memory_.state)) {
        (void)files_.delete_stamp();
    }
}

// Somebody has restored a list while the push filled another file: none of its records get there.
void ClientList::replaced_by_others(ClientPush& push) {
    (void)move(ListEvent::PUSH_BREAKS);
    look_for_kept();
    ++memory_.version;
    push.failed = true;
}

void ClientList::close_batch() {
    if (memory_.batch != nullptr) {
        memory_.batch->failed = !files_.close_batch() || memory_.batch->failed;
        memory_.batch = nullptr;
    }
}
