#include "world.h"

#include <algorithm>
#include <bit>
#include <optional>

#include "disk.h"
#include "slave/miss_counter.h"
#include "syncd/backlog.h"
#include "syncd/push.h"

namespace {

using namespace std::chrono_literals;
using enum Act;

std::string name_of_client(unsigned client) {
    return {static_cast<char>('A' + client)};
}

void end_slave(World& world) {
    world.slave_runs = world.stop_asked = world.promoted = false;
    world.bottle_empty = world.records_arrive = false;
    world.memory = {};
    world.connections = {};
}

void end_master(World& world) {
    world.master_runs = false;
    world.datagrams = {};
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
          memory_(world.memory),
          disk_(world.of_slave),
          files_(disk_, memory_, event),
          push_{.of_master = true,
                .begun = memory_.begun,
                .asked = memory_.asked,
                .refused = memory_.refused,
                .failed = memory_.failed,
                .stored = memory_.stored,
                .version = memory_.current ? 1U : 0U},
          list_(files_, clock_,
                {.state = memory_.state,
                 .kept = memory_.kept,
                 .due = memory_.due,
                 .version = 1,
                 .closing_stamp = stamp_text(memory_.closing),
                 .batch = memory_.batch_open ? &push_ : nullptr,
                 .put_back = false}) {
        if (world.records_arrive) {
            const ClientList::Work work(list_);
        }
        clock_.time += 1s;
    }

    bool struck() const { return files_.struck(); }
    const std::string& violation() const {  // empty: none
        return violation_.empty() ? files_.violation() : violation_;
    }

    void start() { list_.start_as_slave(); }
    void pause() { list_.flush(push_); }
    void look() {
        clock_.time += world_.records_arrive ? 0s : 10s;
        const SlaveAction due = action();
        if (due == SlaveAction::PROMOTE) {
            take_over();
        } else if (due == SlaveAction::STEP_DOWN) {
            world_.promoted = false;
        }
    }

    // Both return whether the connection is at its end.
    bool read_answer(const Channel& answer, bool& asked) {
        if (stamp_text(answer.stamp) != list_.stamps()->client) {
            asked = list_.ask();
        } else {
            list_.equal_stamps();
            check("I1: after an equal answer, not the records of the push with that stamp");
        }
        world_.bottle_empty = false;
        end_push();
        return true;
    }
    bool read_push(Channel& push, bool slowly) {
        std::optional<ClientList::Work> work;
        if (push.to_come != 0 || !push.broken) {
            work.emplace(list_);
            world_.records_arrive = true;
        }
        if (push.to_come != 0) {
            const auto client = static_cast<unsigned>(std::countr_zero(push.to_come));
            push.to_come = static_cast<Clients>(push.to_come & (push.to_come - 1));
            list_.put(push_, name_of_client(client), "");
            if (slowly) {
                look_slowly(work);
            }
            return false;
        }
        if (!push.broken) {
            close_push(push);
        }
        end_push();
        return true;
    }

    void remember() {
        const ListMemory& list = list_.memory();
        const bool closing = list.state == ListState::CLOSING;
        memory_ = {.state = list.state,
                   .kept = list.kept,
                   .due = static_cast<std::uint8_t>(list.due),
                   .closing = closing ? stamp_number(list.closing_stamp) : NO_STAMP_YET,
                   .batch_open = memory_.batch_open,
                   .batch = memory_.batch,
                   .begun = push_.begun,
                   .asked = push_.asked,
                   .refused = push_.refused,
                   .failed = push_.failed,
                   .stored = push_.stored,
                   .current = push_.begun && push_.version == list.version};
        if (list.state == ListState::COMPLETE || list.state == ListState::RESTORED) {
            check("I1: the stamp stands over other records than those of its push");
        }
    }

private:
    SlaveAction action() {
        return next_action({.status = world_.promoted ? STATUS_PROMOTED : STATUS_STANDBY,
                            .bottle = world_.bottle_empty ? -1 : 1,
                            .records_arrive = list_.grows(),
                            .stop_asked = world_.stop_asked});
    }
    void look_slowly(std::optional<ClientList::Work>& work) {
        clock_.time += 10s;
        clock_.looked_at = [&work] {
            work.reset();
        };
        world_.bottle_empty = true;
        if (action() == SlaveAction::PROMOTE) {
            violate("a take-over while a record is being stored");
        }
        clock_.looked_at = nullptr;
    }

    void take_over() {
        list_.flush(push_);  // what the take-over waits for
        const Clients before = disk_.clients;
        list_.take_over();
        world_.promoted = true;
        const bool newer =
            list_.memory().state == ListState::CLOSING && disk_.clients == disk_.closed_set;
        if (world_.stop_asked) {
            violate("the boot services start after SIGTERM, and nobody will stop them");
        } else if (files_.struck()) {
            return;  // a disk that refuses the list from before
        } else if (disk_.complete == NO_LIST || disk_.complete == 0) {
            if (disk_.clients != before) {
                violate("a take-over without a complete list changes the part that there is");
            }
        } else if (disk_.clients != disk_.complete && !newer) {
            violate("I2: the boot services start on another list than the last complete one");
        }
    }

    void close_push(const Channel& push) {
        files_.closes(push, list_.memory().state == ListState::CLOSING);
        if (list_.close(push_, stamp_text(push.stamp))) {
            world_.bottle_empty = false;
        }
        if (list_.memory().state == ListState::CLOSING && files_.push_counts()) {
            disk_.closed_set = push.set;
        }
    }
    void end_push() {
        list_.end(push_);
        push_ = {.of_master = true};
    }

    void check(const char* what) {
        if (!files_.struck() && disk_.stamp_set != NO_LIST && disk_.clients != disk_.stamp_set) {
            violate(what);
        }
    }
    void violate(const char* what) {
        if (violation_.empty()) {
            violation_ = what;
        }
    }

    World& world_;
    Memory& memory_;
    Disk& disk_;
    TestClock clock_;
    DiskFiles files_;
    ClientPush push_;
    ClientList list_;
    std::string violation_;
};

// Whatever a master has is its list.
void set_list(Disk& disk, unsigned clients) {
    disk.clients = disk.complete = disk.closed_set = disk.stamp_set = static_cast<Clients>(clients);
}

void edit(World& world, unsigned client) {
    set_list(world.of_master, world.of_master.clients ^ 1U << client);
    world.master_changed = true;
}

void give_new_stamp(World& world) {
    world.of_master.stamp = ++world.last_stamp;
    world.master_changed = false;
}

StampNumber masters_stamp(const World& world) {
    return world.of_master.stamp == NO_STAMP_YET ? NULL_STAMP : world.of_master.stamp;
}

// The master's disk. The administrator may come between the two that a push reads of it.
class MasterStores : public PushSource {
public:
    MasterStores(World& world, std::optional<unsigned> edited) : world_(world), edited_(edited) {}

