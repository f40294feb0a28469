#include "sync_trigger.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "client_list.h"
#include "keys.h"
#include "log.h"
#include "owned.h"
#include "process_state.h"
#include "resolve.h"
#include "store.h"

namespace {

// The empty text when there is no stamp; nothing when config.db cannot be read.
std::optional<std::string> own_stamp(const char* key) {
    std::string stamp;
    if (db_read_settled(CONFIG_DB, key, stamp) == StoreRead::UNREADABLE) {
        return std::nullopt;
    }
    return std::string(comparable_stamp(stamp));
}

}  // namespace

void data_sync_trigger(int connection, const DataRecord& answer) {
    const std::optional<std::string> config = own_stamp(KEY_CONFIG_VERSION);
    const std::optional<std::string> client = own_stamp(KEY_CLIENT_VERSION);
    const VersionStamps masters = split_stamps(field_text(answer.value));
    if (!config || !client) {
        // The stamp of what would come could not be stored, and the clients would be emptied again
        // at every beat back.
        write_log(LOG_ERROR, "own version stamps cannot be read, nothing asked for");
        return;
    }
    if (!masters.has_separator) {
        write_log(LOG_ERROR, "master_client_version == NULL !!");
    }
    if (masters.config != *config) {
        write_log(LOG_INFO, "start_data_syncd CONFIG");
        write_log(LOG_INFO, "func:%s line%d config_version:%s,master_config_version:%s\n",
                  "data_sync_trigger", 97, config->c_str(), masters.config.c_str());
        start_data_sync(connection, master_ip, DATA_KIND_CONFIG);
    }
    if (masters.client != *client) {
        write_log(LOG_INFO, "start_data_syncd CLIENT");
        if (!clear_client_db()) {
            return;  // a push on top of the old records would leave those that are no more
        }
        write_log(LOG_INFO, "func:%s line%d client_version:%s, master_client_version:%s\n",
                  "data_sync_trigger", 105, client->c_str(), masters.client.c_str());
        start_data_sync(connection, master_ip, DATA_KIND_CLIENT);
    } else {
        note_equal_client_lists();  // a master that is back at the old stamp pushes nothing
    }
}

void start_data_sync(int /*connection*/, const char* master_address, std::uint32_t kind) {
    const PeerMessage message = make_data_request(kind);
    write_log(LOG_INFO, "func:%s line%d\n", "start_data_sync", 323);
    const auto address = resolve_ipv4(master_address);
    if (!address) {
        write_log(LOG_ERROR, "gethostname %s  error:%s\n", master_address, strerror(errno));
        return;
    }
    const OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        write_log(LOG_INFO, "Udp server socket error:%s\n", strerror(errno));
        return;
    }
    sockaddr_in master{};
    master.sin_family = AF_INET;
    master.sin_addr.s_addr = *address;
    master.sin_port = htons(PEER_PORT);
    write_log(LOG_INFO, "request data(%d) from %s", static_cast<int>(kind), master_address);
    if (sendto(fd.get(), &message, sizeof message, MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&master), sizeof master) < 0) {
        write_log(LOG_INFO, "error func:%s line%d\n", "start_data_sync", 343);
    }
}
