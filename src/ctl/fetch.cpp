// quorsyncctl fetch: a peer's file by hand, over the road on which the master fetches its slave's
// config.db.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "PK_Request_Client.h"
#include "configured_role.h"
#include "console.h"
#include "history/log_reader.h"
#include "session.h"
#include "store.h"
#include "text.h"
#include "verbs.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Options {
    std::string address;
    std::string remote;
    std::string local;
};

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::uint64_t size_of(const std::string& path) {
    std::error_code failure;
    const auto size = std::filesystem::file_size(path, failure);
    return failure ? 0 : size;
}

// What the peer tells before the file itself; the library passes it on in its log lines only.
struct Announced {
    std::atomic<std::uint64_t> length = 0;
    std::atomic<int> error = 0;

    void read(const std::string& message);
};

void Announced::read(const std::string& message) {
    constexpr std::string_view REPLY = "szRetMsg ";
    constexpr std::string_view ERROR = "FILE_MGR nErrCode:";
    if (const std::size_t at = message.find(REPLY); at != std::string::npos) {
        const Json reply(json_tokener_parse(message.c_str() + at + REPLY.size()));
        json_object* member = json_object_is_type(reply.get(), json_type_object)
                                  ? json_object_object_get(reply.get(), "length")
                                  : nullptr;
        length = member == nullptr ? 0 : json_object_get_uint64(member);
    } else if (message.starts_with(ERROR)) {
        error = leading_number(std::string_view(message).substr(ERROR.size()));
    }
}

// Shows the growth of a file until it goes out of scope.
class Watch {
public:
    Watch(const std::string& label, const std::string& path, const Announced& announced)
        : thread_([=, this, &announced, start = Clock::now()](const std::stop_token& stop) {
              ProgressBar bar(label);
              while (!stop.stop_requested()) {
                  bar.show(size_of(path), announced.length, seconds_since(start));
                  std::unique_lock lock(mutex_);
                  ended_.wait_for(lock, stop, 100ms, [] { return false; });
              }
          }) {}

private:
    std::mutex mutex_;
    std::condition_variable_any ended_;
    std::jthread thread_;  // the last member: it uses the others
};

std::string failure_text(const Options& options, int result, const Announced& announced) {
    if (result == -2) {
        // The service's own numbers; most are the system's.
        return fmt::format("{} refuses {}: error {}, as one of the system's: {}", options.address,
                           options.remote, announced.error.load(),
                           std::strerror(std::abs(announced.error)));
    }
    if (result == -4) {
        return fmt::format("{} ended {} after {} of {}", options.address, options.remote,
                           bytes_text(size_of(options.local + ".part")),
                           bytes_text(announced.length));
    }
    if (result == -3 && announced.length == 0) {
        return fmt::format("{} answers without the length of {}", options.address, options.remote);
    }
    if (result == -3) {
        return fmt::format("{}.part cannot be written to its end; is its file system full?",
                           options.local);
    }
    return fmt::format("{} from {}: {}; its file service listens on TCP port {}", options.remote,
                       options.address, without_origin(last_logged_error()), FILE_SERVICE_PORT);
}

int receive(const Options& options, const std::string& beside, Announced& announced) {
    PK_Request_Client client;
    client.SetFetchLimits(std::nullopt);  // whoever waits for it can see how it goes
    const Watch watch(options.remote, beside, announced);
    return GetServerFile(client, options.address.c_str(), options.remote.c_str(), beside.c_str());
}

int fetch(const Options& options) {
    if (!is_dotted_address(options.address)) {
        throw CLI::ValidationError("ADDRESS", "\"" + options.address + "\" is no dotted address");
    }
    // It is replaced and not written to: a device would be gone.
    if (std::filesystem::exists(options.local) &&
        !std::filesystem::is_regular_file(options.local)) {
        throw CLI::ValidationError("LOCAL", "\"" + options.local + "\" is no ordinary file");
    }
    const std::string directory = std::filesystem::absolute(options.local).parent_path();
    if (access(directory.c_str(), W_OK) != 0) {
        throw CLI::ValidationError("LOCAL", directory + ": " + std::strerror(errno));
    }
    const std::string beside = options.local + ".part";  // what is there stays until all has come
    Announced announced;
    listen_to_log([&announced](int, const std::string& message) { announced.read(message); });
    const Clock::time_point start = Clock::now();
    const int result = receive(options, beside, announced);
    const double seconds = seconds_since(start);
    listen_to_log({});
    if (result != 0) {
        complain("{}", failure_text(options, result, announced));
    } else if (!put_copy_in_place(beside, options.local)) {
        complain("{}", last_logged_error());
    } else {
        const std::uint64_t size = size_of(options.local);
        say("{}: {} in {:.2f} s, {}/s", options.local, bytes_text(size), seconds,
            bytes_text(static_cast<std::uint64_t>(static_cast<double>(size) / seconds)));
        return EXIT_FINE;
    }
    (void)unlink(beside.c_str());
    return EXIT_PROBLEM;
}

}  // namespace

void add_fetch(CLI::App& app, int& status) {
    CLI::App* verb =
        add_verb(app, "fetch", "Fetch a file of a peer through its file service.",
                 "LOCAL is replaced only when the whole file has come.\n"
                 "Example:\n"
                 "  quorsyncctl fetch 192.168.0.2 /etc/quoradmind/config.db /tmp/slave.db");
    const auto options = std::make_shared<Options>();
    verb->add_option("ADDRESS", options->address, "The peer, dotted")->required();
    verb->add_option("REMOTE", options->remote, "Path of the file there")->required();
    verb->add_option("LOCAL", options->local, "Path of the file here")->required();
    verb->callback([options, &status] { status = fetch(*options); });
}
