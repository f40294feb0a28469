#include "world.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <utility>

#include "slave/miss_counter.h"
#include "slave_disk.h"
#include "syncd/backlog.h"
#include "syncd/push.h"

namespace {

using namespace std::chrono_literals;

void forget(World& world) {
    world.slave_runs = world.stop_asked = world.promoted = 0;
    world.bottle_empty = world.records_arrive = 0;
    world.list_state = world.list_kept = world.list_due = world.list_put_back = 0;
    world.list_closing = NO_STAMP_YET;
    world.batch_open = world.batch = 0;
    world.push_begun = world.push_asked = world.push_refused = 0;
    world.push_failed = world.push_stored = world.push_current = 0;
    world.connections = {};
}

template <typename Queue>
void pop(Queue& queue) {
    std::rotate(queue.begin(), queue.begin() + 1, queue.end());
    queue.back() = {};
}

// The running slave: the daemon's own list in the state that the world says.
class Slave {
public:
    Slave(World& world, const Event& event)
        : world_(world),
          disk_(world, event.mishap, event.at),
          push_(push_in(world)),
          list_(disk_, clock_, memory_in(world, &push_)) {
        if (world.records_arrive != 0) {
            const ClientList::Work work(list_);
        }
        clock_.time += 1s;
    }

    bool struck() const { return disk_.struck(); }
    const std::string& violation() const { return violation_; }

    void start() {
        list_.start_as_slave();
        world_.slave_runs = 1;
    }
    void start_as_master() { list_.start_as_master(); }

    void beat() { look(); }
    void run_out() {
        world_.bottle_empty = 1;
        look();
    }
    void fall_silent() {
        world_.records_arrive = 0;
        clock_.time += 10s;
        look();
    }
    void pause() { list_.flush(push_); }

    // Whether the master was asked for its clients.
    bool read_answer(const Channel& answer) {
        bool asked = false;
        if (stamp_text(answer.stamp) != list_.stamps()->client) {
            asked = list_.ask();
        } else {
            list_.equal_stamps();
            check_equal();
        }
        world_.bottle_empty = 0;
        list_.end(push_);
        push_ = {.of_master = true};
        return asked;
    }

    // Whether the connection is at its end.
    bool read_push(Channel& push, bool slowly) {
        if (push.to_come == 0 && push.broken) {
            end_push();
            return true;
        }
        std::optional<ClientList::Work> work(std::in_place, list_);
        world_.records_arrive = 1;
        if (push.to_come == 0) {
            close_push(push);
            return true;
        }
        const auto client = static_cast<unsigned>(std::countr_zero(push.to_come));
        push.to_come = static_cast<Clients>(push.to_come & (push.to_come - 1));
        list_.put(push_, std::string(1, static_cast<char>('A' + client)), "");
        if (slowly) {
            look_slowly(work);
        }
        return false;
    }

    void freeze() {
        const ListMemory& memory = list_.memory();
        world_.list_state = static_cast<std::uint8_t>(memory.state);
        world_.list_kept = memory.kept ? 1 : 0;
        world_.list_due = static_cast<std::uint8_t>(memory.due);
        const bool closing = memory.state == ListState::CLOSING;
        world_.list_closing = closing ? stamp_number(memory.closing_stamp) : NO_STAMP_YET;
        world_.push_begun = push_.begun ? 1 : 0;
        world_.push_asked = push_.asked ? 1 : 0;
        world_.push_refused = push_.refused ? 1 : 0;
        world_.push_failed = push_.failed ? 1 : 0;
        world_.push_stored = push_.stored ? 1 : 0;
        world_.push_current = push_.begun && push_.version == memory.version ? 1 : 0;
        world_.list_put_back = 0;  // only chooses a text of the log
        check_stamp();
    }

private:
    static ClientPush push_in(const World& world) {
        return {.of_master = true,
                .begun = world.push_begun != 0,
                .asked = world.push_asked != 0,
                .refused = world.push_refused != 0,
                .failed = world.push_failed != 0,
                .stored = world.push_stored != 0,
                .version = world.push_current != 0 ? 1U : 0U};
    }
    static ListMemory memory_in(const World& world, ClientPush* push) {
        return {.state = static_cast<ListState>(world.list_state),
                .kept = world.list_kept != 0,
                .due = world.list_due,
                .version = 1,
                .closing_stamp = stamp_text(world.list_closing),
                .batch = world.batch_open != 0 ? push : nullptr,
                .put_back = false};
    }

