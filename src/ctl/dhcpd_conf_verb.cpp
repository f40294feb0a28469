// quorsyncctl dhcpd-conf: the system DHCP server's configuration.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "configured_role.h"
#include "console.h"
#include "dhcpd_conf.h"
#include "keys.h"
#include "owned.h"
#include "proc_info.h"
#include "session.h"
#include "store.h"
#include "verbs.h"

namespace {

using Mac = std::array<unsigned char, 6>;

struct Options {
    std::string name;
    std::string mac;
    std::string address;
    std::string pxe;
    bool force = false;
};

// What the configuration's syntax would take for something else. A backslash begins an escape.
bool has_syntax(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char byte) {
        return std::string_view("\"{}\\").find(byte) != std::string_view::npos ||
               (byte >= 0 && byte < ' ') || byte == '\x7f';
    });
}

Mac parse_mac(const std::string& text) {
    constexpr std::size_t STEP = 3;  // two digits and a colon
    Mac mac{};
    bool sound = text.size() == mac.size() * STEP - 1;
    for (std::size_t n = 0; sound && n < mac.size(); ++n) {
        const char* digits = text.data() + n * STEP;
        const auto [end, error] = std::from_chars(digits, digits + 2, mac[n], 16);
        sound = error == std::errc() && end == digits + 2 && (n + 1 == mac.size() || *end == ':');
    }
    if (!sound) {
        throw WrongUse("MAC", "\"" + text + "\" is not like 00:1e:4f:aa:0b:31");
    }
    return mac;
}

void check_address(const std::string& name, const std::string& address) {
    if (!is_dotted_address(address)) {
        throw WrongUse(name, "\"" + address + "\" is not a dotted IPv4 address");
    }
}

void check_text(const std::string& name, const std::string& text) {
    if (has_syntax(text)) {
        throw WrongUse(name,
                       "\"" + text + "\" contains a quote, brace, backslash or control character");
    }
}

// The lines of the subnet block, as the writer sees them, until `visit` returns true.
template <typename Visitor>
bool any_line(Visitor visit) {
    std::ifstream conf(DHCPD_CONF);
    for (std::string line; std::getline(conf, line) && !line.starts_with('}');) {
        if (visit(line)) {
            return true;
        }
    }
    return false;
}

bool begins_host(const std::string& line) {
    const std::size_t word = line.find_first_not_of(" \t");
    return word != std::string::npos && line.compare(word, 5, "host ") == 0;
}

// The writer replaces the block of the first line that holds the name, and a name may be a part of
// another client's.
void check_not_part_of_another(const std::string& name) {
    std::string found;
    any_line([&](const std::string& line) {
        found = line.find(name) == std::string::npos ? "" : line;
        return !found.empty();
    });
    if (!found.empty() && found != "\thost " + name + " {") {
        throw WrongUse("NAME", "\"" + name + "\" also stands in the line \"" + found + "\" of " +
                                   DHCPD_CONF + ", whose block would be replaced: choose another");
    }
}

void check_client(const Options& options) {
    check_text("NAME", options.name);
    if (options.name.find_first_of(" ;#") != std::string::npos || options.name.empty()) {
        throw WrongUse("NAME", "is empty or contains a blank, \";\" or \"#\"");
    }
    check_text("PXE", options.pxe);
    check_address("ADDRESS", options.address);
    check_not_part_of_another(options.name);
}

