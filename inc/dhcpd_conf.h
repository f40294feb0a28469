// Writer of the system DHCP server's configuration: one subnet block with the dynamic range, the
// boot options and a host entry per boot client.
//
// The operations replace the file: a kill or a full disk leaves the old one or the new one, with
// its mode and owner, where a symbolic link leads. A lock makes them wait for each other, in this
// process and in others. Any thread.
#pragma once

#include <string>

inline constexpr const char* DHCPD_CONF = "/etc/dhcpd.conf";

// The host entry that keeps the block well formed before any client is added.
inline constexpr const char* PLACEHOLDER_HOST = "quorsoft-temp";

// Writes the file anew from the network settings of config.db, without host entries but for a
// placeholder. 0; -1 when the file cannot be opened or written, or when a setting is missing: then
// it is left empty.
int write_dhcpd_conf();

// Puts the entry of a boot client in the place of the block that begins with the first line that
// holds `host_name` anywhere, be it a part of another word; at the end when there is none. Then
// restarts the system DHCP server. `pxe_info` goes between double quotes; neither text may hold
// quotes, braces or newlines. 0 when the server was restarted, else -1; a file that cannot be read
// or reopened stays as it is. The reason is logged.
int update_dhcp_host(const char* host_name, const char* pxe_info,
                     const unsigned char hardware_address[6], const char* fixed_address);

// What became of an entry.
struct DhcpHostUpdate {
    std::string failure;  // why it was not written, as it was logged; empty when it was
    bool restarted = false;
};

// update_dhcp_host with all that is known of its outcome.
DhcpHostUpdate put_dhcp_host(const char* host_name, const char* pxe_info,
                             const unsigned char hardware_address[6], const char* fixed_address);

// write_dhcpd_conf that returns why the file was not written, and an empty text when it was. The
// reason is logged unless it is a missing setting.
std::string replace_dhcpd_conf();