    SlaveAction action() {
        return next_action({.status = world_.promoted != 0 ? STATUS_PROMOTED : STATUS_STANDBY,
                            .bottle = world_.bottle_empty != 0 ? -1 : 1,
                            .records_arrive = list_.grows(),
                            .stop_asked = world_.stop_asked != 0});
    }
    void look() {
        const SlaveAction action_now = action();
        if (action_now == SlaveAction::PROMOTE) {
            take_over();
        } else if (action_now == SlaveAction::STEP_DOWN) {
            world_.promoted = 0;
        }
    }
    void look_slowly(std::optional<ClientList::Work>& work) {
        clock_.time += 10s;
        clock_.looked_at = [&work] {
            work.reset();
        };
        world_.bottle_empty = 1;
        if (action() == SlaveAction::PROMOTE) {
            violate("a take-over while a record is being stored");
        }
        clock_.looked_at = nullptr;
    }

    void take_over() {
        list_.flush(push_);  // what the take-over waits for
        const Clients before = world_.clients;
        list_.take_over();
        world_.promoted = 1;
        const Clients list = world_.clients;
        const bool newer = list_.memory().state == ListState::CLOSING && list == world_.closed_set;
        if (world_.stop_asked != 0) {
            violate("the boot services start after SIGTERM, and nobody will stop them");
        } else if (disk_.struck()) {
            return;  // a disk that refuses the list from before
        } else if (world_.complete == NO_LIST || world_.complete == 0) {
            if (list != before) {
                violate("a take-over without a complete list changes the part that there is");
            }
        } else if (list != world_.complete && !newer) {
            violate("I2: the boot services start on another list than the last complete one");
        }
    }

    void close_push(const Channel& push) {
        const bool closing_before = list_.memory().state == ListState::CLOSING;
        disk_.closes(push, closing_before);
        if (list_.close(push_, stamp_text(push.stamp))) {
            world_.bottle_empty = 0;
        }
        if (list_.memory().state == ListState::CLOSING && disk_.push_counts()) {
            world_.closed_set = push.set;
        }
        end_push();
    }
    void end_push() {
        list_.end(push_);
        push_ = {.of_master = true};
    }

    void check_equal() {
        if (!disk_.struck() && world_.stamp_set != NO_LIST && world_.clients != world_.stamp_set) {
            violate("I1: after an equal answer, not the records of the push with that stamp");
        }
    }
    void check_stamp() {
        const ListState state = list_.memory().state;
        const bool whole = state == ListState::COMPLETE || state == ListState::RESTORED;
        if (whole && world_.stamp_set != NO_LIST && world_.clients != world_.stamp_set &&
            world_.clients != NO_LIST) {
            violate("I1: the stamp stands over other records than those of its push");
        }
    }
    void violate(const char* what) {
        if (violation_.empty()) {
            violation_ = what;
        }
    }

    World& world_;
    TestClock clock_;
    SlaveDisk disk_;
    ClientPush push_;
    ClientList list_;
    std::string violation_;
};

void add_datagram(World& world, Waiting datagram, unsigned most) {
    const auto end = world.datagrams.begin() + most;
    const auto place = std::find(world.datagrams.begin(), end, Waiting::NONE);
    if (world.master_runs != 0 && place != end) {  // else it is lost
        *place = datagram;
    }
}

void edit(World& world, unsigned client) {
    world.master_clients ^= static_cast<Clients>(1U << client);
    world.master_changed = 1;
}

void give_new_stamp(World& world) {
    world.master_stamp = ++world.last_stamp;
    world.master_changed = 0;
}

// The master's disk. The administrator may come between the two that a push reads of it.
class MasterStores : public PushSource {
public:
    MasterStores(World& world, std::optional<unsigned> edited) : world_(world), edited_(edited) {}

    std::optional<StampPair> stamps() override {
        let_administrator_in();
        return StampPair{"", stamp_text(world_.master_stamp)};
    }
    void begin_walk(const char* /*path*/) override {
        let_administrator_in();
        for (unsigned n = 0; n < 8; ++n) {
            if ((world_.master_clients & 1U << n) != 0) {
                records_.push_back({std::string(1, static_cast<char>('A' + n)), ""});
            }
        }
    }
    bool next_chunk(std::vector<StoredRecord>& chunk) override {
        chunk = std::exchange(records_, {});
        return !chunk.empty();
    }
    bool failed() const override { return false; }

private:
    void let_administrator_in() {
        if (edited_ && ++reads_ == 2) {
            edit(world_, *edited_);
            give_new_stamp(world_);
        }
    }

