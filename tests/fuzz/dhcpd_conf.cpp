// Any /etc/dhcpd.conf, as sites edit them by hand, with one host's entry put into it.
#include "dhcpd_conf.h"

#include "fuzz.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    begin_fuzzing(argc, argv);
    // Neither the machine's DHCP server nor any of its processes may be in reach.
    expect(mount("tmpfs", "/usr/sbin", "tmpfs", 0, "mode=755") == 0 &&
               mount("/bin/true", "/usr/bin/killall", nullptr, MS_BIND, nullptr) == 0,
           "a DHCP server of its own");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr unsigned char MAC[6] = {0x00, 0x1E, 0xAB, 0x00, 0x0F, 0xFF};
    constexpr std::string_view ENTRY =
        "\thost PC-A {\n"
        "\thardware ethernet 00:1e:ab:00:0f:ff;\n"
        "\tfixed-address 192.168.1.21;\n"
        "\toption PXE.info \"linux\";\n"
        "\t}\n";
    put_file(DHCPD_CONF, text_of(data, size));
    expect(update_dhcp_host("PC-A", "linux", MAC, "192.168.1.21") == 0, "an entry can be put");
    const std::string written = contents(DHCPD_CONF);
    expect(written.find(ENTRY) != std::string::npos, "the entry is there");
    expect(written.ends_with('}'), "the block is closed");
    expect(written.size() <= size + ENTRY.size() + 1, "nothing is doubled");
    return 0;
}
