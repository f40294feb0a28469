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
#include "store_files.h"
#include "verbs.h"

namespace {

using Records = std::map<std::string, std::string>;

struct Options {
    std::string left;
    std::string right;
    std::string set = "auto";
    bool json = false;
};

// One key of either file.
struct Difference {
    std::string key;
    std::optional<std::string> left;
    std::optional<std::string> right;
    Travel travel;
    std::string misfit;  // why a message cannot carry one of them

    bool equal() const { return left == right; }
    bool mirrored() const { return travel == Travel::PUSHED || travel == Travel::STAMP; }
};

std::optional<std::string> value_of(const Records& records, const std::string& key) {
    const auto found = records.find(key);
    return found == records.end() ? std::nullopt : std::optional(found->second);
}

Difference compare(const Records& left, const Records& right, const std::string& key,
                   bool clients) {
    Difference difference{
        key, value_of(left, key), value_of(right, key), travel_of(clients, key), {}};
    for (const auto& side : {difference.left, difference.right}) {
        if (side && difference.misfit.empty()) {
            difference.misfit = why_it_does_not_fit(difference.travel, key, *side);
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

const char* travel_name(Travel travel) {
    switch (travel) {
        case Travel::PUSHED:
            return "pushed";
        case Travel::STAMP:
            return "stamp";
        case Travel::DSVER:
            return "dsver";
        case Travel::NOT:
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
    const std::string shown = escape(*value);
    return {shown.size() <= WIDTH ? shown : shown.substr(0, WIDTH - 3) + "...", Colour::PLAIN};
}

// What is equal on both sides is no news, unless it says how the pair stands or cannot travel.
bool is_shown(const Difference& difference) {
    return !difference.equal() || !difference.misfit.empty() ||
           difference.travel == Travel::STAMP || difference.travel == Travel::DSVER;
}

Colour colour_of(const Difference& difference) {
    return difference.equal() ? Colour::GREEN : difference.mirrored() ? Colour::RED : Colour::DIM;
}

void print_table(const Options& options, const std::vector<Difference>& differences) {
    say("A {}\nB {}", options.left, options.right);
    Table table;
    for (const Difference& difference : differences) {
        if (is_shown(difference)) {
            table.add({{state_name(difference), colour_of(difference)},
                       {travel_name(difference.travel)},
                       {escape(difference.key)},
                       value_cell(difference.left),
                       value_cell(difference.right),
                       {difference.misfit, Colour::YELLOW}});
        }
    }
    table.print();
}

json_object* json_value(const std::optional<std::string>& value) {
    return value ? json_text(*value) : nullptr;
}

void print_as_json(const Options& options, const std::vector<Difference>& differences) {
    const Json object(json_object_new_object());
    put_text(object.get(), "a", options.left);
    put_text(object.get(), "b", options.right);
    json_object* keys = json_object_new_array();
    json_object_object_add(object.get(), "keys", keys);
    for (const Difference& difference : differences) {
        if (!is_shown(difference)) {
            continue;
        }
        json_object* entry = json_object_new_object();
        put_text(entry, "key", difference.key);
        put_text(entry, "state", state_name(difference));
        put_text(entry, "travels", travel_name(difference.travel));
        json_object_object_add(entry, "a", json_value(difference.left));
        json_object_object_add(entry, "b", json_value(difference.right));
        if (!difference.misfit.empty()) {
            put_text(entry, "misfit", difference.misfit);
        }
        json_object_array_add(keys, entry);
    }
    print_json(object);
}

// Whether both files hold boot clients.
bool hold_clients(const Options& options) {
    const std::array paths = {store_path(options.left), store_path(options.right)};
    if (options.set != "auto") {
        return options.set == "client";
    }
    const bool any = std::any_of(paths.begin(), paths.end(), holds_clients);
    if (any && std::any_of(paths.begin(), paths.end(), holds_settings)) {
        throw CLI::ValidationError(
            "B.db", "one file holds clients, the other settings; --set tells what both hold");
    }
    return any;
}

int diff(const Options& options) {
    const bool clients = hold_clients(options);
    const auto left = read_records(store_path(options.left));
    const auto right = read_records(store_path(options.right));
    if (!left || !right) {
        return EXIT_CANNOT_TELL;
    }
    const auto differences = compare_all(*left, *right, clients);
    const auto is_fault = [](const Difference& each) {
        return each.mirrored() && !each.equal();
    };
    const auto faults =
        static_cast<std::size_t>(std::count_if(differences.begin(), differences.end(), is_fault));
    if (options.json) {
        print_as_json(options, differences);
    } else {
        print_table(options, differences);
        say("{}", faults == 0 ? paint(Colour::GREEN, "The mirrored data are equal.")
                              : paint(Colour::RED, counted(faults, "mirrored key") + " differ."));
    }
    return faults == 0 ? EXIT_FINE : EXIT_PROBLEM;
}

}  // namespace

void add_diff(CLI::App& app, int& status) {
    CLI::App* verb = add_verb(
        app, "diff", "Compare two database files key by key.",
        "Shows the keys that differ, and always both stamps and dsver. \"pushed\" keys and\n"
        "the stamps are mirrored: where one of them differs, the exit code is 1.\n"
        "Examples:\n"
        "  quorsyncctl diff config /etc/quoradmind/192.168.0.2.db\n"
        "  quorsyncctl diff client /mnt/backup/client.db --json");
    const auto options = std::make_shared<Options>();
    verb->add_option("A.db", options->left, "config, client, disk or a path")->required();
    verb->add_option("B.db", options->right, "config, client, disk or a path")->required();
    verb->add_option("--set", options->set, "What they hold: config or client; auto goes by name")
        ->check(CLI::IsMember({"auto", "config", "client"}))
        ->capture_default_str();
    verb->add_flag("--json", options->json, "As a JSON object");
    verb->callback([options, &status] { status = diff(*options); });
}
