// The slave's client list as a whole, while a push replaces it.
//
// A push begins with an empty list. If the master died before its end, the slave would take over
// with a part of the list, or with none, and the machines of a whole site could not boot. So the
// old list is kept as client.db.previous until the new one is complete, which its stamp says. A
// take-over before that goes back to it, and so does a slave that is started anew as the master.
//
// Any thread; the receiver fills the list, supervisor and receiver go back.
#pragma once

// Empties client.db, so that the records that follow rebuild it from scratch. The list it held is
// kept unless one is kept already (then this one is but a part) or it is empty. Returns whether
// client.db is empty now; the store has logged why not.
bool clear_client_db();

// Empties a damaged client.db, which is kept as client.db.damaged. False when the old list has been
// put in its place, or when that fails; the store has logged why.
bool replace_damaged_client_db();

// Whether a take-over has put the old list back and no clear_client_db followed: then a push that
// is still under way must not add to it. Ask while client.db is open and thus locked.
bool client_list_put_back();

// A connection brings its first record of the list. Several answers of a master that stood still
// may each have asked for a push: then one that follows another starts on an empty list, too, since
// clients may have been removed between them. False when it could not be emptied; the store has
// logged why, and the push must not end with its stamp.
bool begin_client_push();

// The master's stamp is the own one: no push is due any more, and a list that was kept for an
// unfinished one belongs to this stamp and is put back.
void note_equal_client_lists();

// Drops the kept list and stores the stamp of the new one, whose records are all on disk. Refused,
// with a line at LOG_ERROR, when the old list was put back meanwhile.
void complete_client_list(const char* stamp);

// Puts a kept list back in the place of an unfinished one, and says so in one line at LOG_ERROR
// with the number of records of both. The stamps stay as they are, so that a returning master is
// asked again. A kept list that cannot be read changes nothing.
void put_back_client_list();

// Lives while the receiver works on a record of the list or flushes it.
class ClientListWork {
public:
    ClientListWork();
    ClientListWork(const ClientListWork&) = delete;
    ClientListWork& operator=(const ClientListWork&) = delete;
    ~ClientListWork();
};

// The connection that brought records of the list has ended.
void note_end_of_push();

// Waits while the list keeps growing: its master lives, and a list that takes longer than the miss
// counter lasts would otherwise be thrown away at its end, for ever. Ends when the process is to
// stop, too.
void await_end_of_push();
