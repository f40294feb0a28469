#include "role.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "keys.h"
#include "local_addresses.h"
#include "log.h"
#include "own_role.h"
#include "owned.h"
#include "state_page.h"
#include "store.h"
#include "text.h"

namespace {

constexpr unsigned RETRY_SECONDS = 5;

struct NumberedServer {
    int number;
    std::string address;
};

std::optional<NumberedServer> parse_entry(std::string_view entry) {
    const std::size_t comma = entry.find(',');
    if (comma == std::string_view::npos) {
        return std::nullopt;
    }
    return NumberedServer{leading_number(entry.substr(0, comma)),
                          std::string(entry.substr(comma + 1))};
}

// The two servers with the lowest numbers; nothing when the list has no two entries.
std::optional<std::pair<NumberedServer, NumberedServer>> lowest_two(const std::string& list) {
    const auto entries = split(list, '*');
    if (entries.size() < 2) {
        return std::nullopt;
    }
    auto first = parse_entry(entries[0]);
    auto next = parse_entry(entries[1]);
    if (!first || !next) {
        return std::nullopt;
    }
    if (next->number < first->number) {
        std::swap(first, next);
    }
    for (const std::string_view text : entries) {
        const auto entry = parse_entry(text);
        if (entry && entry->number < first->number) {
            next = std::exchange(first, entry);
        } else if (entry && entry->number > first->number && entry->number < next->number) {
            next = entry;
        }
    }
    return std::pair(*first, *next);
}

bool is_mine(const std::string& address, const RoleInputs& inputs) {
    return list_has(inputs.my_addresses, address);
}

// Why nothing can be decided yet from the values as they were read.
RoleReason missing_input(const RoleInputs& inputs) {
    if (inputs.ha != HA_ENABLED) {
        return RoleReason::HA_NOT_ENABLED;
    }
    if (inputs.numbered_list.empty()) {
        return RoleReason::NO_SERVER_LIST;
    }
    if (inputs.my_addresses.empty()) {
        return RoleReason::NO_LOCAL_ADDRESS;
    }
    if (!lowest_two(inputs.numbered_list)) {
        return RoleReason::SINGLE_SERVER;
    }
    return inputs.master.empty() ? RoleReason::NO_MASTER : RoleReason::DECIDED;
}

// Reads the inputs one after the other, only as far as each allows the next, and logs what is
// missing.
void read_inputs(RoleInputs& inputs) {
    inputs.ha = text_of(OwnedText(db_get(CONFIG_DB, KEY_HA)));
    log_message(msg::HA_SETTING, inputs.ha.c_str());
    if (missing_input(inputs) == RoleReason::HA_NOT_ENABLED) {
        return;
    }
    inputs.numbered_list = text_of(OwnedText(numbered_server_list()));
    log_message(msg::SERVER_LIST, inputs.numbered_list.c_str());
    if (missing_input(inputs) == RoleReason::NO_SERVER_LIST) {
        log_message(msg::NO_SERVER_LIST);
        return;
    }
    inputs.my_addresses = text_of(OwnedText(local_ip_list()));
    if (missing_input(inputs) == RoleReason::NO_LOCAL_ADDRESS) {
        log_message(msg::NO_LOCAL_ADDRESS);
        return;
    }
    if (missing_input(inputs) == RoleReason::SINGLE_SERVER) {
        return;
    }
    inputs.master = text_of(OwnedText(db_get(CONFIG_DB, KEY_MASTER)));
    if (missing_input(inputs) == RoleReason::NO_MASTER) {
        log_message(msg::NO_MASTER_SETTING);
    }
}

template <std::size_t N>
void copy_address(char (&field)[N], const std::string& address) {
    (void)std::snprintf(field, N, "%s", address.c_str());
}

}  // namespace

RoleDecision decide_role(const RoleInputs& inputs) {
    RoleDecision decision{missing_input(inputs), 0, {}, {}, {}};
    if (decision.reason != RoleReason::DECIDED) {
        return decision;
    }
    const auto servers = lowest_two(inputs.numbered_list);
    decision.first = servers->first.address;
    decision.next = servers->second.address;
    // Only what stands before a "*" is compared.
    const std::string master = inputs.master.substr(0, inputs.master.find('*'));
    const std::string& slave = master == decision.first ? decision.next : decision.first;
    if (is_mine(master, inputs)) {
        decision.role = ROLE_MASTER;
        decision.slave_ip = decision.next;  // also when that is the master itself
    } else if (is_mine(slave, inputs)) {
        decision.role = ROLE_SLAVE;
        decision.slave_ip = slave;
    } else {
        decision.reason = RoleReason::NOT_IN_PAIR;
    }
    return decision;
}

std::string numbered_list_of(std::string_view server_list) {
    std::string numbered;
    int number = 0;
    for (const std::string_view address : split(server_list, ',')) {
        numbered += numbered.empty() ? "" : "*";
        numbered += std::to_string(++number) + ",";
        numbered += address;
    }
    return numbered;
}

char* numbered_server_list() {
    const OwnedText list(db_get(CONFIG_DB, KEY_SERVER_LIST));
    return strdup(numbered_list_of(text_of(list)).c_str());
}

RoleDecision decide_own_role() {
    const auto text = [](char* taken) {
        return std::string(text_of(OwnedText(taken)));
    };
    return decide_role({text(db_get(CONFIG_DB, KEY_HA)), text(numbered_server_list()),
                        text(local_ip_list()), text(db_get(CONFIG_DB, KEY_MASTER))});
}

int determine_role() {
    for (;; sleep(RETRY_SECONDS)) {
        RoleInputs inputs;
        read_inputs(inputs);
        page::waits_for_role(static_cast<int>(missing_input(inputs)));
        if (missing_input(inputs) != RoleReason::DECIDED) {
            continue;
        }
        const RoleDecision decision = decide_role(inputs);
        log_message(msg::ROLE_SETTINGS, decision.first.c_str(), decision.next.c_str(),
                    inputs.my_addresses.c_str(), inputs.master.c_str());
        copy_address(master_ip, inputs.master);
        if (decision.reason == RoleReason::DECIDED) {
            copy_address(slave_ip, decision.slave_ip);
            page::takes_role(decision.role, master_ip, slave_ip);
            return decision.role;
        }
        page::waits_for_role(static_cast<int>(decision.reason));
    }
}
