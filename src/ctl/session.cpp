#include "session.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "log.h"
#include "store.h"

namespace {

std::atomic<bool> changes = false;

void take_message(int level, const char* text) {
    if (changes) {
        write_daily_log(log_settings, level, text);
    }
}

}  // namespace

void begin_inspection() {
    set_log_sink(take_message);
    set_store_use(StoreUse::INSPECT);
}

void begin_changes() {
    changes = true;
    set_store_use(StoreUse::EDIT);
}

DetachedPrograms::DetachedPrograms() {
    std::fflush(stdout);
    const OwnedFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int number = 0; number < 3; ++number) {
        streams_[static_cast<std::size_t>(number)].reset(fcntl(number, F_DUPFD_CLOEXEC, 3));
        (void)dup2(null.get(), number);
    }
}

DetachedPrograms::~DetachedPrograms() {
    for (int number = 0; number < 3; ++number) {
        (void)dup2(streams_[static_cast<std::size_t>(number)].get(), number);
    }
}
