#include "proc_info.h"

#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr const char* TCP_LISTENING = "0A";
constexpr auto CHANGE_LIMIT = 3s;  // for a killed process to go, and for a started one to be seen
constexpr auto CHANGE_STEP = 20ms;

struct CloseDirectory {
    void operator()(DIR* directory) const { (void)closedir(directory); }
};

// Calls `visit` with each entry whose name is a number.
void visit_numbered(const std::string& directory, const std::function<void(int)>& visit) {
    const std::unique_ptr<DIR, CloseDirectory> open(opendir(directory.c_str()));
    while (const dirent* entry = open ? readdir(open.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        int number = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
        if (error == std::errc() && end == name.data() + name.size()) {
            visit(number);
        }
    }
}

struct ProcessStat {
    std::string name;
    pid_t parent = 0;
    long long start_ticks = 0;  // since boot
    bool stopped = false;
};

std::optional<ProcessStat> read_stat(pid_t pid) {
    std::ifstream file(fmt::format("/proc/{}/stat", pid));
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos) {
        return std::nullopt;
    }
    ProcessStat stat;
    stat.name = text.substr(open + 1, close - open - 1);
    std::istringstream rest(text.substr(close + 1));
    const std::vector<std::string> fields{std::istream_iterator<std::string>(rest), {}};
    constexpr std::size_t STATE = 0;
    constexpr std::size_t PARENT = 1;
    constexpr std::size_t START = 19;
    if (fields.size() <= START || fields[STATE] == "Z" || fields[STATE] == "X") {
        return std::nullopt;
    }
    stat.parent = static_cast<pid_t>(std::stol(fields[PARENT]));
    stat.start_ticks = std::stoll(fields[START]);
    stat.stopped = fields[STATE] == "T" || fields[STATE] == "t";
    return stat;
}

