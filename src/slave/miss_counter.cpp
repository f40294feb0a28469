#include "miss_counter.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>

#include "keys.h"
#include "log.h"
#include "process_state.h"
#include "store.h"

std::atomic<int> bottle = INITIAL_BOTTLE;
std::atomic<int> status = STATUS_STANDBY;

namespace {

constexpr int KEY_PROJECT = 1;
constexpr int DEFAULT_BEAT_OUT = 5;
constexpr useconds_t RETRY_MICROSECONDS = 10;

std::atomic<int> semaphore_id = -1;
std::atomic<bool> delete_failed = false;

int operate(short operation) {
    sembuf step{0, operation, SEM_UNDO};
    return semop(semaphore_id, &step, 1);
}

bool hold_counter() {
    while (semaphore_p() == 0) {
        usleep(RETRY_MICROSECONDS);
        log_message(msg::SEMAPHORE_TRIED_AGAIN);
        if (slave_exit_requested == 1) {
            return false;
        }
    }
    return true;
}

}  // namespace

SlaveAction next_action(int status_now, int bottle_now) {
    if (status_now == STATUS_STANDBY && bottle_now < 0) {
        return SlaveAction::PROMOTE;
    }
    if (status_now == STATUS_PROMOTED && bottle_now > 0) {
        return SlaveAction::STEP_DOWN;
    }
    return SlaveAction::NONE;
}

void init_semaphore() {
    // A missing path gives the key -1, under which the semaphore works as well.
    semaphore_id = semget(ftok(SEMAPHORE_KEY_PATH, KEY_PROJECT), 1, IPC_CREAT | 0666);
    if (semaphore_set_initial() == 0) {
        log_message(msg::NO_SEMAPHORE);
        end_process(1);
    }
    bottle = db_get_int(CONFIG_DB, KEY_BEAT_OUT, DEFAULT_BEAT_OUT);
    bottle = INITIAL_BOTTLE;  // the configured value is read, but has no effect
    status = STATUS_STANDBY;
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
    union {
        int val;
        void* unused;  // the width that the system call expects
    } argument{1};
    if (semctl(semaphore_id, 0, SETVAL, argument) < 0) {
        log_message(msg::SEMAPHORE_NOT_SET);
        return 0;
    }
    return 1;
}

void semaphore_delete() {
    const int saved_errno = errno;
    delete_failed = semctl(semaphore_id, 0, IPC_RMID) < 0;
    errno = saved_errno;
}

void report_semaphore_delete() {
    if (delete_failed) {
        log_message(msg::SEMAPHORE_NOT_DELETED);
    }
}

void count_missed_beat() {
    if (hold_counter()) {
        --bottle;
        (void)db_del(CONFIG_DB, KEY_DHCP);
        (void)semaphore_v();
    }
}

void reset_bottle() {
    if (hold_counter()) {
        bottle = SLAVE_BEAT_RESET;
        (void)semaphore_v();
    }
}
