// The vocabulary of the configuration store: files and keys that the daemon shares with the
// site's administration tools. Nothing here is code; every name is fixed for good, because other
// programs and the peer use the same ones.
#pragma once

// --- Files ---------------------------------------------------------------------------------

inline constexpr const char* STORE_DIRECTORY = "/etc/quoradmind";
inline constexpr const char* CONFIG_DB = "/etc/quoradmind/config.db";  // settings and stamps
inline constexpr const char* CLIENT_DB = "/etc/quoradmind/client.db";  // boot client records
inline constexpr const char* PREVIOUS_CLIENT_DB =
    "/etc/quoradmind/client.db.previous";  // kept while a push rebuilds the records
inline constexpr const char* BEFORE_SHRINK_CLIENT_DB =
    "/etc/quoradmind/client.db.before-shrink";  // the last list that shrank by more than half
inline constexpr const char* CLIENT_JOURNAL =
    "/etc/quoradmind/client.db.journal";  // no database: how far the push has come
inline constexpr const char* DISK_DB = "/etc/quoradmind/disk.db";  // disk records
inline constexpr const char* SERVER_DB_FORMAT =
    "/etc/quoradmind/%s.db";  // copy of a peer's config.db

inline constexpr const char* OWED_RELOAD =
    "/etc/quoradmind/dhcp_reload.owed";  // no database: there while a reload of DHCP is due

// Not a database: only the path from which the semaphore key is derived.
inline constexpr const char* SEMAPHORE_KEY_PATH = "/etc/quorsyncd/config.db";
inline constexpr int SEMAPHORE_PROJECT = 1;  // the other half of the key

// The longest key and value that travel between the servers, in bytes.
inline constexpr unsigned MAX_RECORD_KEY = 127;
inline constexpr unsigned MAX_RECORD_VALUE = 1023;

// --- Keys of config.db ---------------------------------------------------------------------

inline constexpr const char* KEY_HA = "ha";                      // HA_ENABLED switches the pair on
inline constexpr const char* KEY_SERVER_LIST = "server_list";    // "192.168.0.1,192.168.0.2"
inline constexpr const char* KEY_MASTER = "master";              // dotted address of the master
inline constexpr const char* KEY_MASTER_PATHS = "master_paths";  // "10.1.0.1,10.2.0.1"
inline constexpr const char* KEY_DSVER = "dsver";                // 14 digits of local time
inline constexpr const char* KEY_BEAT_OUT = "beat_out";          // read, but without effect
inline constexpr const char* KEY_DHCP = "dhcp";                  // DHCP_ON while services run here
inline constexpr const char* KEY_CONFIG_VERSION = "config_db_version";  // stamp of config.db
inline constexpr const char* KEY_CLIENT_VERSION = "client_db_version";  // stamp of client.db
inline constexpr const char* KEY_CLIENT_COUNT =
    "client_db_records";  // "STAMP COUNT": how many records that stamp of client.db stood for

// Network settings of this server, for the DHCP configuration (dhcpd_conf.h). All are texts; the
// first six have to be there.
inline constexpr const char* KEY_DEFAULT_ADDRESS = "default_address";  // own address, dotted
inline constexpr const char* KEY_NETMASK = "netmask";                  // dotted
inline constexpr const char* KEY_GATEWAY = "gateway";                  // dotted
inline constexpr const char* KEY_DNS_LIST = "dns_list";  // "192.168.0.1, 192.168.0.2", as written
inline constexpr const char* KEY_IP_BEGIN = "ip_begin";  // first address of the dynamic range
inline constexpr const char* KEY_IP_END = "ip_end";      // last address of the dynamic range
inline constexpr const char* KEY_DOMAIN_NAME = "domain_name";  // of the site's network
inline constexpr const char* KEY_BOOT_FILE = "boot_file";      // network boot loader's path

// Settings that only the site's other tools read.
inline constexpr const char* KEY_DATA_SERVER = "dataserver";
inline constexpr const char* KEY_CLIENT_WINSERVER = "client_winserver";

inline constexpr const char* DEFAULT_DOMAIN_NAME = "localdomain";  // where the key is absent
inline constexpr const char* DEFAULT_BOOT_FILE = "pxelinux.0";

inline constexpr const char* HA_ENABLED = "enable";
inline constexpr const char* DHCP_ON = "on";
