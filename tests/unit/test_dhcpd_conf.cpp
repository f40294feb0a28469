#include <fmt/format.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "dhcpd_conf.h"
#include "keys.h"
#include "support.h"

namespace {

std::string golden(const std::string& name) {
    return contents(GOLDEN_FILES "/" + name);
}

// With a DHCP server that writes down how it was called, and no killall: the machine's own
// processes are in reach.
class DhcpdConf : public WithFiles {
protected:
    void SetUp() override {
        WithFiles::SetUp();
        ASSERT_EQ(mount("tmpfs", "/usr/sbin", "tmpfs", 0, "mode=755"), 0);
        ASSERT_EQ(mount("/bin/true", "/usr/bin/killall", nullptr, MS_BIND, nullptr), 0);
        write_program("/usr/sbin/dhcpd", "echo started >>/etc/quoradmind/dhcpd");
        for (const auto& [key, value] : SETTINGS) {
            put(CONFIG_DB, key, value);
        }
    }
    void TearDown() override {
        std::filesystem::remove(DHCPD_CONF);
        (void)umount2("/usr/bin/killall", MNT_DETACH);
        (void)umount2("/usr/sbin", MNT_DETACH);
    }

    static std::size_t starts() { return count_of(contents("/etc/quoradmind/dhcpd"), "started"); }

    // An entry as it stands in the file.
    static std::string entry(const std::string& name, const std::string& address) {
        return "\thost " + name + " {\n\thardware ethernet 00:1e:00:00:00:02;\n\tfixed-address " +
               address + ";\n\toption PXE.info \"\";\n\t}\n";
    }

