// The files of one host, in a World, as its client list works on them; and a clock.
#pragma once

#include <bit>
#include <functional>
#include <utility>

#include "data_sets.h"
#include "world.h"

struct Killed {};

inline std::string stamp_text(StampNumber stamp) {
    return stamp == NO_STAMP_YET ? "" : std::to_string(stamp);
}

inline StampNumber stamp_number(std::string_view text) {
    return text.empty() ? NO_STAMP_YET : static_cast<StampNumber>(text[0] - '0');
}

inline Clients bit_of(std::string_view key) {
    return static_cast<Clients>(1U << static_cast<unsigned>(key[0] - 'A'));
}

class DiskFiles : public ListFiles {
public:
    DiskFiles(Disk& disk, Memory& memory, const Event& event)
        : disk_(disk), memory_(memory), mishap_(event.mishap), at_(event.at) {}

    bool struck() const { return struck_; }
    bool push_counts() const { return push_counts_; }
    const std::string& violation() const { return violation_; }  // empty: none

    // The closing record of that push is being read. Where the closing of another one is still to
    // be finished, it does not count before the list is emptied for it.
    void closes(const Channel& push, bool other_first) {
        push_ = push;
        push_counts_ = !other_first;
    }

    bool has_journal() override { return disk_.has_journal; }
    ListJournal read_journal() override {
        if (!disk_.has_journal) {
            return {};
        }
        return {disk_.phase, disk_.due, disk_.says_kept, stamp_text(disk_.closing),
                stamp_text(disk_.own)};
    }
    bool write_journal(const ListJournal& journal) override {
        return durable(true, [&] {
            disk_.has_journal = journal != ListJournal{};
            disk_.phase = journal.phase;
            disk_.due = static_cast<std::uint8_t>(journal.due);
            disk_.says_kept = journal.kept;
            disk_.closing = stamp_number(journal.stamp);
            disk_.own = stamp_number(journal.own);
            if (journal.phase == ListJournal::Phase::CLOSED) {
                disk_.complete = closed_set();
            }
        });
    }

    bool has_kept() override { return disk_.kept != NO_LIST; }
    Kept keep() override {
        if (disk_.clients == 0) {
            return Kept::NO_RECORDS;
        }
        if (!durable(false, [&] { disk_.kept = disk_.clients; })) {
            disk_.complete = NO_LIST;  // given up, with a line in the log
            return Kept::LOST;
        }
        return Kept::YES;
    }
    bool drop_kept() override {
        if (disk_.kept != NO_LIST && disk_.kept != disk_.clients &&
            has_shrunk(*sizes().kept, sizes().now)) {
            violation_ = "I5: a list that has shrunk is removed";
        }
        return durable(true, [&] { disk_.kept = NO_LIST; });
    }
    ListSizes sizes() override {
        const Clients kept = disk_.kept == NO_LIST ? Clients{0} : disk_.kept;
        return {static_cast<std::size_t>(std::popcount(kept)),
                static_cast<std::size_t>(std::popcount(disk_.clients))};
    }
    // Whether a larger list stays there instead makes no difference to what is followed here.
    bool keep_before_shrink(const ListSizes& /*sizes*/) override {
        return durable(true, [&] { disk_.kept = NO_LIST; });
    }
    bool put_back() override {
        return durable(false, [&] { disk_.clients = std::exchange(disk_.kept, NO_LIST); });
    }
    bool empty() override {
        return durable(true, [&] {
            disk_.clients = 0;
            push_counts_ = push_.there;
        });
    }

    std::optional<StampPair> stamps() override { return StampPair{"", stamp_text(disk_.stamp)}; }
    bool store_stamp(const std::string& stamp) override {
        return durable(true, [&] {
            disk_.stamp = stamp_number(stamp);
            disk_.stamp_set = disk_.complete = closed_set();
        });
    }
    bool delete_stamp() override {
        return durable(true, [&] {
            disk_.stamp = NO_STAMP_YET;
            disk_.stamp_set = NO_LIST;
        });
    }

    Batch open_batch() override {
        memory_.batch_open = true;
        return Batch::OPEN;
    }
    FileId batch_file() override { return {}; }  // nobody else replaces it
    bool put(const std::string& key, const std::string& /*value*/) override {
        const bool done = change() == Fate::DONE;
        memory_.batch |= done ? bit_of(key) : Clients{0};
        return done;
    }
    bool close_batch() override {
        const Clients records = std::exchange(memory_.batch, Clients{0});
        memory_.batch_open = false;
        return durable(false, [&] { disk_.clients |= records; });
    }

private:
    enum class Fate : std::uint8_t { DONE, REFUSED, HALF };

    Fate change() {
        const bool strikes = mishap_ != Mishap::NONE && changes_ == at_;
        if (strikes && mishap_ == Mishap::KILLED) {
            throw Killed();
        }
        ++changes_;
        struck_ = struck_ || strikes;
        return !strikes ? Fate::DONE : mishap_ == Mishap::REFUSED ? Fate::REFUSED : Fate::HALF;
    }
    bool durable(bool can_be_half, const auto& effect) {
        const Fate fate = change();
        if (fate == Fate::DONE || (fate == Fate::HALF && can_be_half)) {
            effect();
        }
        return fate == Fate::DONE;
    }
    Clients closed_set() {
        if (push_counts_) {
            disk_.closed_set = push_.set;
        }
        return disk_.closed_set;
    }

    Disk& disk_;
    Memory& memory_;
    Mishap mishap_;
    unsigned at_;
    unsigned changes_ = 0;
    bool struck_ = false;
    Channel push_{};
    bool push_counts_ = false;
    std::string violation_;
};

class TestClock : public ListClock {
public:
    std::chrono::nanoseconds now() override {
        if (looked_at) {
            std::exchange(looked_at, nullptr)();
        }
        return time;
    }

    std::chrono::nanoseconds time = std::chrono::hours(1);
    std::function<void()> looked_at;
};
