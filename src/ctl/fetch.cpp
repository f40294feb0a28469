// quorsyncctl fetch: a peer's file by hand, in the way in which the master fetches its slave's
// config.db.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "PK_Request_Client.h"
#include "configured_role.h"
#include "console.h"
#include "peer/peer_file.h"
#include "store.h"
#include "verbs.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string address;
    std::string remote;
    std::string local;
};

FileFetch receive(const Options& options, const std::string& beside, const FetchLimits& limits) {
    PK_Request_Client client;
    client.SetFetchLimits(limits);
    ProgressBar bar(options.remote);
    return fetch_server_file(client, options.address.c_str(), options.remote.c_str(),
                             beside.c_str(), shown_by(bar));
}

int fetch(const Options& options) {
    if (!is_dotted_address(options.address)) {
        throw WrongUse("ADDRESS", "\"" + options.address + "\" is not a dotted IPv4 address");
    }
    // It is replaced and not written to: a device would be gone.
    if (std::filesystem::exists(options.local) &&
        !std::filesystem::is_regular_file(options.local)) {
        throw WrongUse("LOCAL", "\"" + options.local + "\" is not a regular file");
    }
    const std::string directory = std::filesystem::absolute(options.local).parent_path();
    if (access(directory.c_str(), W_OK) != 0) {
        throw WrongUse("LOCAL", directory + ": " + std::strerror(errno));
    }
    const std::string beside = options.local + ".part";  // what is there stays until all has come
    const Clock::time_point start = Clock::now();
    const FetchLimits limits = limits_by_hand({});
    const FileFetch fetched = receive(options, beside, limits);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (fetched.result != 0) {
        complain("{}",
                 fetch_failure_text(options.address, options.remote, beside, fetched, limits));
    } else if (const std::string failure = put_copy_in_place(beside, options.local);
               !failure.empty()) {
        complain("{}", failure);
    } else {
        const auto size = static_cast<std::uint64_t>(fetched.received);
        say("{}: {} in {:.2f} s, {}/s", options.local, bytes_text(size), seconds,
            bytes_text(static_cast<std::uint64_t>(static_cast<double>(size) / seconds)));
        return EXIT_FINE;
    }
    (void)unlink(beside.c_str());
    return EXIT_PROBLEM;
}

}  // namespace

void add_fetch(const Command& tool) {
    const auto options = std::make_shared<Options>();
    tool.command("fetch", "Fetch a file of a peer through its file service.")
        .notes(
            "LOCAL is replaced only when the whole file has arrived.\n"
            "Example:\n"
            "  quorsyncctl fetch 192.168.0.2 /etc/quoradmind/config.db /tmp/slave.db")
        .argument("ADDRESS", options->address, "IPv4 address of the peer")
        .argument("REMOTE", options->remote, "Path of the file on the peer")
        .argument("LOCAL", options->local, "Path of the file on this host")
        .runs([options] { return fetch(*options); });
}
