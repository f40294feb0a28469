#include "services.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "end_process.h"
#include "keys.h"
#include "log.h"
#include "owned.h"
#include "spawn.h"
#include "store.h"

namespace {

// One command in two spellings, each as the sites' process accounting and scripts know it: the
// first stops the services, the second runs just before a start.
constexpr const char* STOP_WRAPPER = "/usr/bin/killall -9  quordhcpd ";
constexpr const char* STOP_OLD_WRAPPER = "/usr/bin/killall -9 quordhcpd";
constexpr const char* STOP_BOOT_LOADER = "/usr/bin/killall -9 stagd";

ServiceResult success() {
    return {true, "Success"};
}

// What the DHCP wrapper reads from its pipe.
struct ReloadRecord {
    std::uint32_t command;
    char seconds[64];  // since the epoch, as text
};
static_assert(sizeof(ReloadRecord) == 68);

constexpr std::uint32_t RELOAD_COMMAND = 23322;

// Writes to a pipe whose reader may have left. SIGPIPE is held back in this thread and taken out
// again, whatever the process does about it otherwise.
ssize_t write_to_pipe(int fd, const void* data, std::size_t size) {
    sigset_t pipe_only;
    sigset_t before;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    (void)pthread_sigmask(SIG_BLOCK, &pipe_only, &before);
    const ssize_t written = write(fd, data, size);
    const int cause = errno;
    if (written < 0 && cause == EPIPE) {
        const timespec at_once{};
        (void)sigtimedwait(&pipe_only, nullptr, &at_once);
    }
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = cause;
    return written;
}

// A killed child and one whose program was missing count as started; only the program itself can
// report a failure.
ServiceResult start_in_foreground(const ForegroundStart& start) {
    const int status = run_foreground(start);
    if (status == -1) {
        end_process(255);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        const char* cause = strerror(errno);
        log_message(msg::BOOT_SERVICES_NOT_STARTED, cause);
        return {false, cause};
    }
    return success();
}

ServiceResult run_logged(const char* command, MessageFor<const char*> message) {
    (void)run_shell(command);
    log_message(message, strerror(errno));
    return success();
}

void stop_logged(const char* command, MessageFor<const char*> message) {
    if (run_shell(command) < 0) {
        log_message(message, strerror(errno));
    }
}

}  // namespace

ServiceResult stop_boot_services() {
    (void)db_del(CONFIG_DB, KEY_DHCP);
    stop_logged(STOP_WRAPPER, msg::DHCPD_STOP);
    stop_logged(STOP_BOOT_LOADER, msg::STAGD_NOT_STOPPED);
    return success();
}

ServiceResult start_boot_services() {
    (void)db_put(CONFIG_DB, KEY_DHCP, DHCP_ON);
    ServiceResult result = start_in_foreground({DHCP_START_LOG, STOP_OLD_WRAPPER, DHCP_WRAPPER});
    if (result.success) {
        (void)run_shell(STOP_BOOT_LOADER);
        (void)run_shell(BOOT_LOADER);
    }
    return result;
}

void refresh_dhcp() {
    log_message(msg::DHCP_RELOAD);
    const OwnedFd pipe(open(RELOAD_PIPE, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!pipe.valid()) {
        log_message(msg::DHCP_NOT_RELOADED, RELOAD_PIPE, strerror(errno));
        return;
    }
    ReloadRecord record{};
    record.command = RELOAD_COMMAND;
    (void)std::snprintf(record.seconds, sizeof record.seconds, "%ld",
                        static_cast<long>(std::time(nullptr)));
    if (write_to_pipe(pipe.get(), &record, sizeof record) != sizeof record) {
        log_message(msg::DHCP_NOT_RELOADED, RELOAD_PIPE, strerror(errno));
    }
}

ServiceResult stop_tftp_service() {
    return run_logged("/usr/bin/killall -9 in.tftpd", msg::TFTPD_STOP);
}

ServiceResult start_tftp_service() {
    return run_logged("/usr/sbin/in.tftpd -l -u root -s /tftpboot", msg::TFTPD_START);
}

ServiceResult stop_ravlo_service() {
    return run_logged("/etc/init.d/ravlo stop", msg::RAVLO_STOP);
}

ServiceResult start_ravlo_service() {
    return run_logged("/etc/init.d/ravlo start", msg::RAVLO_START);
}

ServiceResult stop_system_dhcpd() {
    return run_logged("/usr/bin/killall dhcpd", msg::DHCPD_STOP);
}

ServiceResult start_system_dhcpd() {
    return start_in_foreground({DHCP_START_LOG, nullptr, SYSTEM_DHCPD});
}

ServiceResult restart_system_dhcpd() {
    (void)stop_system_dhcpd();
    return start_system_dhcpd();
}
