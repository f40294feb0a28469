#include "ctl/configured_role.h"
#include "ctl/peer/agreement.h"
#include "support.h"

namespace {

using testing::HasSubstr;
using testing::Not;

TEST(ConfiguredRole, NamesEachServersRoleOnce) {
    const PairSettings settings{"enable", "A,B,C", "1,A*2,B*3,C", "B"};
    const std::vector<ConfiguredRole> roles = configured_roles(settings);
    ASSERT_EQ(roles.size(), 3U);
    EXPECT_EQ(roles[0].text, "slave of B: first listed server");
    EXPECT_EQ(roles[1].text, "master: holds the address of 'master', B");
    EXPECT_EQ(roles[2].text, "no role, waits for ever: the master is B, the slave A");
    EXPECT_EQ(configured_roles({"enable", "A,B", "1,A*2,B", "M*1"}).back().addresses, "M");
    EXPECT_THAT(configured_role({"on", "A,B", "1,A*2,B", "B"}, "A").text, HasSubstr("'ha' is not"));
}

TEST(ConfiguredRole, FindsWhatIsWrongWithAServerList) {
    EXPECT_EQ(server_list_fault("10.0.0.1,10.0.0.2"), "");
    EXPECT_THAT(server_list_fault(""), HasSubstr("missing"));
    EXPECT_THAT(server_list_fault("10.0.0.1"), HasSubstr("fewer than two"));
    EXPECT_THAT(server_list_fault("10.0.0.1, 10.0.0.2"), HasSubstr("blank"));
    EXPECT_THAT(server_list_fault("10.0.0.1,10.0.0.256"), HasSubstr("\"10.0.0.256\""));
    EXPECT_THAT(server_list_fault("10.0.0.1,one"), HasSubstr("not a dotted"));
    EXPECT_THAT(server_list_fault("10.0.0.1,10.0.0.1"), HasSubstr("twice"));
}

// What one setting on the peer makes of a pair.
std::string disagreement(const char* key, const char* value, const char* peer_address = "B") {
    const PairSide own{"A", {}, {{"ha", "enable"}, {"server_list", "A,B"}, {"master", "A"}}};
    PairSide peer{peer_address, {}, own.settings};
    peer.settings[key] = value;
    std::string told;
    for (const Disagreement& each : disagreements(own, peer)) {
        told += each.key + ": " + each.text + "\n";
    }
    return told;
}

TEST(Agreement, NamesWhatBothSidesContradictEachOtherIn) {
    EXPECT_EQ(disagreement("dsver", "1"), "");
    EXPECT_EQ(disagreement("master", "A*1"), "");
    EXPECT_EQ(disagreement("ha", "off"), "ha: \"enable\" here and \"off\" on B\n");
    EXPECT_THAT(disagreement("master", "B"), HasSubstr("\"B\" on B: two masters"));
    EXPECT_EQ(disagreement("server_list", "A,C"), "server_list: \"A,B\" here and \"A,C\" on B\n");
    EXPECT_THAT(disagreement("dsver", "1", "C"), Not(HasSubstr("role")))
        << "another address of B, perhaps";
}

}  // namespace
