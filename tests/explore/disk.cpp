#include "disk.h"

#include <utility>

std::string stamp_text(StampNumber stamp) {
    return stamp == NO_STAMP_YET ? "" : std::to_string(stamp);
}

StampNumber stamp_number(const std::string& text) {
    return text.empty() ? NO_STAMP_YET : static_cast<StampNumber>(text[0] - '0');
}

std::chrono::nanoseconds TestClock::now() {
    if (looked_at) {
        std::exchange(looked_at, nullptr)();
    }
    return time;
}

DiskFiles::Fate DiskFiles::change() {
    const bool strikes = mishap_ != Mishap::NONE && changes_ == at_;
    if (strikes && mishap_ == Mishap::KILLED) {
        throw Killed();
    }
    ++changes_;
    struck_ = struck_ || strikes;
    return !strikes ? Fate::DONE : mishap_ == Mishap::REFUSED ? Fate::REFUSED : Fate::HALF;
}

bool DiskFiles::durable(bool can_be_half, const auto& effect) {
    const Fate fate = change();
    if (fate == Fate::DONE || (fate == Fate::HALF && can_be_half)) {
        effect();
    }
    return fate == Fate::DONE;
}

ListJournal DiskFiles::read_journal() {
    return disk_.has_journal ? ListJournal{.phase = disk_.phase,
                                           .due = disk_.due,
                                           .kept = disk_.says_kept,
                                           .stamp = stamp_text(disk_.closing),
                                           .own = stamp_text(disk_.own)}
                             : ListJournal{};
}

bool DiskFiles::write_journal(const ListJournal& journal) {
    return durable(true, [&] {
        disk_.has_journal = journal != ListJournal{};
        disk_.phase = journal.phase;
        disk_.due = static_cast<std::uint8_t>(journal.due);
        disk_.says_kept = journal.kept;
        disk_.closing = stamp_number(journal.stamp);
        disk_.own = stamp_number(journal.own);
        if (journal.phase == ListJournal::Phase::CLOSED) {
            if (push_counts_) {
                disk_.closed_set = push_.set;
            }
            disk_.complete = disk_.closed_set;
        }
    });
}

Kept DiskFiles::keep() {
    if (disk_.clients == 0) {
        return Kept::NO_RECORDS;
    }
    if (!durable(false, [&] { disk_.kept = disk_.clients; })) {
        disk_.complete = NO_LIST;  // given up, with a line in the log
        return Kept::LOST;
    }
    return Kept::YES;
}

bool DiskFiles::drop_kept() {
    return durable(true, [&] { disk_.kept = NO_LIST; });
}

bool DiskFiles::put_back() {
    return durable(false, [&] { disk_.clients = std::exchange(disk_.kept, NO_LIST); });
}

bool DiskFiles::empty() {
    return durable(true, [&] {
        disk_.clients = 0;
        push_counts_ = push_.there;
    });
}

std::optional<StampPair> DiskFiles::stamps() {
    return StampPair{"", stamp_text(disk_.stamp)};
}

bool DiskFiles::store_stamp(const std::string& stamp) {
    return durable(true, [&] {
        disk_.stamp = stamp_number(stamp);
        if (push_counts_) {
            disk_.closed_set = push_.set;
        }
        disk_.stamp_set = disk_.complete = disk_.closed_set;
    });
}

bool DiskFiles::delete_stamp() {
    return durable(true, [&] {
        disk_.stamp = NO_STAMP_YET;
        disk_.stamp_set = NO_LIST;
    });
}

Batch DiskFiles::open_batch() {
    memory_.batch_open = true;
    memory_.batch = 0;
    return Batch::OPEN;
}

bool DiskFiles::put(const std::string& key, const std::string& /*value*/) {
    if (change() != Fate::DONE) {
        return false;
    }
    memory_.batch |= static_cast<Clients>(1U << static_cast<unsigned>(key[0] - 'A'));
    return true;
}

bool DiskFiles::close_batch() {
    const bool closed = durable(false, [&] { disk_.clients |= memory_.batch; });
    memory_.batch_open = false;
    memory_.batch = 0;
    return closed;
}
