// The part of `check` about settings and roles.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>

#include <array>
#include <utility>

#include "ctl/client_count.h"
#include "ctl/configured_role.h"
#include "ctl/setting_rules.h"
#include "data_sets.h"
#include "findings.h"
#include "keys.h"
#include "local_addresses.h"
#include "owned.h"
#include "peer_message.h"
#include "role.h"
#include "store.h"
#include "text.h"

namespace {

constexpr const char* BY_STORE_PUT = "set it with \"quorsyncctl store put {} {}\"";

// One line for a setting, with what is wrong with it, if anything is.
void add_setting(const char* key, const std::string& shown, const std::string& fault,
                 const char* example, Findings& findings) {
    if (fault.empty()) {
        findings.good(key, shown);
    } else {
        findings.problem(key, fault, fmt::format(BY_STORE_PUT, key, example));
    }
}

void check_ha(const PairSettings& settings, Findings& findings) {
    std::string fault = setting_fault(KEY_HA, settings.ha);
    if (settings.ha.empty()) {
        fault = "is missing";
    } else if (fault.empty() && settings.ha != HA_ENABLED) {
        fault = fmt::format("is \"{}\": the pair is switched off", settings.ha);
    }
    add_setting(KEY_HA, fmt::format("\"{}\"", settings.ha), fault, HA_ENABLED, findings);
}

void check_server_list(const PairSettings& settings, Findings& findings) {
    // One server is enough to store, but not for a pair.
    add_setting(KEY_SERVER_LIST, settings.server_list, server_list_fault(settings.server_list),
                "ADDRESS,ADDRESS", findings);
}

void check_master(const PairSettings& settings, Findings& findings) {
    const std::string fault = settings.master.empty() ? "is missing or empty"
                                                      : setting_fault(KEY_MASTER, settings.master);
    add_setting(KEY_MASTER, settings.master, fault, "ADDRESS", findings);
}

// Whether the kernel knows a way to `address`. Sends nothing.
bool has_route(const std::string& address) {
    const OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_addr.s_addr = inet_addr(address.c_str());
    target.sin_port = htons(PEER_PORT);
    return connect(fd.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0;
}

// What is wrong with one further address of the master; empty for nothing.
std::string path_fault(const std::string& path, const PairSettings& settings, bool seen,
                       const std::string& local) {
    if (std::string fault = setting_fault(KEY_MASTER_PATHS, path); !fault.empty()) {
        return fault;
    }
    if (path == settings.master) {
        return path + " is 'master' itself";
    }
    if (seen) {
        return path + " is listed twice";
    }
    if (list_has(local, path)) {
        return path + " is an address of this host, which is not the master";
    }
    return has_route(path) ? "" : path + " cannot be reached: no route";
}

void check_master_paths(const PairSettings& settings, const std::string& local,
                        Findings& findings) {
    const OwnedText list(db_get(CONFIG_DB, KEY_MASTER_PATHS));
    const std::string own = list_has(local, settings.master) ? std::string() : local;
    std::string seen;
    for (const std::string_view item : split(text_of(list), ',')) {
        const std::string path(item);
        add_setting(KEY_MASTER_PATHS, path, path_fault(path, settings, list_has(seen, path), own),
                    "ADDRESS,...", findings);
        seen += path + ",";
    }
}

// This host's own addresses, joined by ",".
std::string check_address(const PairSettings& settings, Findings& findings) {
    std::string local(text_of(OwnedText(local_ip_list())));
    if (local.empty()) {
        findings.problem("address", "no interface eth* that is up has an IPv4 address",
                         "bring one up; interfaces with other names are ignored");
        return local;
    }
    for (const std::string_view address : split(local, ',')) {
        if (list_has(settings.server_list, address)) {
            findings.good("address", fmt::format("{} is local and in 'server_list'", address));
            return local;
        }
    }
    findings.problem("address", fmt::format("{} is not in 'server_list'", local),
                     "add this host's address to the list, or give the host a listed address");
    return local;
}

void check_roles(const PairSettings& settings, const std::string& local, Findings& findings) {
    const ConfiguredRole own = configured_role(settings, local);
    if (own.decision.reason == RoleReason::DECIDED) {
        findings.good("role", fmt::format("this host: {}", own.text));
    } else {
        findings.problem("role", fmt::format("this host: {}", own.text),
                         "the daemon waits, and looks again every 5 s");
    }
    for (const ConfiguredRole& other : configured_roles(settings)) {
        if (list_has(local, other.addresses) || !is_dotted_address(other.addresses)) {
            continue;
        }
        const std::string text = fmt::format("{}: {}", other.addresses, other.text);
        if (other.decision.reason == RoleReason::DECIDED) {
            findings.good("role", text);
        } else if (other.decision.reason == RoleReason::NOT_IN_PAIR) {
            findings.warning("role", text, "a pair has two servers");
        }
    }
}

// A master without a stamp answers "null", always the same.
void check_stamps(Findings& findings) {
    for (const DataSet& set : DATA_SETS) {
        if (!OwnedText(db_get(CONFIG_DB, set.stamp_key))) {
            findings.warning(set.stamp_key,
                             "is missing: a slave fetches the set once and no later change",
                             fmt::format("\"quorsyncctl store bump {}\" creates one", set.name));
        }
    }
}

// The clients that a slave takes as soon as the stamps differ; without one here they do.
void check_master_clients(Findings& findings) {
    const std::string fault = client_list_fault();
    if (fault.empty() || stamped_client_count() == std::size_t{0}) {
        return;  // or it was given a stamp although it is empty
    }
    const std::string text = fmt::format("{} {}", CLIENT_DB, fault);
    if (OwnedText(db_get(CONFIG_DB, KEY_CLIENT_VERSION))) {
        findings.problem(
            "client list", text + ": a slave that fetches it loses clients",
            "\"quorsyncctl store restore\" puts a backup back, or the slave's list; if it "
            "is meant, \"quorsyncctl store bump client --force\"");
    } else {
        findings.warning(
            "client list", text + ": started like this, a master empties its slave",
            "on a new pair store the clients first; on a replaced server get them back, "
            "see \"The master's disk is lost\" in the guide");
    }
}

}  // namespace

void check_settings(Findings& findings) {
    const PairSettings settings = read_pair_settings();
    check_ha(settings, findings);
    check_server_list(settings, findings);
    check_master(settings, findings);
    const std::string local = check_address(settings, findings);
    check_master_paths(settings, local, findings);
    check_roles(settings, local, findings);
    if (configured_role(settings, local).decision.role == ROLE_MASTER) {
        check_stamps(findings);
        check_master_clients(findings);
    }
}