std::time_t wall_time_of(long long start_ticks) {
    const auto seconds_of = [](clockid_t clock) {
        timespec time{};
        (void)clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double start =
        static_cast<double>(start_ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return static_cast<std::time_t>(seconds_of(CLOCK_REALTIME) - seconds_of(CLOCK_BOOTTIME) +
                                    start);
}

std::optional<ProcessInfo> process_info(pid_t pid) {
    const auto stat = read_stat(pid);
    return stat ? std::optional<ProcessInfo>(
                      {pid, stat->name, wall_time_of(stat->start_ticks), stat->stopped})
                : std::nullopt;
}

// The processes that have a descriptor open of which `wanted` holds, given its path in /proc.
std::vector<ProcessInfo> holders_of(const std::function<bool(const std::string&)>& wanted) {
    std::vector<ProcessInfo> holders;
    visit_numbered("/proc", [&](pid_t pid) {
        bool holds = false;
        const std::string directory = fmt::format("/proc/{}/fd", pid);
        visit_numbered(directory, [&](int fd) {
            holds = holds || wanted(fmt::format("{}/{}", directory, fd));
        });
        const auto process = holds ? process_info(pid) : std::nullopt;
        if (process) {
            holders.push_back(*process);
        }
    });
    return holders;
}

// Calls `visit` with the columns of each socket that holds the port in a table such as
// /proc/net/udp.
void visit_sockets(const char* table, std::uint16_t port,
                   const std::function<void(const std::vector<std::string>&)>& visit) {
    std::ifstream file(table);
    const std::string port_text = fmt::format(":{:04X}", port);
    std::string line;
    std::getline(file, line);  // the headings
    while (std::getline(file, line)) {
        std::istringstream columns(line);
        const std::vector<std::string> fields{std::istream_iterator<std::string>(columns), {}};
        constexpr std::size_t LOCAL = 1;
        constexpr std::size_t LAST = 9;
        if (fields.size() > LAST && fields[LOCAL].ends_with(port_text)) {
            visit(fields);
        }
    }
}

// Adds the inodes of those sockets; of TCP only the listening ones.
void add_socket_inodes(const char* table, bool listening, std::uint16_t port,
                       std::set<std::string>& inodes) {
    visit_sockets(table, port, [&](const std::vector<std::string>& fields) {
        constexpr std::size_t STATE = 3;
        constexpr std::size_t INODE = 9;
        if (!listening || fields[STATE] == TCP_LISTENING) {
            inodes.insert(fields[INODE]);
        }
    });
}

}  // namespace

std::string describe(const ProcessInfo& process) {
    return fmt::format("{} (pid {})", process.name, process.pid);
}

std::vector<ProcessInfo> processes_named(std::string_view name) {
    std::vector<ProcessInfo> found;
    visit_numbered("/proc", [&](pid_t pid) {
        const auto stat = read_stat(pid);
        if (!stat || stat->name != name) {
            return;
        }
        const auto parent = read_stat(stat->parent);
        if (!parent || parent->name != name) {
            found.push_back({pid, stat->name, wall_time_of(stat->start_ticks), stat->stopped});
        }
    });
    std::sort(found.begin(), found.end(), [](const ProcessInfo& left, const ProcessInfo& right) {
        return std::pair(left.since, left.pid) < std::pair(right.since, right.pid);
    });
    return found;
}

PortUse port_use(Transport transport, std::uint16_t port) {
    const bool tcp = transport == Transport::TCP;
    std::set<std::string> inodes;
    add_socket_inodes(tcp ? "/proc/net/tcp" : "/proc/net/udp", tcp, port, inodes);
    add_socket_inodes(tcp ? "/proc/net/tcp6" : "/proc/net/udp6", tcp, port, inodes);
    PortUse use;
    use.taken = !inodes.empty();
    if (use.taken) {
        use.holders = holders_of([&inodes](const std::string& fd) {
            std::array<char, 64> target{};
            const ssize_t length = readlink(fd.c_str(), target.data(), target.size());
            const std::string_view link(target.data(), length < 0 ? 0 : std::size_t(length));
            constexpr std::string_view SOCKET = "socket:[";
            return link.starts_with(SOCKET) && link.ends_with(']') &&
                   inodes.contains(
                       std::string(link.substr(SOCKET.size(), link.size() - SOCKET.size() - 1)));
        });
    }
    return use;
}

bool has_unread_datagrams(std::uint16_t port) {
    bool found = false;
    visit_sockets("/proc/net/udp", port, [&found](const std::vector<std::string>& fields) {
        constexpr std::size_t QUEUES = 4;  // "TX:RX"
        found = found || !fields[QUEUES].ends_with(":00000000");
    });
    return found;
}

std::vector<ProcessInfo> pipe_readers(const std::string& path) {
    struct stat pipe {};
    if (stat(path.c_str(), &pipe) != 0) {
        return {};
    }
    return holders_of([&pipe](const std::string& fd) {
        struct stat target {};
        struct stat link {};
        // The link's own mode tells how the descriptor was opened.
        return stat(fd.c_str(), &target) == 0 && target.st_dev == pipe.st_dev &&
               target.st_ino == pipe.st_ino && lstat(fd.c_str(), &link) == 0 &&
               (link.st_mode & S_IRUSR) != 0;
    });
}

std::optional<int> semaphore_id_of(key_t key) {
    std::ifstream table("/proc/sysvipc/sem");
    std::string line;
    std::getline(table, line);  // the headings
    while (std::getline(table, line)) {
        std::istringstream columns(line);
        long long its_key = 0;
        int id = 0;
        if (columns >> its_key >> id && static_cast<key_t>(its_key) == key) {
            return id;
        }
    }
    return std::nullopt;
}

bool comes_to_run(std::string_view name, bool running, const std::vector<ProcessInfo>& dying) {
    const auto deadline = std::chrono::steady_clock::now() + CHANGE_LIMIT;
    const auto counts = [&dying](const ProcessInfo& process) {
        return std::none_of(dying.begin(), dying.end(), [&process](const ProcessInfo& other) {
            return other.pid == process.pid;
        });
    };
    const auto runs = [&] {
        const auto found = processes_named(name);
        return std::any_of(found.begin(), found.end(), counts);
    };
    while (runs() != running) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(CHANGE_STEP);
    }
    return true;
}
