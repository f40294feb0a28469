#include "dhcpd_conf.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "keys.h"
#include "log.h"
#include "owned.h"
#include "replace_file.h"
#include "resolve.h"
#include "services.h"
#include "store.h"

namespace {

// Held from before the file is read until the changed one is in place: otherwise a caller would
// bring back what another one has just changed. The file itself is no lock, since it is replaced,
// and this one ordinary users cannot hold.
constexpr const char* LOCK_FILE = "/etc/.dhcpd.conf.lock";

// Waits for whoever has it, without limit. An invalid descriptor when there can be none.
OwnedFd lock_conf() {
    OwnedFd lock(open(LOCK_FILE, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    while (lock.valid() && flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            lock.reset();
        }
    }
    return lock;
}

// The whole file, or nothing when it cannot be read.
std::optional<std::string> read_conf() {
    const OwnedFd file(open(DHCPD_CONF, O_RDONLY | O_CLOEXEC));
    std::string text;
    std::array<char, 4096> buffer;
    ssize_t count = 0;
    while ((count = read(file.get(), buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return count == 0 ? std::optional(text) : std::nullopt;
}

int write_whole(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return errno;
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    return 0;
}

// Puts `text` in the place of the contents, where mode and owner stay and a symbolic link leads.
// Returns why it did not, or an empty text.
std::string replace_contents(std::string_view text) {
    std::error_code missing;
    const std::filesystem::path target = std::filesystem::canonical(DHCPD_CONF, missing);
    struct stat old {};
    if (missing || stat(target.c_str(), &old) != 0 || !S_ISREG(old.st_mode)) {
        return log_failure(msg::DHCPD_CONF_NOT_WRITTEN, DHCPD_CONF);
    }
    bool created = false;
    const auto fill = [&](const std::string& fresh) {
        const OwnedFd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        created = file.valid();
        if (!created || fchown(file.get(), old.st_uid, old.st_gid) != 0 ||
            fchmod(file.get(), old.st_mode & 07777U) != 0) {
            return errno;
        }
        return write_whole(file.get(), text);
    };
    // A hidden name: "dhcpd.conf.new" may be an administrator's own.
    const std::string fresh = target.parent_path() / ("." + target.filename().string() + ".new");
    const Replacement result = replace_file_by(fresh, target, fill);
    if (!created) {
        return log_failure(msg::NO_TEMPORARY_FILE);
    }
    return result.error == 0 ? std::string() : log_failure(msg::DHCPD_CONF_NOT_WRITTEN, DHCPD_CONF);
}

struct NetworkSettings {
    OwnedText address, netmask, gateway, dns_list, ip_begin, ip_end;

    bool complete() const {
        return address && netmask && gateway && dns_list && ip_begin && ip_end;
    }
};

OwnedText setting(const char* key) {
    return OwnedText(db_get(CONFIG_DB, key));
}

std::string setting_or(const char* key, const char* fallback) {
    const OwnedText value = setting(key);
    return value ? value.get() : fallback;
}

NetworkSettings read_settings() {
    return {setting(KEY_DEFAULT_ADDRESS), setting(KEY_NETMASK),  setting(KEY_GATEWAY),
            setting(KEY_DNS_LIST),        setting(KEY_IP_BEGIN), setting(KEY_IP_END)};
}

std::string subnet_text(const NetworkSettings& settings) {
    const OwnedText network(
        ip_to_string(inet_addr(settings.address.get()) & inet_addr(settings.netmask.get())));
    const auto line = [](std::string_view name, std::string_view value) {
        return fmt::format("\t {} {};\n", name, value);
    };
    const std::string range = fmt::format("{} {}", settings.ip_begin.get(), settings.ip_end.get());
    return fmt::format("subnet {} netmask {} {{\n", network.get(), settings.netmask.get()) +
           line("option routers", settings.gateway.get()) +
           line("option subnet-mask", settings.netmask.get()) +
           line("option domain-name",
                fmt::format("\"{}\"", setting_or(KEY_DOMAIN_NAME, DEFAULT_DOMAIN_NAME))) +
           line("option domain-name-servers", settings.dns_list.get()) +
           line("range dynamic-bootp", range) + line("default-lease-time", "21600") +
           line("max-lease-time", "43200") + line("next-server", settings.address.get()) +
           line("filename", fmt::format("\"{}\"", setting_or(KEY_BOOT_FILE, DEFAULT_BOOT_FILE)));
}

constexpr std::string_view HEAD =
    "ddns-update-style interim;\n"
    "ignore client-updates;\n"
    "vendor-option-space PXE;\n"
    "option space PXE;\n"
    "option PXE.info code 301 = text;\n"
    "option PXE.info \"\";\n";

// The placeholder's entry and the end of the block.
std::string placeholder_text() {
    return fmt::format(
        "\t host {} {{\n"
        "\t\thardware ethernet 00:00:00:00:00:00;\n"
        "\t\tfixed-address 0.0.0.0;\n"
        "\t}}\n"
        "}}\n",
        PLACEHOLDER_HOST);
}

// The lines up to the end of the subnet block, with `entry` in the place of the host's block so
// far, or else behind them, and the end of the block.
std::string with_entry(std::string_view conf, std::string_view host_name, std::string_view entry) {
    std::string result;
    bool replaced = false;
    bool skip_finished = false;
    while (!conf.empty() && conf.front() != '}') {
        const std::size_t end = conf.find('\n');
        const std::string_view line = end == conf.npos ? conf : conf.substr(0, end + 1);
        conf.remove_prefix(line.size());
        if (replaced && !skip_finished) {
            skip_finished = line.find('}') != std::string_view::npos;
        } else if (!host_name.empty() && !replaced &&
                   line.find(host_name) != std::string_view::npos) {
            result += entry;
            replaced = true;
        } else {
            result += line;
        }
    }
    result += replaced ? "" : entry;
    return result + "}";
}

// Rewrites the file with `entry`. Returns why it did not, or an empty text.
std::string put_entry(std::string_view host_name, std::string_view entry) {
    const OwnedFd lock = lock_conf();
    const std::optional<std::string> conf = read_conf();
    if (!lock.valid() || !conf || access(DHCPD_CONF, W_OK) != 0) {
        return log_failure(msg::DHCPD_CONF_UNREADABLE, DHCPD_CONF);
    }
    return replace_contents(with_entry(*conf, host_name, entry));
}

}  // namespace

std::string replace_dhcpd_conf() {
    const OwnedFd lock = lock_conf();
    // A missing one is made, empty: what a symbolic link leads to must be there to be replaced.
    const OwnedFd conf(open(DHCPD_CONF, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (!lock.valid() || !conf.valid()) {
        return log_failure(msg::DHCPD_CONF_NOT_OPENED, DHCPD_CONF);
    }
    const NetworkSettings settings = read_settings();
    if (!settings.complete()) {
        // In place: of an empty file, nothing can be left half.
        return ftruncate(conf.get(), 0) == 0 ? "a network setting is missing"
                                             : log_failure(msg::DHCPD_CONF_NOT_WRITTEN, DHCPD_CONF);
    }
    log_message(msg::DHCPD_CONF_WRITTEN, DHCPD_CONF);
    return replace_contents(std::string(HEAD) + subnet_text(settings) + placeholder_text());
}

int write_dhcpd_conf() {
    return replace_dhcpd_conf().empty() ? 0 : -1;
}

DhcpHostUpdate put_dhcp_host(const char* host_name, const char* pxe_info,
                             const unsigned char hardware_address[6], const char* fixed_address) {
    const unsigned char* mac = hardware_address;
    const std::string entry = fmt::format(
        "\thost {} {{\n"
        "\thardware ethernet {:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x};\n"
        "\tfixed-address {};\n"
        "\toption PXE.info \"{}\";\n"
        "\t}}\n",
        host_name, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], fixed_address, pxe_info);
    DhcpHostUpdate update;
    update.failure = put_entry(host_name, entry);
    update.restarted = update.failure.empty() && restart_system_dhcpd().success;
    return update;
}

int update_dhcp_host(const char* host_name, const char* pxe_info,
                     const unsigned char hardware_address[6], const char* fixed_address) {
    return put_dhcp_host(host_name, pxe_info, hardware_address, fixed_address).restarted ? 0 : -1;
}
