// Starting and stopping the network-boot services of this server.
//
// Each operation waits for the programs that it runs; they are run by fixed command lines (see
// spawn.h for what they inherit). One thread at a time. They log at LOG_INFO what each line says.
#pragma once

#include <string>

// What is started, where a foreground start's output goes, and the pipe of the running DHCP
// wrapper.
inline constexpr const char* DHCP_WRAPPER = "/usr/local/bin/quordhcpd";
inline constexpr const char* BOOT_LOADER = "/usr/local/bin/stagd";
inline constexpr const char* SYSTEM_DHCPD = "/usr/sbin/dhcpd";
inline constexpr const char* DHCP_START_LOG = "/var/log/dhcpd_start.log";
inline constexpr const char* RELOAD_PIPE = "/var/lib/quoradmind/dhcp_fifo";

// Whether an operation succeeded, and the text that says so: "Success", or the system's text of the
// error number after a failed start.
struct ServiceResult {
    bool success;
    std::string text;
};

// Marks the services as off (key `dhcp`), then kills quordhcpd and stagd. A program that does not
// run is no error; "dhcpd stop:%s" and "stagd stop:%s" are logged when the shell cannot be started.
ServiceResult stop_boot_services();

// Marks the services as on, kills an older quordhcpd and starts the new one; when its foreground
// process reports success, replaces stagd, too. Logs "dhcpd start result:%s" for a failed start.
// Ends the whole process with status 255 when it cannot fork.
ServiceResult start_boot_services();

// Asks a running quordhcpd to reload, through its pipe "/var/lib/quoradmind/dhcp_fifo"; without a
// reader the request is dropped. Never blocks. Any thread. Logs "refresh_dhcp" (LOG_DEBUG) and, for
// a failed open or write alike, "refresh_dhcp open %s error %s" (LOG_ERROR).
void refresh_dhcp();

// Services of the same module that the daemon does not move. Each logs its line with the text of
// errno, whatever came of it, and succeeds.
ServiceResult stop_tftp_service();    // "tftpd stop:%s"
ServiceResult start_tftp_service();   // "tftpd start:%s"
ServiceResult stop_ravlo_service();   // "ravlo stop:%s"
ServiceResult start_ravlo_service();  // "ravlo start:%s"
ServiceResult stop_system_dhcpd();    // "dhcpd stop:%s"

// Starts the system's own DHCP server under the rules of start_boot_services, without key and
// stagd.
ServiceResult start_system_dhcpd();

// Both of the above in turn; the result of the start.
ServiceResult restart_system_dhcpd();