    World& world_;
    std::optional<unsigned> edited_;
    unsigned reads_ = 0;
    std::vector<StoredRecord> records_;
};

// What the slave is going to read.
class Line : public PushTarget {
public:
    explicit Line(Channel& connection) : connection_(connection) {}

    void add(const PeerMessage& message) override {
        const std::string key(field_text(message.record.key));
        connection_.there = connection_.is_push = true;
        if (key == DBVER_KEY) {
            connection_.stamp = stamp_number(std::string(field_text(message.record.value)));
        } else {
            connection_.set |= static_cast<Clients>(1U << static_cast<unsigned>(key[0] - 'A'));
            connection_.to_come = connection_.set;
        }
    }
    bool send() override { return true; }
    bool whole() const override { return true; }

private:
    Channel& connection_;
};

// The master's own way to drop requests that a push has made superfluous.
void drop_repeats(World& world) {
    const Datagram request{make_data_request(DATA_KIND_CLIENT), {}};
    Backlog waiting(world.datagrams.size());
    for (const Waiting each : world.datagrams) {
        if (each == Waiting::HEARTBEAT) {
            (void)waiting.add({make_heartbeat("", ""), {}});
        } else if (each == Waiting::REQUEST) {
            (void)waiting.add(request);
        }
    }
    (void)waiting.drop_repeats(request);
    for (Waiting& each : world.datagrams) {
        const std::optional<Datagram> left = waiting.next();
        each = !left                                 ? Waiting::NONE
               : left->message.type == MSG_HEARTBEAT ? Waiting::HEARTBEAT
                                                     : Waiting::REQUEST;
    }
}

void serve(World& world, unsigned most, std::optional<unsigned> edited) {
    const Waiting datagram = world.datagrams[0];
    pop(world.datagrams);
    const auto end = world.connections.begin() + most;
    const auto place = std::find_if(world.connections.begin(), end,
                                    [](const Channel& each) { return !each.there; });
    if (world.slave_runs == 0 || place == end) {
        return;  // refused
    }
    if (datagram == Waiting::HEARTBEAT) {
        place->there = true;
        place->stamp = world.master_stamp;
        return;
    }
    MasterStores stores(world, edited);
    Line line(*place);
    if (push_records(stores, line, CLIENT_SET)) {
        drop_repeats(world);
    }
    if (place->stamp == world.backup_stamp && place->set != world.backup_clients) {
        world.backup_stamp = NO_STAMP_YET;  // it would come back with a stamp of other records
    }
}

void swap_roles(World& world) {
    std::swap(world.clients, world.master_clients);
    std::swap(world.stamp, world.master_stamp);
    world.master_stamp = world.master_stamp == NO_STAMP_YET ? NULL_STAMP : world.master_stamp;
    world.kept = NO_LIST;
    world.journal_there = world.journal_phase = world.journal_due = world.journal_kept = 0;
    world.journal_stamp = NO_STAMP_YET;
    world.stamp_set = NO_LIST;
    world.closed_set = NO_LIST;
    world.complete = world.clients;
    world.backup_clients = world.master_clients;
    world.backup_stamp = world.master_stamp;
}

void act_on_slave(const Event& event, const Bounds& bounds, Result& result) {
    World& world = result.world;
    Slave slave(world, event);
    bool request = false;
    Channel& served = world.connections[0];
    bool ended = false;
    try {
        switch (event.act) {
            case Act::START_SLAVE:
                slave.start();
                break;
            case Act::SWAP_ROLES:
                slave.start_as_master();
                break;
            case Act::BEAT:
                slave.beat();
                break;
            case Act::RUN_OUT:
                slave.run_out();
                break;
            case Act::FALL_SILENT:
                slave.fall_silent();
                break;
            case Act::PAUSE:
                slave.pause();
                break;
            default:
                ended = !served.is_push;
                if (served.is_push) {
                    ended = slave.read_push(served, event.act == Act::DELIVER_SLOWLY);
                } else {
                    request = slave.read_answer(served);
                }
        }
        slave.freeze();
    } catch (const Killed&) {
        forget(world);
        result.struck = true;
        return;
    }
    result.struck = slave.struck();
    result.violation = slave.violation();
    if (ended) {
        pop(world.connections);
    }
    if (request && event.act != Act::REQUEST_LOST) {
        add_datagram(world, Waiting::REQUEST, bounds.datagrams);
    }
}

constexpr bool is_mishap(Act act) {
    return act == Act::REQUEST_LOST || act == Act::CUT || act == Act::KILL_SLAVE ||
           act == Act::STOP_SLAVE || act == Act::KILL_MASTER;
}

constexpr bool uses_list(Act act) {
    switch (act) {
        case Act::BEAT:
        case Act::RUN_OUT:
        case Act::FALL_SILENT:
        case Act::DELIVER:
        case Act::DELIVER_SLOWLY:
        case Act::REQUEST_LOST:
        case Act::PAUSE:
        case Act::START_SLAVE:
        case Act::SWAP_ROLES:
            return true;
        default:
            return false;
    }
}

void act_elsewhere(World& world, const Event& event, const Bounds& bounds) {
    switch (event.act) {
        case Act::EDIT:
            edit(world, event.argument);
            break;
        case Act::NEW_STAMP:
            give_new_stamp(world);
            break;
        case Act::SERVE_EDITED:
            serve(world, bounds.connections, event.argument);
            break;
        case Act::SERVE:
            serve(world, bounds.connections, std::nullopt);
            break;
        case Act::CUT:
            world.connections[0].broken = true;
            world.connections[0].to_come = 0;
            break;
        case Act::KILL_SLAVE:
            forget(world);
            break;
        case Act::STOP_SLAVE:
            world.stop_asked = 1;
            break;
        case Act::KILL_MASTER:
            world.master_runs = 0;
            world.datagrams = {};
            break;
        case Act::START_MASTER:
            world.master_runs = 1;
            break;
        case Act::RESTORE_BACKUP:
            world.master_clients = world.backup_clients;
            world.master_stamp = world.backup_stamp;
            world.master_changed = 0;
            break;
        default:
            break;
    }
}

}  // namespace

