#include "dhcpd_conf.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "keys.h"
#include "log.h"
#include "owned.h"
#include "resolve.h"
#include "services.h"
#include "store.h"

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using OwnedFile = std::unique_ptr<std::FILE, CloseFile>;

// Flushes and closes. Returns whether all that was written has arrived.
bool close_written(OwnedFile& file) {
    const bool failed = std::ferror(file.get()) != 0;
    const bool arrived = std::fclose(file.release()) == 0 && !failed;
    if (!arrived) {
        log_message(msg::DHCPD_CONF_NOT_WRITTEN, DHCPD_CONF);
    }
    return arrived;
}

void write_text(std::FILE* file, std::string_view text) {
    (void)std::fwrite(text.data(), 1, text.size(), file);  // failures show when it is closed
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

// Copies the lines up to the end of the subnet block, with `entry` in the place of the host's block
// so far. Returns whether there was one.
bool copy_with_entry(std::FILE* source, std::FILE* target, std::string_view host_name,
                     std::string_view entry) {
    bool replaced = false;
    bool skip_finished = false;
    char* buffer = nullptr;
    std::size_t capacity = 0;
    for (ssize_t length = 0; (length = getline(&buffer, &capacity, source)) > 0;) {
        const std::string_view line(buffer, static_cast<std::size_t>(length));
        if (line.front() == '}') {
            break;
        }
        if (replaced && !skip_finished) {
            skip_finished = line.find('}') != std::string_view::npos;
        } else if (!host_name.empty() && !replaced &&
                   line.find(host_name) != std::string_view::npos) {
            write_text(target, entry);
            replaced = true;
        } else {
            write_text(target, line);
        }
    }
    const OwnedText freed(buffer);
    return replaced;
}

void copy_file(std::FILE* source, std::FILE* target) {
    std::array<char, 4096> buffer;
    std::size_t count = 0;
    while ((count = std::fread(buffer.data(), 1, buffer.size(), source)) > 0) {
        write_text(target, {buffer.data(), count});
    }
}

OwnedFile open_logged(const char* mode) {
    OwnedFile file(std::fopen(DHCPD_CONF, mode));
    if (!file) {
        log_message(msg::DHCPD_CONF_UNREADABLE, DHCPD_CONF);
    }
    return file;
}

OwnedFile open_temporary() {
    OwnedFile file(std::tmpfile());
    if (!file) {
        log_message(msg::NO_TEMPORARY_FILE);
        return file;
    }
    (void)fcntl(fileno(file.get()), F_SETFD, FD_CLOEXEC);
    return file;
}

// Whether what was read and kept so far is whole: only then may it replace the file.
bool kept_whole(std::FILE* source, std::FILE* kept) {
    if (std::fflush(kept) != 0 || std::ferror(kept) != 0) {
        log_message(msg::NO_TEMPORARY_FILE);
        return false;
    }
    if (std::ferror(source) != 0) {
        log_message(msg::DHCPD_CONF_UNREADABLE, DHCPD_CONF);
        return false;
    }
    return true;
}

// Rewrites the file with `entry`. Returns whether it is all there.
bool put_entry(std::string_view host_name, std::string_view entry) {
    OwnedFile conf = open_logged("re");
    if (!conf) {
        return false;
    }
    const OwnedFile kept = open_temporary();
    if (!kept) {
        return false;
    }
    const bool replaced = copy_with_entry(conf.get(), kept.get(), host_name, entry);
    if (!kept_whole(conf.get(), kept.get())) {
        return false;
    }
    std::rewind(kept.get());
    conf = open_logged("we");
    if (!conf) {
        return false;
    }
    copy_file(kept.get(), conf.get());
    write_text(conf.get(), replaced ? "" : entry);
    write_text(conf.get(), "}");
    return close_written(conf);
}

}  // namespace

int write_dhcpd_conf() {
    OwnedFile conf(std::fopen(DHCPD_CONF, "we"));
    if (!conf) {
        log_message(msg::DHCPD_CONF_NOT_OPENED, DHCPD_CONF);
        return -1;
    }
    const NetworkSettings settings = read_settings();
    if (!settings.complete()) {
        return -1;
    }
    const std::string subnet = subnet_text(settings);
    log_message(msg::DHCPD_CONF_WRITTEN, DHCPD_CONF);
    write_text(conf.get(), HEAD);
    write_text(conf.get(), subnet);
    write_text(conf.get(), placeholder_text());
    return close_written(conf) ? 0 : -1;
}

int update_dhcp_host(const char* host_name, const char* pxe_info,
                     const unsigned char hardware_address[6], const char* fixed_address) {
    const unsigned char* mac = hardware_address;
    const std::string entry = fmt::format(
        "\thost {} {{\n"
        "\thardware ethernet {:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x};\n"
        "\tfixed-address {};\n"
        "\toption PXE.info \"{}\";\n"
        "\t}}\n",
        host_name, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], fixed_address, pxe_info);
    if (!put_entry(host_name, entry)) {
        return -1;
    }
    return restart_system_dhcpd().success ? 0 : -1;
}
