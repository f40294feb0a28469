// The slave's receiver: takes connections and acts on their messages, one at a time, the master's
// before any other (connections.h).
#pragma once

// Thread entry; the argument is ignored, the result null. Listens on TCP port 13233 and serves
// until slave_exit_requested is 1 (wake_receiver ends the wait), and then to the end of the
// connection that is being served. A beat back starts the version check and refills the bottle, a
// record goes to the store, any other message raises event 720010.
//
// Logs a connection without a first message, one that gave way to others, and its end as
// SLAVE_STOPPED. Ends the process with status 11, after 3 seconds, when it cannot listen on its
// port or accept: a slave that nobody reaches would take over beside a healthy master.
void* slave_thread(void* argument);

// Lets the receiver look at slave_exit_requested. Any thread.
void wake_receiver();
