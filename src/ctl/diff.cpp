// quorsyncctl diff: two database files key by key, so that a master sees itself beside the copy of
// its slave's file.
#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "console.h"
#include "data_sets.h"
#include "peer/peer_file.h"
#include "rows.h"
#include "store_files.h"
#include "verbs.h"

namespace {

using Records = std::map<std::string, std::string>;

struct Options {
    std::string left;
    std::string right;
    std::string set = "auto";
    std::string peer;
    bool json = false;
};

// One key of either file.
struct Difference {
    std::string key;
    std::optional<std::string> left;
    std::optional<std::string> right;
    Replication replication;
    std::string misfit;  // why a message cannot carry one of them

    bool equal() const { return left == right; }
    // Stamps are not equal while a set is being copied: they are shown, and are no fault.
    bool is_fault() const { return replication == Replication::PUSHED && !equal(); }
};

std::optional<std::string> value_of(const Records& records, const std::string& key) {
    const auto found = records.find(key);
    return found == records.end() ? std::nullopt : std::optional(found->second);
}

Difference compare(const Records& left, const Records& right, const std::string& key,
                   bool clients) {
    Difference difference{
        key, value_of(left, key), value_of(right, key), replication_of(clients, key), {}};
    for (const auto& side : {difference.left, difference.right}) {
        if (side && difference.misfit.empty()) {
            difference.misfit = message_fault(difference.replication, key, *side);
        }
    }
    return difference;
}

std::vector<Difference> compare_all(const Records& left, const Records& right, bool clients) {
    Records keys = left;
    keys.insert(right.begin(), right.end());
    std::vector<Difference> all;
    for (const auto& [key, value] : keys) {
        all.push_back(compare(left, right, key, clients));
    }
    return all;
}

const char* name_of(Replication replication) {
    switch (replication) {
        case Replication::PUSHED:
            return "pushed";
        case Replication::STAMP:
            return "stamp";
        case Replication::DSVER:
            return "dsver";
        case Replication::NONE:
            break;
    }
    return "not pushed";
}

const char* state_name(const Difference& difference) {
    return difference.equal()  ? "equal"
           : !difference.right ? "only in A"
           : !difference.left  ? "only in B"
                               : "differs";
}

// Long values are cut: what differs is in the first column, the whole of it in "store get".
Cell value_cell(const std::optional<std::string>& value) {
    constexpr std::size_t WIDTH = 40;
    if (!value) {
        return {"-", Colour::DIM};
    }
    return {shortened(escape(*value), WIDTH), Colour::PLAIN};
}

// What is equal on both sides is no news, unless it says how the pair stands or cannot travel.
bool is_shown(const Difference& difference) {
    return !difference.equal() || !difference.misfit.empty() ||
           difference.replication == Replication::STAMP ||
           difference.replication == Replication::DSVER;
}

Colour colour_of(const Difference& difference) {
    return difference.equal() ? Colour::GREEN : difference.is_fault() ? Colour::RED : Colour::DIM;
}

Row row_of(const Difference& difference) {
    const char* state = state_name(difference);
    const char* travels = name_of(difference.replication);
    Row row{{{state, colour_of(difference)},
             {travels},
             {escape(difference.key)},
             value_cell(difference.left),
             value_cell(difference.right),
             {difference.misfit, Colour::YELLOW}},
            {{"key", difference.key},
             {"state", state},
             {"travels", travels},
             {"a", difference.left},
             {"b", difference.right}}};
    if (!difference.misfit.empty()) {
        row.members.push_back({"misfit", difference.misfit});
    }
    return row;
}

void print(const Options& options, const std::vector<Difference>& differences, std::size_t faults) {
    Rows rows;
    for (const Difference& difference : differences) {
        if (is_shown(difference)) {
            rows.push_back(row_of(difference));
        }
    }
    if (options.json) {
        Json::object({{"a", options.left}, {"b", options.right}, {"keys", list_of(rows)}}).print();
        return;
    }
    say("A {}\nB {}", options.left, options.right);
    print_table(rows);
    if (faults == 0) {
        say("{}", paint(Colour::GREEN, "The mirrored data are equal."));
    } else {
        const char* verb = faults == 1 ? "differs" : "differ";
        say("{}", paint(Colour::RED, fmt::format("{} {}.", counted(faults, "mirrored key"), verb)));
    }
}

// Whether both files hold boot clients.
bool hold_clients(const Options& options) {
    const std::array paths = {store_path(options.left), store_path(options.right)};
    if (options.set != "auto") {
        return options.set == "client";
    }
    const bool any = std::any_of(paths.begin(), paths.end(), holds_clients);
    if (any && std::any_of(paths.begin(), paths.end(), holds_settings)) {
        throw WrongUse("B.db",
                       "one file has clients, the other settings; name the set of both with --set");
    }
    return any;
}

// Prints what differs between the two, and returns the exit code.
int compare_files(const Options& options, const std::optional<Records>& left,
                  const std::optional<Records>& right, bool clients) {
    if (!left || !right) {
        return EXIT_CANNOT_TELL;
    }
    const auto differences = compare_all(*left, *right, clients);
    const auto faults = static_cast<std::size_t>(
        std::count_if(differences.begin(), differences.end(),
                      [](const Difference& each) { return each.is_fault(); }));
    print(options, differences, faults);
    return faults == 0 ? EXIT_FINE : EXIT_PROBLEM;
}

int diff_files(const Options& options) {
    const bool clients = hold_clients(options);
    return compare_files(options, read_records(store_path(options.left)),
                         read_records(store_path(options.right)), clients);
}

int diff_with_peer(Options options) {
    const DataSet* set = data_set_named(options.left);
    if (set == nullptr) {
        throw WrongUse("A.db", "with --peer one of config, client");
    }
    const std::string address = peer_address(options.peer);
    options.right = fmt::format("{}:{}", address, options.left);
    const PeerFile file = fetch_peer_file(address, set->path, false);
    if (!file.failure.empty()) {
        complain("{}", file.failure);
        return EXIT_CANNOT_TELL;
    }
    return compare_files(options, read_records(set->path), read_records(file.path()),
                         holds_clients(set->path));
}

int diff(const Options& options) {
    if (options.peer.empty() == options.right.empty()) {
        throw WrongUse("B.db", "one of B.db and --peer is wanted");
    }
    return options.peer.empty() ? diff_files(options) : diff_with_peer(options);
}

}  // namespace

void add_diff(const Command& tool) {
    const auto options = std::make_shared<Options>();
    tool.command("diff", "Compare two database files key by key.")
        .notes(
            "Lists the keys that differ, and always both stamps and dsver. The master copies the\n"
            "keys marked \"pushed\" to the slave; if one of them differs, the exit code is 1.\n"
            "With --peer, A is config or client, and that of the other server is fetched through\n"
            "its file service. The service decides which files it serves; the daemon itself\n"
            "fetches config.db only.\n"
            "Examples:\n"
            "  quorsyncctl diff config /etc/quoradmind/192.168.0.2.db\n"
            "  quorsyncctl diff client /mnt/backup/client.db --json\n"
            "  quorsyncctl diff client --peer 192.168.0.2")
        .argument("A.db", options->left, "config, client, disk or a path")
        .optional_argument("B.db", options->right, "config, client, disk or a path")
        .peer_option(options->peer, "Compare with the same file of the other server")
        .option("--set", options->set, "Data set of both files; auto decides by their names",
                {"auto", "config", "client"})
        .flag("--json", options->json, "Print machine-readable output")
        .runs([options] { return diff(*options); });
}
