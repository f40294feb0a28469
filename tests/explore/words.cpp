// What the explorer prints: events and worlds in words.
#include <bit>

#include "world.h"

namespace {

using enum Act;

std::string names_of(Clients clients) {
    std::string names;
    for (unsigned n = 0; n < 3; ++n) {
        if ((clients & 1U << n) != 0) {
            names += (names.empty() ? "" : " ") + std::string(1, static_cast<char>('A' + n));
        }
    }
    return clients == NO_LIST ? "unknown" : names.empty() ? "none" : names;
}

std::string stamp_name(unsigned stamp) {
    return stamp == NO_STAMP_YET ? "no stamp" : "stamp " + std::to_string(stamp);
}

std::string delivery_text(const World& before) {
    const Channel& served = before.connections[0];
    const std::string stamp = stamp_name(served.stamp);
    if (!served.is_push) {
        return "an answer with " + stamp +
               (served.stamp == before.of_slave.stamp ? ": equal"
                                                      : ": the list is emptied and asked for");
    }
    if (served.to_come != 0) {
        const auto first = 1U << static_cast<unsigned>(std::countr_zero(served.to_come));
        return "a record of the push with " + stamp + ": client " +
               names_of(static_cast<Clients>(first));
    }
    return served.broken ? "the broken connection ends"
                         : "the closing record of the push with " + stamp +
                               " (clients: " + names_of(served.set) + ")";
}

std::string edit_text(const World& before, unsigned client) {
    const auto bit = static_cast<Clients>(1U << client);
    return "client " + names_of(bit) +
           ((before.of_master.clients & bit) != 0 ? " is removed on the master"
                                                  : " is added on the master");
}

std::string act_text(const World& before, const Event& event) {
    const std::string stamp = stamp_name(before.of_master.stamp);
    const std::string new_stamp = "list gets " + stamp_name(before.last_stamp + 1U);
    // clang-format off
    switch (event.act) {
        case EDIT:           return edit_text(before, event.argument);
        case NEW_STAMP:      return "the master's " + new_stamp;
        case SERVE:          return (before.datagrams[0] == Waiting::HEARTBEAT
                                         ? "the master answers a heartbeat with "
                                         : "the master pushes its list with ") + stamp;
        case SERVE_EDITED:   return "the master pushes its list with " + stamp +
                                    "; between stamp and records " +
                                    edit_text(before, event.argument) + ", whose " + new_stamp;
        case BEAT:           return "a heartbeat; it waits at the master";
        case RUN_OUT:        return "no answer until the bottle is empty";
        case FALL_SILENT:    return "no record for two seconds";
        case DELIVER:        return delivery_text(before);
        case DELIVER_SLOWLY: return delivery_text(before) + ", stored slowly while the bottle runs out";
        case REQUEST_LOST:   return delivery_text(before) + "; the request gets lost";
        case PAUSE:          return "no message for 50 ms: the records go to disk";
        case START_SLAVE:    return "the slave is started";
        case START_MASTER:   return "the master is started";
        case CUT:            return "the connection of the push breaks";
        case KILL_SLAVE:     return "the slave is killed";
        case STOP_SLAVE:     return "SIGTERM to the slave";
        case KILL_MASTER:    return "the master is killed";
        case RESTORE_BACKUP: return "the master gets its backup back, " +
                                    stamp_name(before.backup_stamp);
        case SWAP_ROLES:     return "both are stopped, and their roles are swapped";
        case END:            break;
    }
    // clang-format on
    return "";
}

}  // namespace

std::string text_of(const World& before, const Event& event) {
    constexpr const char* MISHAPS[] = {"", "; killed after step ", "; the disk refuses step ",
                                       "; the disk fails behind step "};
    return act_text(before, event) + MISHAPS[static_cast<unsigned>(event.mishap)] +
           (event.mishap == Mishap::NONE ? "" : std::to_string(event.at));
}

std::string text_of(const World& world) {
    const Disk& slave = world.of_slave;
    return "master: " + stamp_name(world.of_master.stamp) + ", clients " +
           names_of(world.of_master.clients) + "; slave: " + stamp_name(slave.stamp) +
           ", clients " + names_of(slave.clients) +
           (slave.kept == NO_LIST ? "" : ", kept " + names_of(slave.kept)) +
           (!world.slave_runs ? ", not running"
                              : std::string(", list ") + name_of(world.memory.state) +
                                    ", pushes due " + std::to_string(world.memory.due));
}
