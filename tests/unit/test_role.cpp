#include <cstdlib>

#include "keys.h"
#include "local_addresses.h"
#include "own_role.h"
#include "role.h"
#include "support.h"

namespace {

using enum RoleReason;

struct RoleCase {
    const char* name;
    const char* list;  // numbered
    const char* mine;
    const char* master;
    RoleReason reason;
    int role;
    const char* slave_ip;
};

const RoleCase ROLE_CASES[] = {
    {"first is master", "1,A*2,B", "A", "A", DECIDED, ROLE_MASTER, "B"},
    {"second is slave", "1,A*2,B", "B", "A", DECIDED, ROLE_SLAVE, "B"},
    {"second is master", "1,A*2,B", "B", "B", DECIDED, ROLE_MASTER, "B"},
    {"first is slave", "1,A*2,B", "A", "B", DECIDED, ROLE_SLAVE, "A"},
    {"third server as master", "1,A*2,B*3,C", "C", "C", DECIDED, ROLE_MASTER, "B"},
    {"second under the third", "1,A*2,B*3,C", "B", "C", NOT_IN_PAIR, 0, ""},
    {"master outside the list", "1,A*2,B", "M", "M", DECIDED, ROLE_MASTER, "B"},
    {"first, master outside", "1,A*2,B", "A", "M", DECIDED, ROLE_SLAVE, "A"},
    {"second, master outside", "1,A*2,B", "B", "M", NOT_IN_PAIR, 0, ""},
    {"one of several addresses", "1,A*2,B", "X,A,Y", "A", DECIDED, ROLE_MASTER, "B"},
    {"whole addresses only", "1,10.0.0.1*2,10.0.0.2", "10.0.0.11", "10.0.0.1", NOT_IN_PAIR, 0, ""},
    {"two reversed", "2,A*1,B", "A", "B", DECIDED, ROLE_SLAVE, "A"},
    {"lowest last", "2,A*3,B*1,C", "C", "A", DECIDED, ROLE_SLAVE, "C"},
    {"between the two", "1,A*3,B*2,C", "C", "A", DECIDED, ROLE_SLAVE, "C"},
    {"equal numbers change nothing", "1,A*2,B*2,C*1,D", "B", "A", DECIDED, ROLE_SLAVE, "B"},
    {"later entry without number", "1,A*2,B*C", "B", "A", DECIDED, ROLE_SLAVE, "B"},
    {"second entry without number", "1,A*B*3,C", "A", "A", SINGLE_SERVER, 0, ""},
    {"star in master", "1,A*2,B", "A", "A*7", DECIDED, ROLE_MASTER, "B"},
    {"star in master, slave", "1,A*2,B", "B", "A*7", DECIDED, ROLE_SLAVE, "B"},
    {"no list", "", "A", "A", NO_SERVER_LIST, 0, ""},
    {"no address", "1,A*2,B", "", "A", NO_LOCAL_ADDRESS, 0, ""},
    {"no master", "1,A*2,B", "A", "", NO_MASTER, 0, ""},
};

TEST(Role, FollowsFromListMasterAndAddresses) {
    for (const RoleCase& row : ROLE_CASES) {
        SCOPED_TRACE(row.name);
        const RoleDecision decision = decide_role({"enable", row.list, row.mine, row.master});
        EXPECT_EQ(decision.reason, row.reason);
        EXPECT_EQ(decision.role, row.role);
        EXPECT_EQ(decision.slave_ip, row.slave_ip);
    }
}

TEST(Role, NeedsHaEnabledToTheLetter) {
    for (const char* ha : {"", "Enable", "enabled", "enable ", "on"}) {
        EXPECT_EQ(decide_role({ha, "1,A*2,B", "A", "A"}).reason, HA_NOT_ENABLED) << ha;
    }
}

class Addresses : public WithFiles {
protected:
    // Two that count, and three that do not: no "eth", without an address, down.
    void SetUp() override {
        WithFiles::SetUp();
        ASSERT_EQ(std::system("set -e; for n in 0:bond0 1:eth2 3:eth4; do"
                              " ip link add eth${n%:*} type veth peer name ${n#*:}; done;"
                              " for n in eth0 bond0 eth1 eth3; do ip link set $n up; done;"
                              " for n in 0:eth0 1:bond0 3:eth3 4:eth4; do"
                              " ip addr add 10.9.${n%:*}.1/24 dev ${n#*:}; done"),
                  0);
    }
    void TearDown() override {
        EXPECT_EQ(std::system("for n in eth0 eth1 eth3; do ip link del $n; done"), 0);
    }
};

TEST_F(Addresses, OfEthInterfacesThatAreUpAreLocal) {
    const std::string list(text_of(OwnedText(local_ip_list())));
    EXPECT_TRUE(list == "10.9.0.1,10.9.3.1" || list == "10.9.3.1,10.9.0.1") << list;
    char own[12] = "unchanged";
    EXPECT_EQ(first_local_server_ip(own, sizeof own), -1);
    put(CONFIG_DB, KEY_SERVER_LIST, "10.9.1.1,10.9.4.1,127.0.0.1,10.9.0.11,10.9.0.");
    EXPECT_EQ(first_local_server_ip(own, sizeof own), -2);
    put(CONFIG_DB, KEY_SERVER_LIST, "10.9.1.1,,10.9.3.1,10.9.0.1");
    EXPECT_EQ(text_of(OwnedText(numbered_server_list())), "1,10.9.1.1*2,10.9.3.1*3,10.9.0.1");
    EXPECT_EQ(first_local_server_ip(own, sizeof own), 0);
    EXPECT_STREQ(own, "10.9.3.1");
}

TEST(IpInList, ComparesWholeItemsUpToAStar) {
    const struct {
        std::string address;
        const char* list;
        int found;
    } rows[] = {
        {"10.0.0.1", "10.0.0.2,10.0.0.1", 1}, {"10.0.0.1", "10.0.0.11,110.0.0.1", -1},
        {"10.0.0.1*x", "10.0.0.1", 1},        {"10.0.0.1", "10.0.0.1*x", -1},
        {"*10.0.0.1", "10.0.0.1", -1},        {"10.0.0.1", "", -1},
    };
    for (auto row : rows) {
        EXPECT_EQ(ip_in_list(row.address.data(), row.list), row.found)
            << row.address << " in " << row.list;
    }
}

}  // namespace
