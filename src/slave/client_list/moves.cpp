#include "slave/client_list/moves.h"

#include <algorithm>

namespace {

using enum ListState;
using enum ListEvent;
using enum ListStep;
using enum ListMove::If;

constexpr unsigned bit(ListState state) {
    return 1U << static_cast<unsigned>(state);
}

constexpr unsigned WHOLE = bit(COMPLETE) | bit(RESTORED);
constexpr unsigned BEGUN = bit(FILLING) | bit(BROKEN);
constexpr unsigned PART = bit(EMPTIED) | BEGUN;

// clang-format off
constexpr ListMove MOVES[] = {
    // from        event             kept?      steps                                 to

    // Whole lists are kept, parts are not.
    {WHOLE,         DIFFERENT_STAMPS, ALWAYS,    {KEEP, NOTE_ASKED, EMPTY},            EMPTIED},
    {PART,          DIFFERENT_STAMPS, ALWAYS,    {NOTE_ASKED, EMPTY},                  EMPTIED},

    // Each push starts on an empty list, whether or not one before it has come to its end.
    {WHOLE,         PUSH_BEGINS,      ALWAYS,    {KEEP, NOTE_ASKED, EMPTY, FILL},      FILLING},
    {bit(EMPTIED),  PUSH_BEGINS,      ALWAYS,    {FILL},                               FILLING},
    {BEGUN,         PUSH_BEGINS,      ALWAYS,    {EMPTY, FILL},                        FILLING},
    {bit(FILLING),  PUSH_BREAKS,      ALWAYS,    {BREAK},                              BROKEN},

    // No stamp before the list from before is gone: it would be put back under that stamp.
    {bit(FILLING),  PUSH_CLOSES,      ALWAYS,    {CLOSE},                              CLOSING},
    {bit(CLOSING),  CLOSING_GOES_ON,  ALWAYS,    {NOTE_CLOSED, RETIRE_KEPT, STORE_STAMP,
                                                  NOTE_WHOLE},                         COMPLETE},

    // A stamp that nobody asked for declares what is there whole, unless a push is at work on it.
    {bit(COMPLETE), STAMP_COMES,      ALWAYS,    {STORE_STAMP},                        COMPLETE},
    {bit(RESTORED), STAMP_COMES,      ALWAYS,    {STORE_STAMP},                        RESTORED},
    {bit(FILLING),  STAMP_COMES,      ALWAYS,    {STORE_STAMP},                        FILLING},
    {bit(EMPTIED),  STAMP_COMES,      ALWAYS,    {CLOSE},                              CLOSING},
    {bit(BROKEN),   STAMP_COMES,      ALWAYS,    {CLOSE},                              CLOSING},

    // The own stamp names the list from before. Where none was kept, that had no records.
    {PART,          EQUAL_STAMPS,     KEPT,      {PUT_BACK, NOTE_WHOLE},               RESTORED},
    {PART,          EQUAL_STAMPS,     NONE_KEPT, {EMPTY, NOTE_WHOLE},                  RESTORED},
    {bit(COMPLETE), EQUAL_STAMPS,     ALWAYS,    {},                                   COMPLETE},
    {bit(RESTORED), EQUAL_STAMPS,     ALWAYS,    {},                                   RESTORED},

    // Where the list from before had no records, a part is better.
    {PART,          TAKE_OVER,        KEPT,      {PUT_BACK, NOTE_WHOLE},               RESTORED},
    {bit(EMPTIED),  TAKE_OVER,        NONE_KEPT, {},                                   EMPTIED},
    {bit(FILLING),  TAKE_OVER,        NONE_KEPT, {},                                   FILLING},
    {bit(BROKEN),   TAKE_OVER,        NONE_KEPT, {},                                   BROKEN},
    {bit(COMPLETE), TAKE_OVER,        ALWAYS,    {},                                   COMPLETE},
    {bit(RESTORED), TAKE_OVER,        ALWAYS,    {},                                   RESTORED},

    // What a master has is its list. A stamp that stood over a part would name two lists.
    {PART,          MASTER_STARTS,    KEPT,      {PUT_BACK, NOTE_WHOLE},               RESTORED},
    {PART,          MASTER_STARTS,    NONE_KEPT, {DELETE_STAMP, NOTE_WHOLE},           COMPLETE},
    {WHOLE,         MASTER_STARTS,    ALWAYS,    {NOTE_WHOLE},                         COMPLETE},
};
// clang-format on

}  // namespace

const ListMove* find_move(ListState from, ListEvent event, bool kept) {
    const auto* move = std::find_if(std::begin(MOVES), std::end(MOVES), [&](const ListMove& row) {
        return (row.from & bit(from)) != 0 && row.event == event &&
               (row.condition == ALWAYS || (row.condition == KEPT) == kept);
    });
    return move == std::end(MOVES) ? nullptr : move;
}

const char* name_of(ListState state) {
    switch (state) {
        case COMPLETE:
            return "complete";
        case EMPTIED:
            return "emptied and asked for";
        case FILLING:
            return "being filled";
        case BROKEN:
            return "broken off";
        case CLOSING:
            return "closing";
        case RESTORED:
            return "restored";
    }
    return "unknown";
}

const char* name_of(ListEvent event) {
    switch (event) {
        case DIFFERENT_STAMPS:
            return "different stamps";
        case EQUAL_STAMPS:
            return "equal stamps";
        case PUSH_BEGINS:
            return "a push begins";
        case PUSH_CLOSES:
            return "a push ends";
        case PUSH_BREAKS:
            return "a push breaks off";
        case STAMP_COMES:
            return "a stamp comes unasked";
        case TAKE_OVER:
            return "take-over";
        case MASTER_STARTS:
            return "start as the master";
        case CLOSING_GOES_ON:
            return "the closing goes on";
    }
    return "unknown";
}
