#include "owed_reload.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log.h"
#include "owned.h"
#include "services.h"

namespace {

constexpr const char* OWED = "/etc/quoradmind/dhcp_reload.owed";

}  // namespace

void owe_reload() {
    const OwnedFd file(open(OWED, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!file.valid()) {
        log_message(msg::FILE_NOT_WRITTEN, OWED, strerror(errno));
    }
}

void pay_reload() {
    refresh_dhcp();
    if (unlink(OWED) != 0 && errno != ENOENT) {
        log_message(msg::FILE_NOT_REMOVED, OWED, strerror(errno));
    }
}

void pay_reload_of_last_run() {
    if (access(OWED, F_OK) == 0) {
        log_message(msg::RELOAD_OWED);
        pay_reload();
    }
}
