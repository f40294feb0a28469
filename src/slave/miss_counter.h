// The miss counter: how the slave notices that its master has gone.
//
// `bottle` is counted down by the supervisor once per heartbeat period and refilled by the receiver
// on every answer of the master. Below zero the master counts as gone; above zero it counts as
// back. The filling is small on purpose: it stands for 6 to 8 seconds after the last answer, and
// for about 4 seconds after start. Nothing here depends on the wall clock.
//
// One System V semaphore guards every change, so that processes on this host that share the
// counter's key path exclude each other, too. Supervisor and receiver both use this module; neither
// knows the other.
#pragma once

#include <atomic>
#include <chrono>

#include "role.h"

inline constexpr int INITIAL_BOTTLE = 2;

extern std::atomic<int> bottle;
extern std::atomic<int> status;  // STATUS_*; written by the supervisor only

// What a decision looks at.
struct SlaveView {
    int status;
    int bottle;
    bool records_arrive;  // from the master: it is at work, whatever the bottle says
    bool stop_asked;      // by SIGTERM: nobody would stop again what starts now
};

// What follows, once in each heartbeat period after the countdown. AWAIT_PUSH is a PROMOTE that is
// put off, and is to be looked at again soon.
enum class SlaveAction { NONE, AWAIT_PUSH, PROMOTE, STEP_DOWN };
SlaveAction next_action(const SlaveView& view);

// Makes the semaphore with value 1 and sets `bottle` and `status` to their start values. When it
// cannot, logs so and ends the process with status 1.
void init_semaphore();

// One P or V, undone by the system if the process ends in between. 1 on success; 0 for a
// failure, which is logged: also for a P that has waited 2 seconds. Any thread.
int semaphore_p();
int semaphore_v();

// Sets the semaphore to 1. 1, or 0 for a failure, which is logged.
int semaphore_set_initial();

// Removes the semaphore, once: the signal handler and a thread that has just made it anew may both
// come here. Async-signal-safe, logs nothing, keeps errno.
void semaphore_delete();

// Logs if semaphore_delete failed.
void report_semaphore_delete();

// Takes one off the bottle and deletes the key `dhcp`, which thus outlives a promotion by one
// period at most. Supervisor thread.
void count_missed_beat();

// Refills the bottle. Receiver thread. Both try the semaphore until they have it, logging every
// failure, but give up once the process is asked to stop: the semaphore is gone then, and every try
// would fail. If it went for any other reason, it is made anew, which is logged; if that fails,
// too, the bottle is changed without it. One that was made and never set is set.
void reset_bottle();

// Waits until the bottle holds `least`, at most so long. Supervisor thread.
void await_refill(int least, std::chrono::milliseconds longest);
