// The master's copies of the other servers' config.db: when one is out of date, a job fetches it in
// the background, puts it in place and has the DHCP wrapper reload.
//
// Nothing remembers that a fetch is queued or running: while the stamps differ, every heartbeat
// queues one more job. Repeats are harmless, and the first heartbeat after a successful fetch ends
// them.
#pragma once

#include <cstdint>
#include <memory>

#include "PK_SyncServer.h"
#include "peer_message.h"

// The argument of one job.
struct tag_SyncQueueArg {
    std::uint32_t op;  // what to do; the only operation fetches a server's config.db
    char server[32];   // the server's dotted address
    char rest[4060];   // zero
};
static_assert(sizeof(tag_SyncQueueArg) == 4096);

using PSYNCQUEUEARG = tag_SyncQueueArg*;

// The master's one work server; null while it does not run.
extern std::unique_ptr<PK_SyncServer<PSYNCQUEUEARG>> m_SyncServer;

// Makes the work server and starts it. False, with the reason logged, when that
// fails; there is none then. Main thread of the master, once.
bool start_work_server();

// The one operation of a job.
inline constexpr std::uint32_t SYNC_OP_GET_DB = 256;

// Queues a fetch when the heartbeat's stamp differs from that of the stored copy of its sender, or
// there is none. Main thread of the master. A serverip that is no dotted address is
// refused, with a line in the log.
void check_server_dsver(const HeartbeatBody& heartbeat);

// Queues a fetch from `server` (dotted; null does nothing). A refused job is dropped; the next
// heartbeat queues another one. Either answering thread of the master. Logs FETCH_QUEUED.
void add_to_sync_config_db(const char* server);

// The job: fetches the server's config.db and puts it in place, if it is a sound database. Owns and
// releases `arg`. 0 when done or nothing is to do, and also when a sound download could not be put
// in place, which is logged as COPY_NOT_PUT_IN_PLACE; else GetServerFile's result, or -5 for a
// damaged download. The old copy stays then. Worker thread. Logs JOB_BEGINS and, for a failure,
// FETCH_FAILED or COPY_DAMAGED.
int SyncQueueProcessor(PSYNCQUEUEARG arg);
