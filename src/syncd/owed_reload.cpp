#include "owed_reload.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "keys.h"
#include "log.h"
#include "owned.h"
#include "services.h"

void note_reload() {
    const OwnedFd file(open(OWED_RELOAD, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!file.valid()) {
        log_message(msg::FILE_NOT_WRITTEN, OWED_RELOAD, strerror(errno));
    }
}

void reload_as_noted() {
    refresh_dhcp();
    if (unlink(OWED_RELOAD) != 0 && errno != ENOENT) {
        log_message(msg::FILE_NOT_REMOVED, OWED_RELOAD, strerror(errno));
    }
}

void reload_for_last_run() {
    if (access(OWED_RELOAD, F_OK) == 0) {
        log_message(msg::RELOAD_OWED);
        reload_as_noted();
    }
}
