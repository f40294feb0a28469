// explore [large]: walks through every state that a pair can reach within its bounds, the shortest
// ways first, and checks the invariants of slave/client_list/client_list.h in each. Prints how many
// there are, or the way to the first violation. Ends with 1 when there is one.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "world.h"

namespace {

// Clients, stamps, datagrams, connections, due, mishaps, backups, swaps. The first three take half
// a minute on two processors, the others some minutes and 2 GB.
constexpr Bounds ONE_MISHAP = {2, 3, 2, 2, 3, 1, 1, 0};
constexpr Bounds TWO_MISHAPS = {2, 3, 2, 1, 2, 2, 0, 0};
constexpr Bounds SWAPPED = {1, 3, 1, 1, 2, 1, 0, 2};
constexpr Bounds LARGE_ONE_MISHAP = {2, 3, 2, 2, 3, 1, 1, 1};
constexpr Bounds LARGE_TWO_MISHAPS = {2, 3, 2, 1, 2, 2, 1, 1};
constexpr Bounds LARGE_SWAPPED = {1, 3, 1, 1, 2, 2, 1, 2};

constexpr unsigned MOST_HEALING_STEPS = 60;
constexpr std::size_t THREADS = 2;

// A set of hashes that are as good as random.
class HashSet {
public:
    bool contains(std::uint64_t hash) const { return places_[place_of(hash)] == hash; }

    // Whether it is new.
    bool insert(std::uint64_t hash) {
        if (2 * (size_ + 1) > places_.size()) {
            std::vector<std::uint64_t> old(2 * places_.size(), FREE);
            old.swap(places_);
            for (const std::uint64_t each : old) {
                places_[place_of(each)] = each;
            }
        }
        const bool fresh = std::exchange(places_[place_of(hash)], hash) != hash;
        size_ += fresh ? 1 : 0;
        return fresh;
    }

private:
    static constexpr std::uint64_t FREE = 0;

    // Where it is, or the free place for it.
    std::size_t place_of(std::uint64_t hash) const {
        std::size_t at = hash & (places_.size() - 1);
        while (places_[at] != hash && places_[at] != FREE) {
            at = (at + 1) & (places_.size() - 1);
        }
        return at;
    }

    std::vector<std::uint64_t> places_ = std::vector<std::uint64_t>(1024, FREE);
    std::size_t size_ = 0;
};

std::uint64_t hash_of(const World& world) {
    const std::string_view bytes(reinterpret_cast<const char*>(&world), sizeof world);
    return std::hash<std::string_view>{}(bytes) | 1U;  // never the mark of a free place
}

constexpr std::uint32_t NOWHERE = 0xffffffff;

// A state that was reached, and how; the world itself is kept until its successors are known.
struct Node {
    std::uint32_t parent;
    Event event;
};

struct Reached {
    World world;
    std::uint64_t hash;
    Node from;
};

struct Violation {
    std::uint32_t node = NOWHERE;
    std::vector<Event> events{};  // behind the node
    std::string text{};
};

// Half a level of the search, for one thread.
class Worker {
public:
    Worker(const Explorer& explorer, const HashSet& seen) : explorer_(explorer), seen_(seen) {}

    // Finds the successors of `level`[begin, end), whose nodes begin with `first_node`.
    void run(const std::vector<World>& level, std::size_t begin, std::size_t end,
             std::uint32_t first_node) {
        reached.clear();
        for (std::size_t n = begin; n < end && violation.node == NOWHERE; ++n) {
            visit(level[n], first_node + static_cast<std::uint32_t>(n));
        }
    }

    std::vector<Reached> reached;
    std::size_t transitions = 0;
    Violation violation;

private:
    void visit(const World& world, std::uint32_t node) {
        if (!heals(world, node)) {
            return;
        }
        found_.clear();
        explorer_.successors(world, found_);
        for (const auto& [event, result] : found_) {
            ++transitions;
            if (!result.violation.empty()) {
                violation = {node, {event}, result.violation};
                return;
            }
            const std::uint64_t hash = hash_of(result.world);
            if (!seen_.contains(hash)) {
                reached.push_back({result.world, hash, {node, event}});
            }
        }
    }

