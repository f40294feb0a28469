#include "miss_counter.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "end_process.h"
#include "keys.h"
#include "log.h"
#include "signals.h"
#include "state_page.h"
#include "store.h"

std::atomic<int> bottle = INITIAL_BOTTLE;
std::atomic<int> status = STATUS_STANDBY;

namespace {

constexpr int DEFAULT_BEAT_OUT = 5;
constexpr useconds_t RETRY_MICROSECONDS = 10;

std::atomic<int> semaphore_id = -1;
std::atomic<int> deleted_id = -1;  // the last one that was to be deleted
std::atomic<bool> delete_failed = false;

// The argument of semctl, as the system wants it to be defined here.
union SemaphoreArgument {
    int value;
    semid_ds* state;
};

// How long a P waits; what is guarded takes milliseconds.
constexpr timespec LONGEST_P{.tv_sec = 2, .tv_nsec = 0};

int operate(short operation) {
    sembuf step{0, operation, SEM_UNDO};
    return semtimedop(semaphore_id, &step, 1, &LONGEST_P);
}

// Whether nobody has ever taken or released it.
bool is_unused() {
    semid_ds state{};
    const SemaphoreArgument argument{.state = &state};
    return semctl(semaphore_id, 0, IPC_STAT, argument) == 0 && state.sem_otime == 0;
}

std::mutex renewal;  // one thread makes the semaphore anew, the other one finds it made

std::mutex refill_lock;
std::condition_variable refilled;

int open_semaphore(int flags) {
    // A missing path gives the key -1, under which the semaphore works as well.
    return semget(ftok(SEMAPHORE_KEY_PATH, SEMAPHORE_PROJECT), 1, flags | 0666);
}

// Whether there is a semaphore again in the place of `lost`, which somebody has removed.
bool renew_semaphore(int lost) {
    const std::lock_guard lock(renewal);
    if (semaphore_id != lost) {
        return true;
    }
    int fresh = open_semaphore(IPC_CREAT | IPC_EXCL);
    const bool made = fresh >= 0;
    if (!made && errno == EEXIST) {
        fresh = open_semaphore(0);  // another process has made it, and sets its value
    }
    if (fresh < 0) {
        log_message(msg::SEMAPHORE_NOT_RENEWED, strerror(errno));
        return false;
    }
    semaphore_id = fresh;
    if (made) {
        (void)semaphore_set_initial();
    }
    log_message(msg::SEMAPHORE_RENEWED);
    if (slave_exit_requested == 1) {
        semaphore_delete();  // the signal handler came before it was there
    }
    return true;
}

// Whether the counter may be changed; not once the process is asked to stop.
bool hold_counter() {
    for (int id = semaphore_id; semaphore_p() == 0; id = semaphore_id) {
        const int cause = errno;
        usleep(RETRY_MICROSECONDS);
        log_message(msg::SEMAPHORE_TRIED_AGAIN);
        if (slave_exit_requested == 1) {
            return false;
        }
        if (cause == EAGAIN && is_unused()) {
            (void)semaphore_set_initial();  // whoever made it has ended before it set its value
        }
        if ((cause == EIDRM || cause == EINVAL) && !renew_semaphore(id)) {
            return true;  // threads of this process do not need it: `bottle` is atomic
        }
    }
    return true;
}

}  // namespace

SlaveAction next_action(const SlaveView& view) {
    if (view.status == STATUS_STANDBY && view.bottle < 0 && !view.stop_asked) {
        return view.records_arrive ? SlaveAction::AWAIT_PUSH : SlaveAction::PROMOTE;
    }
    if (view.status == STATUS_PROMOTED && view.bottle > 0) {
        return SlaveAction::STEP_DOWN;
    }
    return SlaveAction::NONE;
}

void init_semaphore() {
    semaphore_id = open_semaphore(IPC_CREAT);
    deleted_id = -1;
    if (semaphore_set_initial() == 0) {
        log_message(msg::NO_SEMAPHORE);
        end_process(1);
    }
    bottle = db_get_int(CONFIG_DB, KEY_BEAT_OUT, DEFAULT_BEAT_OUT);
    bottle = INITIAL_BOTTLE;  // the configured value is read, but has no effect
    status = STATUS_STANDBY;
    page::own().bottle = INITIAL_BOTTLE;
    page::own().status = STATUS_STANDBY;
}

int semaphore_p() {
    if (operate(-1) != 0) {
        log_message(msg::SEMAPHORE_NOT_TAKEN);
        return 0;
    }
    return 1;
}

int semaphore_v() {
    if (operate(+1) != 0) {
        log_message(msg::SEMAPHORE_NOT_RELEASED);
        return 0;
    }
    return 1;
}

int semaphore_set_initial() {
    const SemaphoreArgument argument{.value = 1};
    if (semctl(semaphore_id, 0, SETVAL, argument) < 0) {
        log_message(msg::SEMAPHORE_NOT_SET);
        return 0;
    }
    return 1;
}

void semaphore_delete() {
    const int id = semaphore_id;
    if (deleted_id.exchange(id) == id) {
        return;
    }
    const int saved_errno = errno;
    delete_failed = semctl(id, 0, IPC_RMID) < 0;
    errno = saved_errno;
}

void report_semaphore_delete() {
    if (delete_failed) {
        log_message(msg::SEMAPHORE_NOT_DELETED);
    }
}

void count_missed_beat() {
    if (hold_counter()) {
        page::own().bottle = --bottle;
        (void)db_del(CONFIG_DB, KEY_DHCP);
        (void)semaphore_v();
    }
}

void reset_bottle() {
    if (hold_counter()) {
        page::own().bottle = bottle = SLAVE_BEAT_RESET;
        (void)semaphore_v();
        const std::lock_guard lock(refill_lock);  // a waiter is before its test or in its wait
        refilled.notify_all();
    }
}

void await_refill(int least, std::chrono::milliseconds longest) {
    std::unique_lock lock(refill_lock);
    (void)refilled.wait_for(lock, longest, [least] { return bottle >= least; });
}
