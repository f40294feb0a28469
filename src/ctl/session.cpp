#include "session.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <utility>

#include "log.h"
#include "store.h"

namespace {

struct Session {
    std::mutex mutex;
    bool changes = false;
    std::string last_error;
};

Session& session() {
    static Session instance;
    return instance;
}

void take_message(int level, const char* text) {
    std::string message(text);
    message.erase(message.find_last_not_of('\n') + 1);
    const std::lock_guard lock(session().mutex);
    if (session().changes) {
        write_daily_log(log_settings, level, text);
    }
    if (level >= LOG_ERROR) {
        session().last_error = std::move(message);
    }
}

}  // namespace

void begin_inspection() {
    set_log_sink(take_message);
    set_store_use(StoreUse::INSPECT);
}

void begin_changes() {
    const std::lock_guard lock(session().mutex);
    session().changes = true;
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

std::string last_logged_error() {
    const std::lock_guard lock(session().mutex);
    return session().last_error;
}
