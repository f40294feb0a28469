// explore [large]: walks through every state that a pair can reach within its bounds, the shortest
// ways first, and checks the invariants of slave/client_list/client_list.h in each. Prints how many
// there are, or the way to the first violation. Ends with 1 when there is one.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "world.h"

namespace {

// Together half a minute on two processors: more at once with one mishap, less with two.
constexpr Bounds ONE_MISHAP = {.clients = 2,
                               .stamps = 3,
                               .datagrams = 2,
                               .connections = 2,
                               .due = 3,
                               .mishaps = 1,
                               .swaps = 1};
constexpr Bounds TWO_MISHAPS = {.clients = 2,
                                .stamps = 3,
                                .datagrams = 2,
                                .connections = 1,
                                .due = 2,
                                .mishaps = 2,
                                .swaps = 0};
// Half an hour.
constexpr Bounds LARGE = {.clients = 2,
                          .stamps = 3,
                          .datagrams = 2,
                          .connections = 2,
                          .due = 3,
                          .mishaps = 2,
                          .swaps = 1};

constexpr unsigned MOST_HEALING_STEPS = 200;
constexpr unsigned MOST_TOLD_STEPS = 20;  // of those
constexpr std::size_t THREADS = 2;

// A set of hashes that are as good as random.
class HashSet {
public:
    bool contains(std::uint64_t hash) const { return *place_of(hash) == hash; }

    // Whether it is new.
    bool insert(std::uint64_t hash) {
        if (2 * (size_ + 1) > places_.size()) {
            grow();
        }
        std::uint64_t* place = const_cast<std::uint64_t*>(place_of(hash));
        const bool fresh = *place != hash;
        *place = hash;
        size_ += fresh ? 1 : 0;
        return fresh;
    }

private:
    static constexpr std::uint64_t FREE = 0;

    const std::uint64_t* place_of(std::uint64_t hash) const {
        std::size_t at = hash & (places_.size() - 1);
        while (places_[at] != hash && places_[at] != FREE) {
            at = (at + 1) & (places_.size() - 1);
        }
        return &places_[at];
    }
    void grow() {
        std::vector<std::uint64_t> old(2 * places_.size(), FREE);
        old.swap(places_);
        size_ = 0;
        for (const std::uint64_t hash : old) {
            if (hash != FREE) {
                (void)insert(hash);
            }
        }
    }

    std::vector<std::uint64_t> places_ = std::vector<std::uint64_t>(1024, FREE);
    std::size_t size_ = 0;
};

std::uint64_t hash_of(const World& world) {
    constexpr std::uint64_t PRIME = 0x9e3779b97f4a7c15;
    std::uint64_t hash = PRIME;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&world);
    for (std::size_t at = 0; at < sizeof world; at += sizeof hash) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + at, std::min(sizeof word, sizeof world - at));
        hash = (hash ^ word) * PRIME;
        hash ^= hash >> 29U;
    }
    return hash | 1U;  // never the mark of a free place
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
            world.mishaps = world.swaps = 0;
            const std::uint64_t hash = hash_of(world);
            if (Explorer::is_healed(world) || healing_.contains(hash)) {
                for (const std::uint64_t each : way_) {
                    (void)healing_.insert(each);
                }
                return true;
            }
            way_.push_back(hash);
            const Event event{Explorer::healing_act(world), 0, Mishap::NONE, 0};
            events.push_back(event);
            const Result result = explorer_.apply(world, event);
            if (!result.violation.empty()) {
                violation = {node, events, result.violation};
                return false;
            }
            world = result.world;
        }
        events.resize(MOST_TOLD_STEPS);
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
        : explorer_(bounds), beginnings_(explorer_.beginnings()) {}

    // Whether every state holds what it should. Prints what it found.
    bool run() {
        std::vector<Worker> workers(THREADS, Worker(explorer_, seen_));
        std::vector<World> level = beginnings_;
        for (std::uint8_t n = 0; n < level.size(); ++n) {
            (void)seen_.insert(hash_of(level[n]));
            nodes_.push_back({NOWHERE, {Act::EDIT, n, Mishap::NONE, 0}});
        }
        const Violation* violation = nullptr;
        while (!level.empty() && violation == nullptr) {
            explore(level, workers);
            for (const Worker& worker : workers) {
                if (violation == nullptr && worker.violation.node != NOWHERE) {
                    violation = &worker.violation;
                }
            }
            level = next_level(workers);
        }
        if (violation != nullptr) {
            tell(*violation);
        }
        std::size_t transitions = 0;
        for (const Worker& worker : workers) {
            transitions += worker.transitions;
        }
        std::printf("%zu states, %zu transitions%s\n", nodes_.size(), transitions,
                    violation == nullptr ? "" : " until the first violation");
        return violation == nullptr;
    }

private:
    void explore(const std::vector<World>& level, std::vector<Worker>& workers) const {
        const auto first = static_cast<std::uint32_t>(nodes_.size() - level.size());
        std::vector<std::thread> threads;
        for (std::size_t n = 0; n < workers.size(); ++n) {
            const std::size_t begin = level.size() * n / workers.size();
            const std::size_t end = level.size() * (n + 1) / workers.size();
            threads.emplace_back([&workers, &level, n, begin, end, first] {
                workers[n].run(level, begin, end, first);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    std::vector<World> next_level(const std::vector<Worker>& workers) {
        std::vector<World> level;
        for (const Worker& worker : workers) {
            for (const Reached& reached : worker.reached) {
                if (seen_.insert(reached.hash)) {
                    nodes_.push_back(reached.from);
                    level.push_back(reached.world);
                }
            }
        }
        return level;
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
        std::printf("     %s\n", Explorer::text_of(world).c_str());
        for (std::size_t n = 0; n < events.size(); ++n) {
            const World before = std::exchange(world, explorer_.apply(world, events[n]).world);
            std::printf("%3zu. %s%s\n", n + 1, Explorer::text_of(before, events[n]).c_str(),
                        world.promoted > before.promoted ? "; the slave takes over" : "");
        }
        std::printf("     %s\n%s\n", Explorer::text_of(world).c_str(), violation.text.c_str());
    }

    Explorer explorer_;
    std::vector<World> beginnings_;
    HashSet seen_;
    std::vector<Node> nodes_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "large") == 0) {
        return Search(LARGE).run() ? 0 : 1;
    }
    return Search(ONE_MISHAP).run() && Search(TWO_MISHAPS).run() ? 0 : 1;
}
