// The part of `check` about settings and roles.
#include <fmt/format.h>

#include <array>
#include <utility>

#include "ctl/configured_role.h"
#include "data_sets.h"
#include "findings.h"
#include "keys.h"
#include "local_addresses.h"
#include "owned.h"
#include "role.h"
#include "store.h"
#include "text.h"

namespace {

constexpr const char* BY_STORE_PUT = "set it with \"quorsyncctl store put {} {}\"";

void check_ha(const PairSettings& settings, Findings& findings) {
    if (settings.ha == HA_ENABLED) {
        findings.good("ha", "\"enable\"");
        return;
    }
    findings.problem("ha",
                     settings.ha.empty()
                         ? "is missing"
                         : fmt::format("is \"{}\", not exactly \"{}\"", settings.ha, HA_ENABLED),
                     fmt::format(BY_STORE_PUT, KEY_HA, HA_ENABLED));
}

void check_server_list(const PairSettings& settings, Findings& findings) {
    const std::string fault = server_list_fault(settings.server_list);
    if (fault.empty()) {
        findings.good("server_list", settings.server_list);
    } else {
        findings.problem("server_list", fault,
                         fmt::format(BY_STORE_PUT, KEY_SERVER_LIST, "ADDRESS,ADDRESS"));
    }
}

void check_master(const PairSettings& settings, Findings& findings) {
    const std::string address = settings.master.substr(0, settings.master.find('*'));
    if (is_dotted_address(address)) {
        findings.good("master", settings.master);
    } else {
        findings.problem("master",
                         settings.master.empty()
                             ? "is missing or empty"
                             : fmt::format("\"{}\" is no dotted address", settings.master),
                         fmt::format(BY_STORE_PUT, KEY_MASTER, "ADDRESS"));
    }
}

// This host's own addresses, joined by ",".
std::string check_address(const PairSettings& settings, Findings& findings) {
    std::string local(text_of(OwnedText(local_ip_list())));
    if (local.empty()) {
        findings.problem("address", "no interface eth* that is up has an IPv4 address",
                         "bring one up; interfaces of other names do not count");
        return local;
    }
    for (const std::string_view address : split(local, ',')) {
        if (list_has(settings.server_list, address)) {
            findings.good("address", fmt::format("{} is local and listed", address));
            return local;
        }
    }
    findings.problem("address", fmt::format("{} is not in 'server_list'", local),
                     "list the address of this host, or give it a listed one");
    return local;
}

void check_roles(const PairSettings& settings, const std::string& local, Findings& findings) {
    const ConfiguredRole own = configured_role(settings, local);
    if (own.decision.reason == RoleReason::DECIDED) {
        findings.good("role", fmt::format("this host: {}", own.text));
    } else {
        findings.problem("role", fmt::format("this host: {}", own.text),
                         "until that changes the daemon tries again every 5 s, without a word");
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
                             "is missing: a slave fetches the set once and no change of it",
                             fmt::format("\"quorsyncctl store bump {}\" makes one", set.name));
        }
    }
}

}  // namespace

void check_settings(Findings& findings) {
    const PairSettings settings = read_pair_settings();
    check_ha(settings, findings);
    check_server_list(settings, findings);
    check_master(settings, findings);
    const std::string local = check_address(settings, findings);
    check_roles(settings, local, findings);
    if (configured_role(settings, local).decision.role == ROLE_MASTER) {
        check_stamps(findings);
    }
}