    // Runs on without mishaps until both sides are equal, or in a state that is known to get there.
    bool heals(World world, std::uint32_t node) {
        way_.clear();
        std::vector<Event> events;
        for (unsigned step = 0; step < MOST_HEALING_STEPS; ++step) {
            world.mishaps = world.backups = world.swaps = 0;
            const std::uint64_t hash = hash_of(world);
            if (Explorer::is_healed(world) || healing_.contains(hash)) {
                for (const std::uint64_t each : way_) {
                    (void)healing_.insert(each);
                }
                return true;
            }
            way_.push_back(hash);
            events.push_back({Explorer::healing_act(world)});
            const Result result = explorer_.apply(world, events.back());
            if (!result.violation.empty()) {
                violation = {node, events, result.violation};
                return false;
            }
            world = result.world;
        }
        violation = {node, events, "I4: the two sides do not become equal, and nothing goes wrong"};
        return false;
    }

    const Explorer& explorer_;
    const HashSet& seen_;
    HashSet healing_;
    std::vector<std::uint64_t> way_;
    std::vector<std::pair<Event, Result>> found_;
};

class Search {
public:
    explicit Search(const Bounds& bounds)
        : explorer_(bounds), level_(explorer_.beginnings()), beginnings_(level_) {}

    // Whether every state holds what it should. Prints what it found.
    bool run() {
        std::vector<Worker> workers(THREADS, Worker(explorer_, seen_));
        for (std::uint8_t n = 0; n < level_.size(); ++n) {
            (void)seen_.insert(hash_of(level_[n]));
            nodes_.push_back({NOWHERE, {Act::EDIT, n}});
        }
        std::size_t transitions = 0;
        auto violating = workers.end();
        while (!level_.empty() && violating == workers.end()) {
            explore(workers);
            violating = std::find_if(workers.begin(), workers.end(), [](const Worker& each) {
                return each.violation.node != NOWHERE;
            });
            next_level(workers);
        }
        for (const Worker& worker : workers) {
            transitions += worker.transitions;
        }
        const bool holds = violating == workers.end();
        if (!holds) {
            tell(violating->violation);
        }
        std::printf("%zu states, %zu transitions%s\n", nodes_.size(), transitions,
                    holds ? "" : " until the first violation");
        return holds;
    }

private:
    void explore(std::vector<Worker>& workers) const {
        const auto first = static_cast<std::uint32_t>(nodes_.size() - level_.size());
        std::vector<std::thread> threads;
        for (std::size_t n = 0; n < workers.size(); ++n) {
            const std::size_t begin = level_.size() * n / workers.size();
            const std::size_t end = level_.size() * (n + 1) / workers.size();
            threads.emplace_back([this, &workers, n, begin, end, first] {
                workers[n].run(level_, begin, end, first);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    void next_level(const std::vector<Worker>& workers) {
        level_.clear();
        for (const Worker& worker : workers) {
            for (const Reached& reached : worker.reached) {
                if (seen_.insert(reached.hash)) {
                    nodes_.push_back(reached.from);
                    level_.push_back(reached.world);
                }
            }
        }
    }

    void tell(const Violation& violation) const {
        std::vector<Event> events;
        std::uint32_t node = violation.node;
        for (; nodes_[node].parent != NOWHERE; node = nodes_[node].parent) {
            events.push_back(nodes_[node].event);
        }
        std::reverse(events.begin(), events.end());
        events.insert(events.end(), violation.events.begin(), violation.events.end());
        World world = beginnings_[nodes_[node].event.argument];
        std::printf("     %s\n", text_of(world).c_str());
        for (std::size_t n = 0; n < events.size(); ++n) {
            const World before = std::exchange(world, explorer_.apply(world, events[n]).world);
            std::printf("%3zu. %s%s\n", n + 1, text_of(before, events[n]).c_str(),
                        world.promoted > before.promoted ? "; the slave takes over" : "");
        }
        std::printf("     %s\n%s\n", text_of(world).c_str(), violation.text.c_str());
    }

    Explorer explorer_;
    std::vector<World> level_;
    std::vector<World> beginnings_;
    HashSet seen_;
    std::vector<Node> nodes_;
};

}  // namespace

int main(int argc, char** argv) {
    std::vector<Bounds> all = {ONE_MISHAP, TWO_MISHAPS, SWAPPED};
    if (argc == 2 && std::strcmp(argv[1], "large") == 0) {
        all = {LARGE_ONE_MISHAP, LARGE_TWO_MISHAPS, LARGE_SWAPPED};
    }
    const auto hold = [](const Bounds& bounds) {
        return Search(bounds).run();
    };
    return std::all_of(all.begin(), all.end(), hold) ? 0 : 1;
}
