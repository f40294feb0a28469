// What the slave's client list needs of the disk, one durable change an operation, and the journal
// that makes sense of the files after a kill.
//
// An operation that returns is on disk; one that fails has changed nothing, or something that a
// repetition sets right. Each logs why it failed, but keep() does not log a damaged file: empty(),
// which follows, does. Called with the list's own lock held.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "stamps.h"

// What is to be known about client.db after a restart; kept beside it as client.db.journal.
struct ListJournal {
    enum class Phase : std::uint8_t {
        WHOLE,   // client.db is a whole list
        PART,    // a part, if need be an empty one; the old list is client.db.previous, if `kept`.
                 // Where that is missing although `kept`, client.db is the old list itself
        CLOSED,  // a whole list; client.db.previous is out of date and `stamp` is to be stored
    };
    Phase phase = Phase::WHOLE;
    int due = 0;  // at most so many pushes that were asked for are still to come
    bool kept = false;
    std::string stamp;
    std::string own;  // the own stamp when a PART or CLOSED was written: who finds another one
                      // there knows that the list has been given it by others since

    bool operator==(const ListJournal&) const = default;
};

enum class Kept : std::uint8_t {
    YES,
    NO_RECORDS,  // an empty list is not kept
    LOST,        // it is damaged, or the file system refused
};

// Records; 0 for a missing file.
struct ListSizes {
    std::optional<std::size_t> kept;  // nothing when they cannot be counted
    std::size_t now;                  // 0 then
};

using FileId = std::pair<std::uint64_t, std::uint64_t>;  // device and inode

enum class Batch : std::uint8_t {
    OPEN,
    OPEN_EMPTY,  // client.db was damaged; an empty one is in its place
    FAILED,
};

class ListFiles {
public:
    virtual ~ListFiles() = default;

    // The journal; a whole list without pushes due is what a missing file stands for, and storing
    // such a journal removes the file. A file that makes no sense counts as a part with an old list
    // for which a push is due: where client.db.previous is missing, this is a whole list.
    virtual ListJournal read_journal() = 0;
    virtual bool has_journal() = 0;
    virtual bool write_journal(const ListJournal& journal) = 0;

    // client.db.previous: is it there; client.db gets it as its second name, in the place of an
    // older one; it is removed; it takes the place of client.db.
    virtual bool has_kept() = 0;
    virtual Kept keep() = 0;
    virtual bool drop_kept() = 0;
    virtual bool put_back() = 0;

    // How many records both have, and client.db.previous gets the name client.db.before-shrink, in
    // the place of an older one. One that has more records and is less than a week old stays
    // instead: client.db.previous is removed.
    virtual ListSizes sizes() = 0;
    virtual bool keep_before_shrink(const ListSizes& sizes) = 0;

    // Puts an empty file in the place of client.db.
    virtual bool empty() = 0;

    // Both own stamps, the empty text where there is none; nothing when config.db cannot be read.
    // And client_db_version is stored or deleted.
    virtual std::optional<StampPair> stamps() = 0;
    virtual bool store_stamp(const std::string& stamp) = 0;
    virtual bool delete_stamp() = 0;

    // Records on their way into client.db: one open file, which is batch_file(), locked until it is
    // closed by the same thread. On disk when closed; false then means that some may be lost.
    virtual Batch open_batch() = 0;
    virtual FileId batch_file() = 0;
    virtual bool put(const std::string& key, const std::string& value) = 0;
    virtual bool close_batch() = 0;
};

// The files of this host. Stateless but for the open batch.
ListFiles& list_files();
