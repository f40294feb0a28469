// The picture of a timeline: who served when, what is drawn of it, and the page.
#include <algorithm>

#include "ctl/characters.h"
#include "ctl/history/picture.h"
#include "ctl/history/picture_html.h"
#include "ctl/history/timeline.h"
#include "log.h"
#include "support.h"

namespace {

using std::chrono::hours;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const LogTime MIDNIGHT = *parse_since("2026-11-16", {});
const TimeRange DAY{MIDNIGHT, MIDNIGHT + hours(24)};

TimelineEvent event(EventKind kind, LogTime time, std::string text = "text") {
    return {kind, time, time, 1, std::move(text), {}, {}, {}, false, "line"};
}

ServerHistory slave_with(std::vector<TimelineEvent> events) {
    return {"10.77.0.2", "/var/log", {{BandKind::SLAVE, DAY.from, DAY.until}}, std::move(events)};
}

std::vector<std::string> described(const std::vector<RoleBand>& bands) {
    std::vector<std::string> texts;
    for (const RoleBand& band : bands) {
        texts.push_back(format_log_time(band.from).substr(14) + "-" +
                        format_log_time(band.until).substr(14) + " ");
        texts.back() += band_name(band.kind);
    }
    return texts;
}

TEST(RoleBands, TellWhoServedWhen) {
    Timeline timeline;
    const auto log = [&timeline](long second, const char* text, int level = LOG_DEBUG) {
        timeline.add({MIDNIGHT + seconds(second), level, text});
    };
    log(0, "bottle=2, status=71");  // the log begins in the middle
    log(2, "bottle=1, status=71");
    log(4, "bottle=2, status=71");
    log(6, "bottle=1, status=71");
    log(8, "bottle=0, status=71");
    log(8, "become a master host", LOG_INFO);
    log(10, "bottle=2, status=75");
    log(10, "restore to be a slave host", LOG_INFO);
    log(40, "quorsyncd start,master_ip:A,slave_ip:B", LOG_INFO);
    log(40, "quorsyncd_role:slave", LOG_INFO);
    log(41, "bottle=1, status=71");  // nothing was sent before it
    log(42, "slave exit line292", LOG_INFO);
    log(100, "ha :Enable");
    log(105, "ha :Enable");
    EXPECT_THAT(described(timeline.bands()),
                ElementsAre("00:00-00:08 slave", "00:08-00:10 acting master", "00:10-00:10 slave",
                            "00:10-00:40 nothing logged", "00:40-00:42 slave",
                            "00:42-01:45 stopped", "01:45-01:45 waits for a role"));
    const std::vector<TimelineEvent> missed = timeline.missed_beats();
    ASSERT_EQ(missed.size(), 2U);
    EXPECT_EQ(missed[0].count, 1);
    EXPECT_EQ(missed[1].text, "2 heartbeats without an answer");
    EXPECT_EQ(missed[1].time, MIDNIGHT + seconds(4));
}

TEST(Picture, ShowsWhatLiesInItsRangeWhereItHappened) {
    ServerHistory server = slave_with({event(EventKind::TROUBLE, DAY.from - seconds(1)),
                                       event(EventKind::TAKE_OVER, DAY.from + hours(6)),
                                       event(EventKind::TROUBLE, DAY.until + seconds(1))});
    server.bands = {{BandKind::WAITING, DAY.from - hours(9), DAY.from - hours(3)},
                    {BandKind::SLAVE, DAY.from - hours(3), DAY.from + hours(6)},
                    {BandKind::ACTING, DAY.from + hours(6), DAY.until + hours(1)}};
    const Picture picture = lay_out({server}, DAY);
    const Lane& lane = picture.lanes.front();
    ASSERT_EQ(lane.bands.size(), 2U);
    EXPECT_EQ(lane.bands[0].from, 0.0);
    EXPECT_EQ(lane.bands[0].to, 0.25);
    EXPECT_EQ(lane.bands[1].to, 1.0);
    EXPECT_THAT(lane.seconds, ElementsAre(std::pair(BandKind::SLAVE, 6L * 3600),
                                          std::pair(BandKind::ACTING, 18L * 3600)));
    ASSERT_EQ(lane.marks.size(), 1U);
    EXPECT_EQ(lane.marks.front().at, 0.25);
    EXPECT_EQ(picture.ticks.size(), 7U);
    EXPECT_EQ(picture.ticks[3].label, "12:00");
    EXPECT_EQ(picture.ticks[3].at, 0.5);
}

TEST(Picture, SummarisesABadDay) {
    std::vector<TimelineEvent> events;
    std::vector<RoleBand> bands;
    constexpr std::array KINDS = {EventKind::TROUBLE, EventKind::PUSH, EventKind::MISSED,
                                  EventKind::STEP_DOWN};
    constexpr std::size_t EVENTS = 20'000;
    for (std::size_t n = 0; n < EVENTS; ++n) {
        const LogTime time = DAY.from + seconds(n * 86'400 / EVENTS);
        events.push_back(event(KINDS.at(n % KINDS.size()), time, std::string(200, 'x')));
        bands.push_back({n % 2 == 0 ? BandKind::ACTING : BandKind::SLAVE, time, time});
    }
    const LogTime noon = DAY.from + hours(12) + seconds(7);
    events.push_back(event(EventKind::TAKE_OVER, noon));
    const ServerHistory server{"A", "/var/log", bands, events};
    const Picture picture = lay_out({server, server}, DAY);
    const std::vector<Mark>& marks = picture.lanes.front().marks;
    EXPECT_LE(marks.size(), 4 * 101U);
    EXPECT_LE(picture.lanes.front().bands.size(), 801U);
    EXPECT_LT(html_of(picture).size(), 1'200'000U);
    long count = 0;
    for (const Mark& mark : marks) {
        count += mark.count;
    }
    EXPECT_EQ(count, static_cast<long>(EVENTS) + 1);
    const auto take_over = std::find_if(marks.begin(), marks.end(), [](const Mark& mark) {
        return mark.kind() == EventKind::TAKE_OVER;
    });
    ASSERT_NE(take_over, marks.end());
    EXPECT_EQ(take_over->at, (12.0 * 3600 + 7) / 86'400);
    EXPECT_GT(take_over->untold, EVENTS / 1000);
}

TEST(Picture, OfADayAtRestIsSmall) {
    Timeline master;
    Timeline slave;
    for (LogTime time = DAY.from; time < DAY.until; time += seconds(2)) {
        master.add({time, LOG_DEBUG, "beat back to 10.77.0.2 :x"});
        slave.add({time, LOG_DEBUG, "bottle=2, status=71"});
    }
    std::vector<ServerHistory> servers;
    for (Timeline* timeline : {&master, &slave}) {
        servers.push_back({"A", "/var/log", timeline->bands(), timeline->finish()});
        EXPECT_EQ(timeline->bands().size(), 1U);
    }
    EXPECT_LT(html_of(lay_out(servers, range_of(servers, {}))).size(), 20'000U);
    EXPECT_EQ(range_of({}, DAY.from).from, DAY.from);
}

TEST(Picture, HasASignForEachKindOfEvent) {
    for (int n = 0; n <= static_cast<int>(EventKind::CHANGE); ++n) {
        const auto kind = static_cast<EventKind>(n);
        const std::string name(kind_name(kind));
        const std::string page = html_of(lay_out({slave_with({event(kind, DAY.from)})}, DAY));
        if (row_of(kind) && row_of(kind) != MarkRow::BEATS) {
            EXPECT_THAT(page, HasSubstr("id=\"s-" + name + "\"")) << name;
        }
        EXPECT_EQ(page.find("<li><svg class=\"m " + name) != std::string::npos,
                  row_of(kind).has_value())
            << name;
    }
}

TEST(Picture, ShowsAnyBytesAsText) {
    const std::string bytes = "<script>\"&'\x01\xff\xc3\xa4\xe2\x80\xae\n";
    ServerHistory server = slave_with({event(EventKind::TROUBLE, DAY.from, bytes)});
    server.name = server.directory = server.events.front().line = bytes;
    const std::string page = html_of(lay_out({server}, DAY));
    EXPECT_THAT(page, Not(HasSubstr("<script")));
    EXPECT_THAT(page,
                HasSubstr("&lt;script&gt;&quot;&amp;&#39;\\x01\\xff\xc3\xa4\\xe2\\x80\\xae\\x0a"));
    EXPECT_TRUE(is_utf8(page));
    EXPECT_THAT(page, Not(HasSubstr("\x01")));
}

}  // namespace