    static constexpr std::array<std::pair<const char*, const char*>, 8> SETTINGS = {{
        {KEY_DEFAULT_ADDRESS, "192.168.1.10"},
        {KEY_NETMASK, "255.255.255.0"},
        {KEY_GATEWAY, "192.168.1.254"},
        {KEY_DNS_LIST, "192.168.1.10, 192.168.1.11"},
        {KEY_IP_BEGIN, "192.168.1.100"},
        {KEY_IP_END, "192.168.1.200"},
        {KEY_DOMAIN_NAME, "lab.example"},
        {KEY_BOOT_FILE, "/tftpboot/loader.0"},
    }};
};

constexpr unsigned char MAC_A[6] = {0x00, 0x1E, 0xAB, 0x00, 0x0F, 0xFF};
constexpr unsigned char MAC_B[6] = {0x00, 0x1E, 0x00, 0x00, 0x00, 0x02};
constexpr unsigned char MAC_NEW[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0A};

TEST_F(DhcpdConf, TheFileIsWrittenFromTheSettings) {
    write_file(DHCPD_CONF, std::string(5000, 'x'));
    EXPECT_EQ(write_dhcpd_conf(), 0);
    EXPECT_EQ(contents(DHCPD_CONF), golden("dhcpd_written.conf"));
    EXPECT_EQ(starts(), 0U);

    ASSERT_EQ(db_del(CONFIG_DB, KEY_DOMAIN_NAME), 0);
    ASSERT_EQ(db_del(CONFIG_DB, KEY_BOOT_FILE), 0);
    EXPECT_EQ(write_dhcpd_conf(), 0);
    EXPECT_THAT(contents(DHCPD_CONF),
                testing::HasSubstr("\t option domain-name \"localdomain\";\n"));
    EXPECT_THAT(contents(DHCPD_CONF), testing::HasSubstr("\t filename \"pxelinux.0\";\n"));

    // Without a setting that it needs the file is left empty.
    ASSERT_EQ(db_del(CONFIG_DB, KEY_IP_END), 0);
    EXPECT_EQ(write_dhcpd_conf(), -1);
    EXPECT_TRUE(std::filesystem::exists(DHCPD_CONF));
    EXPECT_EQ(contents(DHCPD_CONF), "");
}

TEST_F(DhcpdConf, EntriesAreAppendedAndReplaced) {
    ASSERT_EQ(write_dhcpd_conf(), 0);
    EXPECT_EQ(update_dhcp_host("PC-A", "win11;disk1", MAC_A, "192.168.1.21"), 0);
    EXPECT_EQ(update_dhcp_host("PC-B", "", MAC_B, "192.168.1.22"), 0);
    EXPECT_EQ(update_dhcp_host("PC-A", "linux", MAC_NEW, "192.168.1.31"), 0);
    EXPECT_EQ(contents(DHCPD_CONF), golden("dhcpd_replaced.conf"));
    EXPECT_EQ(starts(), 3U);

    write_program("/usr/sbin/dhcpd", "exit 1");
    EXPECT_EQ(update_dhcp_host("PC-B", "", MAC_B, "192.168.1.22"), -1);
    EXPECT_EQ(contents(DHCPD_CONF), golden("dhcpd_replaced.conf"));
}

TEST_F(DhcpdConf, AnEntryTakesThePlaceOfOneBlock) {
    const std::string other = entry("PC-10", "192.168.1.30");
    write_file(DHCPD_CONF, "subnet {\n" + entry("PC-1", "192.168.1.21") + other + "}\n");
    EXPECT_EQ(update_dhcp_host("PC-1", "", MAC_B, "192.168.1.31"), 0);
    EXPECT_EQ(contents(DHCPD_CONF), "subnet {\n" + entry("PC-1", "192.168.1.31") + other + "}");
}

// Long lines stay whole, and only a line that begins with a brace ends the block.
TEST_F(DhcpdConf, LinesOfAnyLengthAndFilesOfOthers) {
    const std::string line = "\t# " + std::string(508, '-') + "} PC-A's neighbour\n";
    write_file(DHCPD_CONF, "subnet {\n" + line + "}\nbehind the block\n");
    EXPECT_EQ(update_dhcp_host("PC-B", "", MAC_B, "192.168.1.22"), 0);
    EXPECT_EQ(contents(DHCPD_CONF), "subnet {\n" + line + entry("PC-B", "192.168.1.22") + "}");
    // A name is found anywhere, and what follows goes up to the next closing brace.
    EXPECT_EQ(update_dhcp_host("neighbour", "", MAC_B, "192.168.1.22"), 0);
    EXPECT_EQ(count_of(contents(DHCPD_CONF), "PC-"), 0U);
}

// Each reads the file and puts back a changed one: none may do so with what another has replaced.
TEST_F(DhcpdConf, ParallelCallersLoseNoEntry) {
    constexpr int CALLERS = 4;
    constexpr int HOSTS = 25;
    ASSERT_EQ(write_dhcpd_conf(), 0);
    const std::string head = contents(DHCPD_CONF).substr(0, contents(DHCPD_CONF).size() - 2);
    std::vector<pid_t> callers;
    for (int caller = 0; caller < CALLERS; ++caller) {
        callers.push_back(fork());
        if (callers.back() == 0) {
            int failed = 0;
            for (int host = 0; host < HOSTS; ++host) {
                const std::string name = fmt::format("PC-{}-{}-", caller, host);
                failed |= update_dhcp_host(name.c_str(), "", MAC_B, "192.168.1.22");
            }
            _exit(failed == 0 ? 0 : 1);
        }
    }
    for (const pid_t caller : callers) {
        int status = -1;
        EXPECT_EQ(waitpid(caller, &status, 0), caller);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(contents(DHCPD_CONF).starts_with(head));
    EXPECT_EQ(count_of(contents(DHCPD_CONF), "host PC-"), std::size_t{CALLERS * HOSTS});
    EXPECT_EQ(starts(), std::size_t{CALLERS * HOSTS});
}

// A site may keep the file elsewhere, and not for everybody's eyes.
TEST_F(DhcpdConf, LinkModeAndOwnerStay) {
    const std::string aim = "/usr/local/bin/conf";
    write_file(aim, "subnet {\n}\n");
    ASSERT_EQ(chown(aim.c_str(), 7, 8), 0);
    ASSERT_EQ(chmod(aim.c_str(), 0640), 0);
    std::filesystem::create_symlink(aim, DHCPD_CONF);
    EXPECT_EQ(write_dhcpd_conf(), 0);
    EXPECT_EQ(contents(aim), golden("dhcpd_written.conf"));
    struct stat status {};
    ASSERT_EQ(stat(aim.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 7U);
    EXPECT_EQ(status.st_gid, 8U);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_TRUE(std::filesystem::is_symlink(DHCPD_CONF));
}

TEST_F(DhcpdConf, WhatCannotBeOpenedIsLogged) {
    EXPECT_EQ(update_dhcp_host("PC-A", "", MAC_A, "192.168.1.21"), -1);
    EXPECT_THAT(logged(), testing::HasSubstr("INFO :read /etc/dhcpd.conf failed.\n"));
    std::filesystem::create_directory(DHCPD_CONF);
    EXPECT_EQ(write_dhcpd_conf(), -1);
    EXPECT_THAT(logged(), testing::HasSubstr("ERROR :open /etc/dhcpd.conf failed\n"));
    EXPECT_EQ(starts(), 0U);
    std::filesystem::remove(DHCPD_CONF);

    // A device would be replaced by a file.
    std::filesystem::create_symlink("/dev/full", DHCPD_CONF);
    EXPECT_EQ(write_dhcpd_conf(), -1);
    EXPECT_THAT(logged(), testing::HasSubstr("ERROR :write /etc/dhcpd.conf failed\n"));
    EXPECT_TRUE(std::filesystem::is_character_file(DHCPD_CONF));
}

}  // namespace
