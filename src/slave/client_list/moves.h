// Where the slave's client list can stand, and the moves between these states. Pure; logs nothing.
#pragma once

#include <array>
#include <cstdint>

enum class ListState : std::uint8_t {
    COMPLETE,  // client.db is a whole list
    EMPTIED,   // emptied, and the master was asked for the new list
    FILLING,   // a push that was asked for is adding its records
    BROKEN,    // such a push has ended without its closing record, and left a part
    CLOSING,   // whole again, but the old list or the old stamp is not replaced everywhere yet
    RESTORED,  // the list from before was put back
};

enum class ListEvent : std::uint8_t {
    DIFFERENT_STAMPS,  // an answer: the master has another list
    EQUAL_STAMPS,      // an answer: the master has the list that the own stamp names
    PUSH_BEGINS,       // the first client record of a connection, and a push is due
    PUSH_CLOSES,       // the closing record of that push; all its records are on disk
    PUSH_BREAKS,       // its connection has ended without that
    STAMP_COMES,       // a closing record that nobody asked for
    TAKE_OVER,         // the boot services are about to start on this list
    MASTER_STARTS,     // the host becomes the master, which changes its list by other means
    CLOSING_GOES_ON,   // right after the closing record, and again if that failed
};

// What a move does, in order; the first step that fails ends the move. FILL, BREAK and CLOSE are
// only remembered, each of the others is one durable change.
enum class ListStep : std::uint8_t {
    NOTHING,
    KEEP,         // gives client.db its second name, client.db.previous
    NOTE_ASKED,   // journal: client.db is a part from now on; counts a push that is asked for
    EMPTY,        // puts an empty file in the place of client.db
    FILL,         // the records of the push may come
    BREAK,        // no more records of the push will come
    CLOSE,        // client.db is whole under the stamp of the closing record
    NOTE_CLOSED,  // journal: client.db is whole; the next three are still to be done
    RETIRE_KEPT,  // removes client.db.previous, or keeps it for the operator if the list has shrunk
    STORE_STAMP,  // stores the stamp of the closing record
    DELETE_STAMP,
    NOTE_WHOLE,  // journal: client.db is whole
    PUT_BACK,    // gives client.db.previous the name client.db
};

// A row of the table: on `event` in one of the states `from`, the steps, and where they end when
// all of them succeed.
struct ListMove {
    unsigned from;  // a bit for each state
    ListEvent event;
    enum class If : std::uint8_t { ALWAYS, KEPT, NONE_KEPT } condition;  // is there an old list?
    std::array<ListStep, 4> steps;  // NOTHING behind the last one
    ListState to;
};

// The move, or null where the table has none: the event cannot happen in that state. `kept`:
// whether client.db.previous holds the list from before.
const ListMove* find_move(ListState from, ListEvent event, bool kept);

// For logs and traces; static.
const char* name_of(ListState state);
const char* name_of(ListEvent event);
