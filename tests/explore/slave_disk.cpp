#include "slave_disk.h"

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

SlaveDisk::Fate SlaveDisk::change() {
    const bool strikes = mishap_ != Mishap::NONE && changes_ == at_;
    if (strikes && mishap_ == Mishap::KILLED) {
        throw Killed();
    }
    ++changes_;
    struck_ = struck_ || strikes;
    return !strikes ? Fate::DONE : mishap_ == Mishap::REFUSED ? Fate::REFUSED : Fate::HALF;
}

bool SlaveDisk::durable(bool can_be_half, const auto& effect) {
    const Fate fate = change();
    if (fate == Fate::DONE || (fate == Fate::HALF && can_be_half)) {
        effect();
    }
    return fate == Fate::DONE;
}

ListJournal SlaveDisk::read_journal() {
    if (world_.journal_there == 0) {
        return {};
    }
    return {static_cast<ListJournal::Phase>(world_.journal_phase), world_.journal_due,
            world_.journal_kept != 0, stamp_text(world_.journal_stamp)};
}

bool SlaveDisk::write_journal(const ListJournal& journal) {
    return durable(true, [&] {
        world_.journal_there = journal == ListJournal{} ? 0 : 1;
        world_.journal_phase = static_cast<std::uint8_t>(journal.phase);
        world_.journal_due = static_cast<std::uint8_t>(journal.due);
        world_.journal_kept = journal.kept ? 1 : 0;
        world_.journal_stamp = stamp_number(journal.stamp);
        if (journal.phase == ListJournal::Phase::CLOSED) {
            if (push_counts_) {
                world_.closed_set = push_.set;
            }
            world_.complete = world_.closed_set;
        }
    });
}

Kept SlaveDisk::keep() {
    if (world_.clients == 0) {
        return Kept::NO_RECORDS;
    }
    if (!durable(false, [&] { world_.kept = world_.clients; })) {
        world_.complete = NO_LIST;  // given up, with a line in the log
        return Kept::LOST;
    }
    return Kept::YES;
}

bool SlaveDisk::drop_kept() {
    return durable(true, [&] { world_.kept = NO_LIST; });
}

bool SlaveDisk::put_back() {
    return durable(false, [&] {
        world_.clients = world_.kept;
        world_.kept = NO_LIST;
    });
}

bool SlaveDisk::empty() {
    return durable(true, [&] {
        world_.clients = 0;
        push_counts_ = push_.there;
    });
}

std::optional<StampPair> SlaveDisk::stamps() {
    return StampPair{"", stamp_text(world_.stamp)};
}

bool SlaveDisk::store_stamp(const std::string& stamp) {
    return durable(true, [&] {
        world_.stamp = stamp_number(stamp);
        if (push_counts_) {
            world_.closed_set = push_.set;
        }
        world_.stamp_set = world_.complete = world_.closed_set;
    });
}

bool SlaveDisk::delete_stamp() {
    return durable(true, [&] {
        world_.stamp = NO_STAMP_YET;
        world_.stamp_set = NO_LIST;
    });
}

Batch SlaveDisk::open_batch() {
    world_.batch_open = 1;
    world_.batch = 0;
    return Batch::OPEN;
}

bool SlaveDisk::put(const std::string& key, const std::string& /*value*/) {
    if (change() != Fate::DONE) {
        return false;
    }
    world_.batch |= static_cast<Clients>(1U << static_cast<unsigned>(key[0] - 'A'));
    return true;
}

bool SlaveDisk::close_batch() {
    const bool closed = durable(false, [&] { world_.clients |= world_.batch; });
    world_.batch_open = 0;
    world_.batch = 0;
    return closed;
}
