#include "ctl/peer/peer_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ctl/configured_role.h"
#include "ctl/history/log_reader.h"
#include "ctl/verbs.h"
#include "local_addresses.h"
#include "store.h"
#include "text.h"

namespace {

bool is_silence(int error) {
    return error == EINPROGRESS || error == ETIMEDOUT || error == EAGAIN;
}

std::string not_begun_text(const std::string& address, const std::string& remote,
                           const FileFetch& fetch) {
    if (is_silence(fetch.connect_error)) {
        return fmt::format(
            "{} from {}: TCP port {} does not answer; the host is away or a packet filter drops "
            "what comes for the file service",
            remote, address, FILE_SERVICE_PORT);
    }
    return fmt::format("{} from {}: {}; its file service listens on TCP port {}", remote, address,
                       without_origin(fetch.failure), FILE_SERVICE_PORT);
}

std::string cut_text(const std::string& address, const std::string& remote,
                     const FileFetch& fetch) {
    const std::string come =
        fmt::format("{} of {}", bytes_text(static_cast<std::uint64_t>(fetch.received)),
                    bytes_text(static_cast<std::uint64_t>(fetch.length)));
    return fetch.too_slow ? fmt::format("{} of {} arrives too slowly; given up after {}", remote,
                                        address, come)
                          : fmt::format("{} ended {} after {}", address, remote, come);
}

// tmpfile() makes one that never had a name, or takes the name away at once.
OwnedFd file_without_a_name() {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    return OwnedFd(file ? fcntl(fileno(file.get()), F_DUPFD_CLOEXEC, 3) : -1);
}

FileFetch receive(PK_Request_Client& client, const std::string& address, const std::string& remote,
                  int fd, bool brief) {
    if (brief || !is_terminal(STDERR_FILENO)) {
        client.SetTimeout(ProbeLimits::TIMEOUT);
    }
    if (brief) {
        client.SetFetchLimits(ProbeLimits::FETCH);
        return fetch_server_file(client, address.c_str(), remote.c_str(), fd);
    }
    client.SetFetchLimits(limits_by_hand(ProbeLimits::FETCH));
    ProgressBar bar(fmt::format("{}:{}", address, remote));
    return fetch_server_file(client, address.c_str(), remote.c_str(), fd, shown_by(bar));
}

// The other server of the pair; empty when the settings name none.
std::string other_server(const std::string& local) {
    std::string listed;
    for (const ConfiguredRole& server : configured_roles(read_pair_settings())) {
        if (list_has(local, server.addresses) || !is_dotted_address(server.addresses)) {
            continue;
        }
        if (server.decision.reason == RoleReason::DECIDED) {
            return server.addresses;
        }
        listed = listed.empty() ? server.addresses : listed;
    }
    return listed;
}

}  // namespace

FetchLimits limits_by_hand(FetchLimits limits) {
    constexpr std::chrono::hours NO_HURRY{24 * 365};
    limits.bytes = std::int64_t{1} << 30U;
    limits.base = is_terminal(STDERR_FILENO) ? NO_HURRY : limits.base;
    return limits;
}

std::string fetch_failure_text(const std::string& address, const std::string& remote,
                               const std::string& local, const FileFetch& fetch,
                               const FetchLimits& limits) {
    switch (fetch.result) {
        case FETCH_REFUSED:
            // The service has its own numbers; most of them are the system's.
            return fmt::format("{} refuses {} (errno {}: {})", address, remote, fetch.peer_error,
                               std::strerror(std::abs(fetch.peer_error)));
        case FETCH_NOT_KEPT:
            if (fetch.length > limits.bytes) {
                return fmt::format("{} of {} is of {} bytes; at most {} are fetched", remote,
                                   address, grouped(fetch.length), grouped(limits.bytes));
            }
            return fetch.length == 0
                       ? fmt::format("{} answers without the length of {}", address, remote)
                       : fmt::format("{} cannot be written to its end; is its file system full?",
                                     local);
        case FETCH_CUT:
            return cut_text(address, remote, fetch);
        default:
            return not_begun_text(address, remote, fetch);
    }
}

FetchProgress shown_by(ProgressBar& bar) {
    return [&bar](std::int64_t done, std::int64_t total) {
        bar.show(static_cast<std::uint64_t>(done), static_cast<std::uint64_t>(total));
    };
}

std::string PeerFile::path() const {
    return fmt::format("/proc/self/fd/{}", file.get());
}

PeerFile fetch_peer_file(const std::string& address, const std::string& remote, bool brief) {
    PeerFile peer{file_without_a_name(), {}, {}};
    if (!peer.file.valid()) {
        peer.failure = fmt::format("no temporary file: {}", std::strerror(errno));
        return peer;
    }
    PK_Request_Client client;
    peer.fetch = receive(client, address, remote, peer.file.get(), brief);
    if (peer.fetch.result != FETCH_WHOLE) {
        peer.failure = fetch_failure_text(address, remote, "the temporary file", peer.fetch,
                                          client.fetch_limits());
    } else if (const int damage = db_verify(peer.path().c_str()); damage != 0) {
        peer.failure = fmt::format(
            "{} of {} does not verify ({}): it is damaged, or was written to meanwhile; try again",
            remote, address, store_error_text(damage));
    }
    return peer;
}

std::string peer_address(const std::string& option) {
    const std::string local(text_of(OwnedText(local_ip_list())));
    const std::string address = option == OTHER_SERVER ? other_server(local) : option;
    if (address.empty()) {
        throw WrongUse("--peer", "the settings name no other server; give its address");
    }
    if (!is_dotted_address(address)) {
        throw WrongUse("--peer", fmt::format("\"{}\" is not a dotted IPv4 address", address));
    }
    if (list_has(local, address)) {
        throw WrongUse("--peer", fmt::format("{} is an address of this host", address));
    }
    return address;
}