std::vector<World> Explorer::beginnings() const {
    World equal{};
    equal.master_runs = 1;
    equal.master_clients = equal.clients = equal.stamp_set = equal.complete = 1;
    equal.master_stamp = equal.stamp = equal.last_stamp = 1;
    equal.kept = equal.closed_set = NO_LIST;
    equal.slave_runs = 1;
    equal.mishaps = static_cast<std::uint8_t>(bounds_.mishaps);
    equal.swaps = static_cast<std::uint8_t>(bounds_.swaps);
    equal.backup_clients = 1;
    equal.backup_stamp = 1;
    World fresh = equal;
    fresh.clients = 0;
    fresh.stamp = NO_STAMP_YET;
    fresh.stamp_set = fresh.complete = NO_LIST;
    fresh.master_clients = fresh.backup_clients = 3;
    return {equal, fresh};
}

bool Explorer::possible(const World& world, Act act, std::uint8_t argument) const {
    const Channel& served = world.connections[0];
    const bool slave = world.slave_runs != 0;
    const bool beats = slave && world.stop_asked == 0;
    switch (act) {
        case Act::EDIT:
            return world.master_changed == 0 && world.last_stamp < bounds_.stamps &&
                   argument < bounds_.clients;
        case Act::NEW_STAMP:
            return world.master_changed != 0;
        case Act::BEAT:
            return beats && world.master_runs != 0 &&
                   world.datagrams[bounds_.datagrams - 1] == Waiting::NONE;
        case Act::RUN_OUT:
            return beats && world.bottle_empty == 0;
        case Act::FALL_SILENT:
            return slave && world.records_arrive != 0;
        case Act::SERVE:
            return world.master_runs != 0 && world.datagrams[0] != Waiting::NONE &&
                   !world.connections[bounds_.connections - 1].there;
        case Act::SERVE_EDITED:
            return possible(world, Act::SERVE, 0) && possible(world, Act::EDIT, argument) &&
                   world.datagrams[0] == Waiting::REQUEST;
        case Act::DELIVER:
            return slave && served.there;
        case Act::DELIVER_SLOWLY:
            return beats && served.there && served.is_push && served.to_come != 0 &&
                   world.bottle_empty == 0 && world.promoted == 0;
        case Act::REQUEST_LOST:
            return slave && served.there && !served.is_push && served.stamp != world.stamp;
        case Act::PAUSE:
            return slave && world.batch_open != 0;
        case Act::CUT:
            return slave && served.there && served.is_push && !served.broken;
        case Act::KILL_SLAVE:
            return slave;
        case Act::STOP_SLAVE:
            return beats;
        case Act::START_SLAVE:
            return !slave;
        case Act::KILL_MASTER:
            return world.master_runs != 0;
        case Act::START_MASTER:
            return world.master_runs == 0;
        case Act::RESTORE_BACKUP:
            return world.master_runs == 0 && world.swaps > 0 && world.master_changed == 0 &&
                   world.backup_stamp != NO_STAMP_YET;
        case Act::SWAP_ROLES:
            return world.master_runs == 0 && !slave && world.swaps > 0 && world.master_changed == 0;
    }
    return false;
}

