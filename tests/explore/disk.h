// The files of one host, in a World, as its client list works on them.
#pragma once

#include <functional>

#include "world.h"

struct Killed {};

class DiskFiles : public ListFiles {
public:
    DiskFiles(Disk& disk, Memory& memory, const Event& event)
        : disk_(disk), memory_(memory), mishap_(event.mishap), at_(event.at) {}

    bool struck() const { return struck_; }
    bool push_counts() const { return push_counts_; }

    // The closing record of that push is being read. Where the closing of another one is still to
    // be finished, it does not count before the list is emptied for it.
    void closes(const Channel& push, bool other_first) {
        push_ = push;
        push_counts_ = !other_first;
    }

    ListJournal read_journal() override;
    bool has_journal() override { return disk_.has_journal; }
    bool write_journal(const ListJournal& journal) override;
    bool has_kept() override { return disk_.kept != NO_LIST; }
    Kept keep() override;
    bool drop_kept() override;
    bool put_back() override;
    bool empty() override;
    std::optional<StampPair> stamps() override;
    bool store_stamp(const std::string& stamp) override;
    bool delete_stamp() override;
    Batch open_batch() override;
    bool put(const std::string& key, const std::string& value) override;
    bool close_batch() override;

private:
    enum class Fate : std::uint8_t { DONE, REFUSED, HALF };
    Fate change();
    bool durable(bool can_be_half, const auto& effect);

    Disk& disk_;
    Memory& memory_;
    Mishap mishap_;
    unsigned at_;
    unsigned changes_ = 0;
    bool struck_ = false;
    Channel push_{};
    bool push_counts_ = false;
};

class TestClock : public ListClock {
public:
    std::chrono::nanoseconds now() override;

    std::chrono::nanoseconds time = std::chrono::hours(1);
    std::function<void()> looked_at;
};

std::string stamp_text(StampNumber stamp);
StampNumber stamp_number(const std::string& text);
