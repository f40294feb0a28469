#include "ctl/forecast.h"
#include "support.h"

namespace {

using testing::HasSubstr;

TEST(Forecast, NamesEachServersRoleOnce) {
    const PairSettings settings{"enable", "A,B,C", "1,A*2,B*3,C", "B"};
    const std::vector<Forecast> forecasts = forecast_pair(settings);
    ASSERT_EQ(forecasts.size(), 3U);
    EXPECT_EQ(forecasts[0].text, "slave of B: first listed server");
    EXPECT_EQ(forecasts[1].text, "master: holds the address of 'master', B");
    EXPECT_EQ(forecasts[2].text, "no role, waits for ever: the master is B, the slave A");
    EXPECT_EQ(forecast_pair({"enable", "A,B", "1,A*2,B", "M*1"}).back().addresses, "M");
    EXPECT_THAT(forecast_role({"on", "A,B", "1,A*2,B", "B"}, "A").text, HasSubstr("'ha' is not"));
}

TEST(Forecast, FindsWhatIsWrongWithAServerList) {
    EXPECT_EQ(server_list_fault("10.0.0.1,10.0.0.2"), "");
    EXPECT_THAT(server_list_fault(""), HasSubstr("missing"));
    EXPECT_THAT(server_list_fault("10.0.0.1"), HasSubstr("fewer than two"));
    EXPECT_THAT(server_list_fault("10.0.0.1, 10.0.0.2"), HasSubstr("blank"));
    EXPECT_THAT(server_list_fault("10.0.0.1,10.0.0.256"), HasSubstr("\"10.0.0.256\""));
    EXPECT_THAT(server_list_fault("10.0.0.1,one"), HasSubstr("no dotted address"));
    EXPECT_THAT(server_list_fault("10.0.0.1,10.0.0.1"), HasSubstr("twice"));
}

}  // namespace