Result Explorer::apply(const World& world, const Event& event) const {
    Result result{.world = world, .violation = {}, .struck = false};
    World& next = result.world;
    if (event.act == Act::BEAT) {
        add_datagram(next, Waiting::HEARTBEAT, bounds_.datagrams);
    }
    if (uses_list(event.act)) {
        act_on_slave(event, bounds_, result);
    } else {
        act_elsewhere(next, event, bounds_);
    }
    if (event.act == Act::SWAP_ROLES) {
        swap_roles(next);
        forget(next);
    }
    const bool free = event.act == Act::KILL_SLAVE && world.stop_asked != 0;
    const unsigned cost =
        (is_mishap(event.act) && !free ? 1U : 0U) + (event.mishap != Mishap::NONE ? 1U : 0U);
    next.mishaps = static_cast<std::uint8_t>(next.mishaps - std::min<unsigned>(next.mishaps, cost));
    if (event.act == Act::SWAP_ROLES || event.act == Act::RESTORE_BACKUP) {
        --next.swaps;
    }
    return result;
}

void Explorer::with_mishaps(const World& world, const Event& plain,
                            std::vector<std::pair<Event, Result>>& found) const {
    for (const Mishap mishap : {Mishap::KILLED, Mishap::REFUSED, Mishap::HALF_REFUSED}) {
        // To be killed before the first step is an event of its own.
        for (std::uint8_t at = mishap == Mishap::KILLED ? 1 : 0;; ++at) {
            const Event event{plain.act, plain.argument, mishap, at};
            Result result = apply(world, event);
            if (!result.struck) {
                break;
            }
            found.emplace_back(event, std::move(result));
        }
    }
}

void Explorer::successors(const World& world, std::vector<std::pair<Event, Result>>& found) const {
    for (auto n = 0U; n <= static_cast<unsigned>(Act::SWAP_ROLES); ++n) {
        const Act act = static_cast<Act>(n);
        const bool edits = act == Act::EDIT || act == Act::SERVE_EDITED;
        const bool free = act == Act::KILL_SLAVE && world.stop_asked != 0;
        const unsigned mishaps = is_mishap(act) && !free ? 1 : 0;
        for (std::uint8_t argument = 0; argument < (edits ? bounds_.clients : 1U); ++argument) {
            if (mishaps > world.mishaps || !possible(world, act, argument)) {
                continue;
            }
            const Event plain{act, argument, Mishap::NONE, 0};
            found.emplace_back(plain, apply(world, plain));
            if (uses_list(act) && act != Act::SWAP_ROLES && world.mishaps > mishaps) {
                with_mishaps(world, plain, found);
            }
        }
    }
    std::erase_if(found,
                  [this](const auto& each) { return each.second.world.list_due > bounds_.due; });
}

Act Explorer::healing_act(const World& world) {
    if (world.master_runs == 0) {
        return Act::START_MASTER;
    }
    if (world.master_changed != 0) {
        return Act::NEW_STAMP;
    }
    if (world.stop_asked != 0) {
        return Act::KILL_SLAVE;
    }
    if (world.slave_runs == 0) {
        return Act::START_SLAVE;
    }
    if (world.connections[0].there) {
        return Act::DELIVER;
    }
    return world.datagrams[0] != Waiting::NONE ? Act::SERVE : Act::BEAT;
}

bool Explorer::is_healed(const World& world) {
    const auto state = static_cast<ListState>(world.list_state);
    return world.slave_runs != 0 && world.stop_asked == 0 && world.master_changed == 0 &&
           !world.connections[0].there && world.datagrams[0] == Waiting::NONE &&
           world.stamp == world.master_stamp && world.clients == world.master_clients &&
           (state == ListState::COMPLETE || state == ListState::RESTORED);
}

// --- In words ------------------------------------------------------------------------------------