    std::optional<StampPair> stamps() override {
        let_administrator_in();
        return StampPair{"", stamp_text(masters_stamp(world_))};
    }
    void begin_walk(const char* /*path*/) override {
        let_administrator_in();
        for (unsigned n = 0; n < 8; ++n) {
            if ((world_.of_master.clients & 1U << n) != 0) {
                records_.push_back({name_of_client(n), ""});
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
            connection_.set |= bit_of(key);
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
    if (!world.slave_runs || place == end) {
        return;  // refused
    }
    if (datagram == Waiting::HEARTBEAT) {
        place->there = true;
        place->stamp = masters_stamp(world);
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

void add_datagram(World& world, Waiting datagram, unsigned most) {
    const auto end = world.datagrams.begin() + most;
    const auto place = std::find(world.datagrams.begin(), end, Waiting::NONE);
    if (world.master_runs && place != end) {  // else it is lost
        *place = datagram;
    }
}

// What the daemon does to the client list before it serves as the master.
void start_master(const Event& event, Result& result) {
    Disk& disk = result.world.of_master;
    Memory none{};
    DiskFiles files(disk, none, event);
    TestClock clock;
    const Clients complete = disk.complete;
    ClientList(files, clock).start_as_master();
    result.struck = files.struck();
    result.world.master_runs = true;
    if (complete != NO_LIST && complete != 0 && disk.clients != complete) {
        result.violation = "I2: the master starts on another list than the last complete one";
    }
    set_list(disk, disk.clients);
}

void act_on_list(const Event& event, const Bounds& bounds, Result& result) {
    World& world = result.world;
    Slave slave(world, event);
    Channel& served = world.connections[0];
    bool request = false;
    bool ended = false;
    // clang-format off
    switch (event.act) {
        case START_SLAVE: world.slave_runs = true; slave.start(); break;
        case BEAT:        add_datagram(world, Waiting::HEARTBEAT, bounds.datagrams); slave.look(); break;
        case RUN_OUT:     world.bottle_empty = true; slave.look(); break;
        case FALL_SILENT: world.records_arrive = false; slave.look(); break;
        case PAUSE:       slave.pause(); break;
        default:          ended = served.is_push ? slave.read_push(served, event.act == DELIVER_SLOWLY)
                                                 : slave.read_answer(served, request);
    }
    // clang-format on
    slave.remember();
    result.struck = slave.struck();
    result.violation = slave.violation();
    if (ended) {
        pop(world.connections);
    }
    if (request && event.act != REQUEST_LOST) {
        add_datagram(world, Waiting::REQUEST, bounds.datagrams);
    }
}

unsigned cost_of(const World& world, const Event& event) {
    const bool goes_wrong = event.act == REQUEST_LOST || event.act == CUT ||
                            (event.act == KILL_SLAVE && !world.stop_asked) ||
                            event.act == STOP_SLAVE || event.act == KILL_MASTER;
    return (goes_wrong ? 1U : 0U) + (event.mishap != Mishap::NONE ? 1U : 0U);
}

void restore_backup(World& world) {
    set_list(world.of_master, world.backup_clients);
    world.of_master.stamp = world.backup_stamp;
    --world.backups;
}

void swap_roles(World& world) {
    end_slave(world);
    end_master(world);
    std::swap(world.of_master, world.of_slave);
    world.backup_stamp = NO_STAMP_YET;
    --world.swaps;
}

void act_elsewhere(World& world, const Event& event, const Bounds& bounds) {
    // clang-format off
    switch (event.act) {
        case EDIT:           return edit(world, event.argument);
        case NEW_STAMP:      return give_new_stamp(world);
        case SERVE:          return serve(world, bounds.connections, std::nullopt);
        case SERVE_EDITED:   return serve(world, bounds.connections, event.argument);
        case CUT:            world.connections[0].broken = true; world.connections[0].to_come = 0; return;
        case KILL_SLAVE:     return end_slave(world);
        case STOP_SLAVE:     world.stop_asked = true; return;
        case KILL_MASTER:    return end_master(world);
        case RESTORE_BACKUP: return restore_backup(world);
        case SWAP_ROLES:     return swap_roles(world);
        default:             return;
    }
    // clang-format on
}

}  // namespace

std::vector<World> Explorer::beginnings() const {
    World equal{};
    equal.of_master.kept = NO_LIST;
    equal.of_master.stamp = 1;
    set_list(equal.of_master, 1);
    equal.of_slave = equal.of_master;
    equal.backup_clients = equal.backup_stamp = equal.last_stamp = 1;
    equal.master_runs = equal.slave_runs = true;
    equal.mishaps = static_cast<std::uint8_t>(bounds_.mishaps);
    equal.backups = static_cast<std::uint8_t>(bounds_.backups);
    equal.swaps = static_cast<std::uint8_t>(bounds_.swaps);
    World fresh = equal;
    set_list(fresh.of_slave, NO_LIST);
    fresh.of_slave.clients = 0;
    fresh.of_slave.stamp = NO_STAMP_YET;
    fresh.backup_clients = bounds_.clients > 1 ? 3 : 1;
    set_list(fresh.of_master, fresh.backup_clients);
    return {equal, fresh};
}

bool Explorer::possible(const World& world, Act act, unsigned argument) const {
    const Channel& served = world.connections[0];
    const bool beats = world.slave_runs && !world.stop_asked;
    const bool reads = world.slave_runs && served.there;
    // A list that its start as the master may still put back is left alone.
    const bool editable =
        !world.master_changed &&
        (world.master_runs || (world.of_master.kept == NO_LIST && !world.of_master.has_journal));
    const bool served_waits = world.master_runs && world.datagrams[0] != Waiting::NONE &&
                              !world.connections[bounds_.connections - 1].there;
    // clang-format off
    switch (act) {
        case EDIT:           return editable && world.last_stamp < bounds_.stamps &&
                                    argument < bounds_.clients;
        case NEW_STAMP:      return world.master_changed;
        case SERVE:          return served_waits;
        case SERVE_EDITED:   return served_waits && world.datagrams[0] == Waiting::REQUEST &&
                                    possible(world, EDIT, argument);
        case BEAT:           return beats && world.master_runs &&
                                    world.datagrams[bounds_.datagrams - 1] == Waiting::NONE;
        case RUN_OUT:        return beats && !world.bottle_empty;
        case FALL_SILENT:    return world.slave_runs && world.records_arrive;
        case DELIVER:        return reads;
        case DELIVER_SLOWLY: return beats && reads && served.is_push && served.to_come != 0 &&
                                    !world.bottle_empty && !world.promoted;
        case REQUEST_LOST:   return reads && !served.is_push &&
                                    served.stamp != world.of_slave.stamp;
        case PAUSE:          return world.slave_runs && world.memory.batch_open;
        case START_SLAVE:    return !world.slave_runs;
        case START_MASTER:   return !world.master_runs;
        case CUT:            return reads && served.is_push && !served.broken;
        case KILL_SLAVE:     return world.slave_runs;
        case STOP_SLAVE:     return beats;
        case KILL_MASTER:    return world.master_runs;
        case RESTORE_BACKUP: return !world.master_runs && world.backups > 0 &&
                                    !world.master_changed && world.backup_stamp != NO_STAMP_YET;
        case SWAP_ROLES:     return world.swaps > 0 && !world.master_changed;
        case END:            break;
    }
    // clang-format on
    return false;
}

Result Explorer::apply(const World& world, const Event& event) const {
    Result result{.world = world};
    World& next = result.world;
    const unsigned cost = cost_of(world, event);
    next.mishaps = static_cast<std::uint8_t>(next.mishaps - std::min<unsigned>(next.mishaps, cost));
    try {
        if (event.act == START_MASTER) {
            start_master(event, result);
        } else if (uses_list(event.act)) {
            act_on_list(event, bounds_, result);
        } else {
            act_elsewhere(next, event, bounds_);
        }
    } catch (const Killed&) {
        result.struck = true;
        if (event.act != START_MASTER) {
            end_slave(next);
        }
    }
    return result;
}

void Explorer::with_mishaps(const World& world, const Event& plain,
                            std::vector<std::pair<Event, Result>>& found) const {
    for (const Mishap mishap : {Mishap::KILLED, Mishap::REFUSED, Mishap::HALF_REFUSED}) {
        if (plain.act == START_MASTER && mishap != Mishap::KILLED) {
            break;  // a master that cannot read its list needs an operator
        }
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
    for (Event plain{EDIT}; plain.act != END;
         plain.act = static_cast<Act>(static_cast<unsigned>(plain.act) + 1)) {
        const bool edits = plain.act == EDIT || plain.act == SERVE_EDITED;
        const unsigned cost = cost_of(world, plain);
        for (plain.argument = 0; plain.argument < (edits ? bounds_.clients : 1U);
             ++plain.argument) {
            if (cost > world.mishaps || !possible(world, plain.act, plain.argument)) {
                continue;
            }
            found.emplace_back(plain, apply(world, plain));
            if (uses_list(plain.act) && world.mishaps > cost) {
                with_mishaps(world, plain, found);
            }
        }
    }
    std::erase_if(found,
                  [this](const auto& each) { return each.second.world.memory.due > bounds_.due; });
}

Act Explorer::healing_act(const World& world) {
    return !world.master_runs                    ? START_MASTER
           : world.master_changed                ? NEW_STAMP
           : world.stop_asked                    ? KILL_SLAVE
           : !world.slave_runs                   ? START_SLAVE
           : world.connections[0].there          ? DELIVER
           : world.datagrams[0] != Waiting::NONE ? SERVE
                                                 : BEAT;
}

bool Explorer::is_healed(const World& world) {
    const ListState state = world.memory.state;
    return world.master_runs && world.slave_runs && !world.stop_asked && !world.master_changed &&
           !world.connections[0].there && world.datagrams[0] == Waiting::NONE &&
           world.of_slave.stamp == masters_stamp(world) &&
           world.of_slave.clients == world.of_master.clients &&
           (state == ListState::COMPLETE || state == ListState::RESTORED);
}
