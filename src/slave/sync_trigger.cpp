#include "sync_trigger.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "client_list/client_list.h"
#include "log.h"
#include "logged_lines.h"
#include "master_addresses.h"
#include "owned.h"
#include "resolve.h"
#include "stamps.h"
#include "state_page.h"

void data_sync_trigger(int connection, const DataRecord& answer) {
    const std::optional<StampPair> own = client_list().stamps();
    const auto& [masters, has_separator] = split_stamps(field_text(answer.value));
    if (!own) {
        // The stamp of what would come could not be stored, and the clients would be emptied again
        // at every beat back.
        log_message(msg::NO_OWN_STAMPS);
        return;
    }
    if (!has_separator) {
        log_message(msg::ANSWER_WITHOUT_STAMPS);
    }
    page::stamps_compared(masters.config != own->config, masters.client != own->client);
    if (masters.config != own->config) {
        log_message(msg::CONFIG_DIFFERS);
        log_message(msg::CONFIG_STAMPS, "data_sync_trigger", LINE_CONFIG_DIFFERS,
                    own->config.c_str(), masters.config.c_str());
        start_data_sync(connection, masters_end_of(connection).c_str(), DATA_KIND_CONFIG);
    }
    if (masters.client != own->client) {
        log_message(msg::CLIENTS_DIFFER);
        if (!client_list().ask()) {
            return;  // a push on top of the old records would leave those that are no more
        }
        log_message(msg::CLIENT_STAMPS, "data_sync_trigger", LINE_CLIENTS_DIFFER,
                    own->client.c_str(), masters.client.c_str());
        start_data_sync(connection, masters_end_of(connection).c_str(), DATA_KIND_CLIENT);
    } else {
        client_list().equal_stamps();  // a master that is back at the old stamp pushes nothing
    }
}

void start_data_sync(int /*connection*/, const char* master_address, std::uint32_t kind) {
    const PeerMessage message = make_data_request(kind);
    log_message(msg::REQUEST_AHEAD, "start_data_sync", LINE_REQUEST_AHEAD);
    const auto address = resolve_ipv4(master_address);
    if (!address) {
        log_message(msg::NO_MASTER_ADDRESS_TO_ASK, master_address, strerror(errno));
        return;
    }
    const OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        log_message(msg::NO_UDP_SOCKET, strerror(errno));
        return;
    }
    sockaddr_in master{};
    master.sin_family = AF_INET;
    master.sin_addr.s_addr = *address;
    master.sin_port = htons(PEER_PORT);
    log_message(msg::DATA_REQUESTED, static_cast<int>(kind), master_address);
    if (sendto(fd.get(), &message, sizeof message, MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&master), sizeof master) < 0) {
        log_message(msg::DATA_NOT_REQUESTED, "start_data_sync", LINE_DATA_NOT_REQUESTED);
    } else {
        ++page::own().counters.requests;
    }
}