namespace {

std::string names_of(Clients clients) {
    std::string names;
    for (unsigned n = 0; n < 3; ++n) {
        if ((clients & 1U << n) != 0) {
            names += (names.empty() ? "" : " ") + std::string(1, static_cast<char>('A' + n));
        }
    }
    return clients == NO_LIST ? "unknown" : names.empty() ? "none" : names;
}

std::string stamp_name(StampNumber stamp) {
    return stamp == NO_STAMP_YET ? "no stamp" : "stamp " + std::to_string(stamp);
}

std::string delivery_text(const World& before) {
    const Channel& served = before.connections[0];
    if (!served.is_push) {
        return "an answer with " + stamp_name(served.stamp) +
               (served.stamp == before.stamp ? ": equal" : ": the list is emptied and asked for");
    }
    if (served.to_come != 0) {
        const auto first = static_cast<unsigned>(std::countr_zero(served.to_come));
        return "a record of the push with " + stamp_name(served.stamp) + ": client " +
               names_of(static_cast<Clients>(1U << first));
    }
    return served.broken ? "the broken connection ends"
                         : "the closing record of the push with " + stamp_name(served.stamp) +
                               " (clients: " + names_of(served.set) + ")";
}

std::string edit_text(const World& before, unsigned client) {
    const auto bit = static_cast<Clients>(1U << client);
    return "client " + names_of(bit) +
           ((before.master_clients & bit) != 0 ? " is removed on the master"
                                               : " is added on the master");
}

std::string act_text(const World& before, const Event& event) {
    switch (event.act) {
        case Act::EDIT:
            return edit_text(before, event.argument);
        case Act::NEW_STAMP:
            return "the master's list gets " +
                   stamp_name(static_cast<StampNumber>(before.last_stamp + 1));
        case Act::BEAT:
            return "a heartbeat; it waits at the master";
        case Act::RUN_OUT:
            return "no answer until the bottle is empty";
        case Act::FALL_SILENT:
            return "no record for two seconds";
        case Act::SERVE:
            return before.datagrams[0] == Waiting::HEARTBEAT
                       ? "the master answers a heartbeat with " + stamp_name(before.master_stamp)
                       : "the master pushes its list with " + stamp_name(before.master_stamp);
        case Act::SERVE_EDITED:
            return "the master pushes its list with " + stamp_name(before.master_stamp) +
                   "; between stamp and records " + edit_text(before, event.argument) +
                   ", whose list gets " +
                   stamp_name(static_cast<StampNumber>(before.last_stamp + 1));
        case Act::DELIVER:
            return delivery_text(before);
        case Act::DELIVER_SLOWLY:
            return delivery_text(before) + ", stored slowly while the bottle runs out";
        case Act::REQUEST_LOST:
            return delivery_text(before) + "; the request gets lost";
        case Act::PAUSE:
            return "no message for 50 ms: the records go to disk";
        case Act::CUT:
            return "the connection of the push breaks";
        case Act::KILL_SLAVE:
            return "the slave is killed";
        case Act::START_SLAVE:
            return "the slave is started";
        case Act::STOP_SLAVE:
            return "SIGTERM to the slave";
        case Act::KILL_MASTER:
            return "the master is killed";
        case Act::START_MASTER:
            return "the master is started";
        case Act::RESTORE_BACKUP:
            return "the master gets its backup back, " + stamp_name(before.backup_stamp);
        case Act::SWAP_ROLES:
            return "the roles are swapped";
    }
    return "";
}

}  // namespace

std::string Explorer::text_of(const World& before, const Event& event) {
    const std::string number = std::to_string(event.at);
    switch (event.mishap) {
        case Mishap::KILLED:
            return act_text(before, event) + "; killed after step " + number + " on disk";
        case Mishap::REFUSED:
            return act_text(before, event) + "; the disk refuses step " + number;
        case Mishap::HALF_REFUSED:
            return act_text(before, event) + "; the flush of step " + number + " fails";
        case Mishap::NONE:
            break;
    }
    return act_text(before, event);
}

std::string Explorer::text_of(const World& world) {
    return "master: " + stamp_name(world.master_stamp) + ", clients " +
           names_of(world.master_clients) + "; slave: " + stamp_name(world.stamp) + ", clients " +
           names_of(world.clients) +
           (world.kept == NO_LIST ? "" : ", kept " + names_of(world.kept)) +
           (world.slave_runs == 0
                ? ", not running"
                : std::string(", list ") + name_of(static_cast<ListState>(world.list_state)) +
                      ", pushes due " + std::to_string(world.list_due));
}
