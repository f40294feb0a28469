// Starting and stopping the network-boot services of this server.
//
// Each operation waits for the programs that it runs; they are run by fixed command lines (see
// spawn.h for what they inherit). One thread at a time.
#pragma once

#include <string>

// What is started, where a foreground start's output goes, and the pipe of the running DHCP
// wrapper.
inline constexpr const char* DHCP_WRAPPER = "/usr/local/bin/quordhcpd";
inline constexpr const char* BOOT_LOADER = "/usr/local/bin/stagd";
inline constexpr const char* TFTP_SERVER = "/usr/sbin/in.tftpd";
inline constexpr const char* RAVLO_SCRIPT = "/etc/init.d/ravlo";
inline constexpr const char* SYSTEM_DHCPD = "/usr/sbin/dhcpd";
inline constexpr const char* DHCP_START_LOG = "/var/log/dhcpd_start.log";
inline constexpr const char* RELOAD_PIPE = "/var/lib/quoradmind/dhcp_fifo";

// What stops them, by the names of their processes.
inline constexpr const char* KILLALL = "/usr/bin/killall";
inline constexpr const char* WRAPPER_PROCESS = "quordhcpd";
inline constexpr const char* BOOT_LOADER_PROCESS = "stagd";

// Whether an operation succeeded, and the text that says so: "Success", or the system's text of the
// error number after a failed start.
struct ServiceResult {
    bool success;
    std::string text;
};

// Marks the services as off (key `dhcp`), then kills quordhcpd and stagd. A program that does not
// run is no error; only a shell that cannot be started is logged.
ServiceResult stop_boot_services();

// Marks the services as on, kills an older quordhcpd and starts the new one; when its foreground
// process reports success, replaces stagd, too. A failed start is logged.
// Ends the whole process with status 255 when it cannot fork.
ServiceResult start_boot_services();

// Asks a running quordhcpd to reload, through its pipe RELOAD_PIPE; without a reader the request is
// dropped. Never blocks. Any thread. Logs DHCP_RELOAD, by which the timeline knows that a fetch is
// done, and a failed open and write alike.
void refresh_dhcp();

// Services of the same module that the daemon does not move. Each logs its message with the text
// of errno, whatever came of it, and succeeds.
ServiceResult stop_tftp_service();
ServiceResult start_tftp_service();
ServiceResult stop_ravlo_service();
ServiceResult start_ravlo_service();
ServiceResult stop_system_dhcpd();

// Starts the system's own DHCP server under the rules of start_boot_services, without key and
// stagd.
ServiceResult start_system_dhcpd();

// Both of the above in turn; the result of the start.
ServiceResult restart_system_dhcpd();