// A missing setting would leave an empty file, a wrong one keeps the server from starting.
int check_settings() {
    const std::array addresses = {KEY_DEFAULT_ADDRESS, KEY_NETMASK, KEY_GATEWAY, KEY_IP_BEGIN,
                                  KEY_IP_END};
    const std::array texts = {KEY_DNS_LIST, KEY_DOMAIN_NAME, KEY_BOOT_FILE};
    const auto value_of = [](const char* key) {
        return OwnedText(db_get(CONFIG_DB, key));
    };
    for (const char* key : addresses) {
        if (!is_dotted_address(text_of(value_of(key)))) {
            complain(
                "{}: {} is \"{}\", not a dotted IPv4 address; \"quorsyncctl store put {} ...\" "
                "sets it",
                CONFIG_DB, key, escape(text_of(value_of(key))), key);
            return EXIT_PROBLEM;
        }
    }
    for (const char* key : texts) {
        const OwnedText value = value_of(key);
        const bool missing = !value && key == KEY_DNS_LIST;
        if (missing || has_syntax(text_of(value))) {
            complain(
                "{}: {} is missing or contains a quote, brace, backslash or control character; "
                "\"quorsyncctl store put {} ...\" sets it",
                CONFIG_DB, key, key);
            return EXIT_PROBLEM;
        }
    }
    return EXIT_FINE;
}

int write_anew(const Options& options) {
    if (const int status = check_settings(); status != EXIT_FINE) {
        return status;
    }
    const bool has_clients = any_line([](const std::string& line) {
        return begins_host(line) && line.find(PLACEHOLDER_HOST) == std::string::npos;
    });
    if (has_clients && !options.force) {
        throw WrongUse(DHCPD_CONF,
                       "has entries of boot clients, which would be lost; --force writes it anew");
    }
    begin_changes();
    if (const std::string failure = replace_dhcpd_conf(); !failure.empty()) {
        complain("{}; is its file system full or read-only?", failure);
        return EXIT_PROBLEM;
    }
    say("{} is written; the server reads it when it is stopped and started", DHCPD_CONF);
    return EXIT_FINE;
}

int put_host(const Options& options) {
    const Mac mac = parse_mac(options.mac);
    check_client(options);
    if (access(DHCPD_CONF, R_OK | W_OK) != 0) {
        complain("{}: {}; \"quorsyncctl dhcpd-conf write\" makes it", DHCPD_CONF,
                 std::strerror(errno));
        return EXIT_PROBLEM;
    }
    begin_changes();
    const auto dying = processes_named("dhcpd");
    const DhcpHostUpdate update = [&] {
        const DetachedPrograms detached;
        return put_dhcp_host(options.name.c_str(), options.pxe.c_str(), mac.data(),
                             options.address.c_str());
    }();
    if (!update.failure.empty()) {
        complain("{}; is its file system full or read-only?", update.failure);
        return EXIT_PROBLEM;
    }
    if (!update.restarted) {
        complain("{} has the entry, but dhcpd reports a failure; \"dhcpd -t\" examines it",
                 DHCPD_CONF);
        return EXIT_PROBLEM;
    }
    if (!comes_to_run("dhcpd", true, dying)) {
        complain("{} has the entry, but dhcpd does not run; is it installed?", DHCPD_CONF);
        return EXIT_PROBLEM;
    }
    say("{}: {} is {}, the server was restarted", DHCPD_CONF, options.name, options.address);
    return EXIT_FINE;
}

}  // namespace

void add_dhcpd_conf(const Command& tool) {
    const Command verb =
        tool.command("dhcpd-conf", "Write the system DHCP server's configuration.")
            .notes(
                "The settings come from config.db: default_address, netmask, gateway, dns_list,\n"
                "ip_begin, ip_end, domain_name (localdomain) and boot_file (pxelinux.0).\n"
                "Examples:\n"
                "  quorsyncctl dhcpd-conf write\n"
                "  quorsyncctl dhcpd-conf host PC-A-00001 00:1e:4f:aa:0b:31 192.168.0.21 win11");
    const auto options = std::make_shared<Options>();
    verb.command("write", "Rewrite the file, without boot clients.")
        .flag("--force", options->force, "Even if entries of boot clients are lost")
        .runs([options] { return write_anew(*options); });
    verb.command("host", "Add or replace a boot client's entry, then restart the server.")
        .argument("NAME", options->name, "Name of the client")
        .argument("MAC", options->mac, "Its hardware address")
        .argument("ADDRESS", options->address, "The address that it gets")
        .argument("PXE", options->pxe, "Its PXE information text")
        .runs([options] { return put_host(*options); });
}
