#include <initializer_list>

#include "ctl/history/log_reader.h"
#include "ctl/history/timeline.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* DAY = "2026-11-16 ";

// "03:00:02 INFO :text" as the daemon writes it, without the newline.
std::string stamped(const std::string& line) {
    return "quorsyncd:2.1 " + (DAY + line);
}

Timeline timeline_of(const std::vector<std::string>& lines) {
    Timeline timeline;
    for (const std::string& line : lines) {
        const std::string whole = stamped(line);
        const auto message = parse_log_line(whole);
        EXPECT_TRUE(message) << line;
        timeline.add(*message);
    }
    return timeline;
}

// "03:00:02 take-over: text", with "x3" behind the kind of what came three times.
std::vector<std::string> told(std::vector<TimelineEvent> events) {
    std::vector<std::string> texts;
    for (const TimelineEvent& event : events) {
        std::string text = format_log_time(event.time).substr(11) + " ";
        text += kind_name(event.kind);
        text += event.count > 1 ? " x" + std::to_string(event.count) : "";
        texts.push_back(text + ": " + event.text);
    }
    return texts;
}

std::vector<std::string> told(const std::vector<std::string>& lines) {
    return told(timeline_of(lines).finish());
}

std::string beat(const std::string& time, int bottle, int status) {
    return time + " DEBUG :bottle=" + std::to_string(bottle) + ", status=" + std::to_string(status);
}

std::string clock_text(int seconds) {
    return format_log_time(LogTime(std::chrono::seconds(seconds))).substr(11);
}

const std::vector<std::string> SLAVE_START = {
    "03:00:00 DEBUG :ha :enable",
    "03:00:00 DEBUG :server_list:1,A*2,B",
    "03:00:00 DEBUG :first_ip:A,next_ip:B,my_ip:B,db_master:A",
    "03:00:00 INFO :quorsyncd start,master_ip:A,slave_ip:B",
    "03:00:00 INFO :quorsyncd_role:slave",
};

TEST(Timeline, TellsWhyAHostWaitsForARole) {
    const std::string ha = " DEBUG :ha :enable";
    const std::string list = " DEBUG :server_list:1,A*2,B";
    EXPECT_THAT(
        told({"01:00:00 DEBUG :ha :Enable", "01:00:05 DEBUG :ha :Enable", "01:00:10" + ha,
              "01:00:10 DEBUG :server_list:", "01:00:10 INFO :get server address list failed",
              "01:00:15" + ha, "01:00:15 DEBUG :server_list:1,A", "01:00:20" + ha,
              "01:00:20" + list, "01:00:20 INFO :get myself IP address failed", "01:00:25" + ha,
              "01:00:25" + list, "01:00:25 ERROR :get db_master faile.", "01:00:30" + ha,
              "01:00:30" + list, "01:00:30 DEBUG :first_ip:A,next_ip:B,my_ip:C,db_master:A"}),
        ElementsAre(
            "01:00:00 waiting x2: waits for a role: 'ha' is not exactly \"enable\" but \"Enable\"",
            "01:00:10 waiting: waits for a role: 'server_list' is missing or empty",
            "01:00:15 waiting: waits for a role: 'server_list' holds fewer than two servers",
            "01:00:20 waiting: waits for a role: no interface eth* that is up has an address",
            "01:00:25 waiting: waits for a role: 'master' is missing or empty",
            "01:00:30 waiting: waits for a role: this host is neither the master nor the server "
            "that is the slave"));
}

TEST(Timeline, MeasuresTakeOverFromTheLastAnswer) {
    std::vector<std::string> lines = SLAVE_START;
    for (const auto& line :
         {beat("03:00:00", 1, 71), beat("03:00:02", 2, 71), beat("03:00:04", 2, 71),
          beat("03:00:06", 1, 71), beat("03:00:08", 0, 71), beat("03:00:10", -1, 71),
          "03:00:10 INFO :become a master host"s, beat("03:00:12", -2, 75), beat("03:00:14", 2, 75),
          "03:00:14 INFO :restore to be a slave host"s, "03:00:20 INFO :slave exit line292"s}) {
        lines.push_back(line);
    }
    Timeline timeline = timeline_of(lines);
    EXPECT_THAT(
        told(timeline.finish()),
        ElementsAre("03:00:00 start: starts as slave (master A, slave B)",
                    "03:00:02 last-answer: the master's last answer",
                    "03:00:10 take-over: takes over 6 to 8 s after the master's last answer",
                    "03:00:14 step-down: steps down: the master answers again, after 4 s "
                    "as acting master",
                    "03:00:20 stop: stops its work on request; its process stays"));
    EXPECT_FALSE(timeline.state().acting);
    EXPECT_TRUE(timeline.state().stop);
}

TEST(Timeline, TellsOtherTakeOversAndWhatTheyLeaveBehind) {
    std::vector<std::string> lines = SLAVE_START;
    lines.push_back(beat("03:00:00", 1, 71));
    lines.push_back("03:00:04 INFO :become a master host");
    lines.push_back("03:01:00 INFO :quorsyncd start,master_ip:A,slave_ip:B");
    lines.push_back("03:01:00 INFO :start_data_syncd CLIENT");
    lines.push_back("03:01:07 INFO :become a master host");
    const auto texts = told(lines);
    ASSERT_EQ(texts.size(), 5U);
    EXPECT_THAT(texts[1], HasSubstr("takes over: no answer since the start 4 s before"));
    EXPECT_THAT(texts[2], HasSubstr("ended as acting master without stopping its boot services"));
    EXPECT_THAT(texts[4], HasSubstr("while the client set was on its way"));
}

TEST(Timeline, CallsFlappingByItsName) {
    std::vector<std::string> lines;
    for (const int start : {0, 100, 200, 300, 2000, 2100}) {
        lines.push_back(clock_text(start) + " INFO :become a master host");
        lines.push_back(clock_text(start + 20) + " INFO :restore to be a slave host");
    }
    std::vector<std::string> flapping;
    for (const std::string& text : told(lines)) {
        if (text.find("flapping") != std::string::npos) {
            flapping.push_back(text);
        }
    }
    EXPECT_THAT(
        flapping,
        ElementsAre(testing::StartsWith("00:00:00 flapping x4: flapping: 4 take-overs in 300 s")));
}

// What a slave logs of one client set.
void add_sync(std::vector<std::string>& lines, int start, const std::string& stamp, int records,
              bool whole) {
    lines.push_back(clock_text(start) + " INFO :start_data_syncd CLIENT");
    lines.push_back(clock_text(start) +
                    " INFO :func:data_sync_trigger line105 client_version:old, "
                    "master_client_version:" +
                    stamp);
    for (int n = 0; n < records; ++n) {
        lines.push_back(clock_text(start) + " INFO :data 2: MAC" + std::to_string(n) + "=v");
    }
    if (whole) {
        lines.push_back(clock_text(start + 2) + " INFO :data 2: dbver=" + stamp);
    }
}

TEST(Timeline, CountsTheRecordsOfASync) {
    std::vector<std::string> lines;
    add_sync(lines, 0, "one", 10, true);
    add_sync(lines, 10, "two", 3, false);
    add_sync(lines, 12, "two", 6, true);
    // The way back from a take-over begins anew.
    lines.push_back("00:00:20 INFO :become a master host");
    lines.push_back("00:00:22 INFO :restore to be a slave host");
    add_sync(lines, 24, "two", 9, true);
    lines.push_back(
        "00:00:26 ERROR :client_db_version not stored: the previous client list was "
        "put back");
    lines.push_back("00:59:00 INFO :data ");  // cut off by a full disk
    lines.push_back("01:00:00 INFO :data 1: dhcpcfg=x");
    lines.push_back("01:00:00 INFO :data 1: dbver=three");
    lines.push_back(
        "01:00:00 ERROR :config_db_version not stored: a record of its set could not be stored");
    EXPECT_THAT(
        told(lines),
        ElementsAre("00:00:00 sync: client set received: 10 records in 2 s, 5/s, stamp one",
                    "00:00:10 sync: client set received: 3 records, never came to its end, stamp "
                    "two",
                    "00:00:12 sync: client set received: 6 records in 2 s, 3/s, stamp two, "
                    "attempt 2",
                    HasSubstr("take-over: takes over"), HasSubstr("step-down: "),
                    "00:00:24 sync: client set received: 9 records in 2 s, 4/s, stamp two, but "
                    "its stamp not stored: the previous client list was put back",
                    HasSubstr("00:00:26 trouble: client_db_version not stored"),
                    "01:00:00 sync: config set received: 1 record in less than a second, stamp "
                    "three, but its stamp not stored: a record of its set could not be stored",
                    testing::StartsWith("01:00:00 trouble: config_db_version not stored")));
}

TEST(Timeline, CallsEndlessReSyncByItsName) {
    std::vector<std::string> lines;
    for (int n = 0; n < 5; ++n) {
        add_sync(lines, 2 * n, "same", 2, false);
    }
    for (int n = 0; n < 5; ++n) {
        add_sync(lines, 7200 + 4 * n, "same", 2, true);
    }
    EXPECT_THAT(told(lines),
                ElementsAre("00:00:00 re-sync x5: endless re-sync: client set asked for again and "
                            "again, and never to its end, stamp same",
                            "02:00:00 re-sync x5: endless re-sync: client set asked for again and "
                            "again, though it came to its end each time, stamp same"));
}

TEST(Timeline, TakesRequestsOfOneMomentForOneAttempt) {
    std::vector<std::string> lines;
    add_sync(lines, 0, "one", 0, false);
    add_sync(lines, 0, "one", 0, false);
    add_sync(lines, 1, "one", 0, false);
    for (int n = 0; n < 3; ++n) {
        lines.push_back("00:00:02 INFO :data 2: MAC=v");
        lines.push_back("00:00:02 INFO :data 2: dbver=one");
    }
    EXPECT_THAT(told(lines), ElementsAre("00:00:00 sync: client set received: 1 record in less "
                                         "than a second, stamp one"));
}

TEST(Timeline, TellsConfigSetsThatNeverEnd) {
    const auto asked = [](int start) {
        return std::vector<std::string>{clock_text(start) + " INFO :start_data_syncd CONFIG",
                                        clock_text(start) + " INFO :data 1: dhcpcfg=x"};
    };
    const std::string one = "00:00:00 sync: config set received: 1 record, never came to its end";
    EXPECT_THAT(told(asked(0)), ElementsAre(one));
    std::vector<std::string> lines = asked(0);
    lines.push_back("00:00:01 INFO :quorsyncd start,master_ip:A,slave_ip:B");
    EXPECT_THAT(told(lines), ElementsAre(one, HasSubstr("00:00:01 start: ")));
    lines.clear();
    for (int n = 0; n < 5; ++n) {
        const auto more = asked(2 * n);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    EXPECT_THAT(told(lines),
                ElementsAre("00:00:00 re-sync x5: endless re-sync: config set asked for again and "
                            "again, and never to its end, stamp unknown"));
}

TEST(Timeline, TellsWhatAMasterSends) {
    EXPECT_THAT(
        told({"02:00:00 DEBUG :send client data", "02:00:00 DEBUG :db:1",
              "02:00:00 DEBUG : send data: ha = enable", "02:00:00 DEBUG : send data: dhcpcfg = x",
              "02:00:00 DEBUG : send data: dbver = one", "02:00:00 DEBUG :db:2",
              "02:00:00 DEBUG : send data: MAC = v", "02:00:00 DEBUG : send data: LONG = v",
              "02:00:00 ERROR :record too long, not sent: LONG (key 4 bytes, value 1024 bytes)",
              "02:00:00 DEBUG : send data: MAC2 = v", "02:00:00 ERROR :send data error:Broken pipe",
              "02:00:01 DEBUG : send data: dbver = two"}),
        testing::UnorderedElementsAre(
            "02:00:00 push: config set sent: 1 record in less than a second, stamp one",
            "02:00:00 push: client set sent: 2 records in 1 s, 2/s, stamp two, 1 of them lost",
            "02:00:00 trouble: record too long, not sent: LONG (key 4 bytes, value 1024 bytes)",
            "02:00:00 trouble: send data error:Broken pipe"));
}

TEST(Timeline, TellsFetches) {
    std::vector<std::string> lines;
    for (const char* end : {"ERROR :Connect error Connection refused ---src/x---f---43",
                            "ERROR :Client.GetServerFile nRet:-1 --src/syncd--82",
                            "DEBUG :refresh_dhcp", "DEBUG :refresh_dhcp", "DEBUG :refresh_dhcp"}) {
        if (!std::string_view(end).starts_with("ERROR :Client")) {
            lines.push_back("02:00:00 INFO :serverip:A --add_to_sync_config_db--59");
            lines.push_back("02:00:00 INFO :Arg->op:1 --SyncQueueProcessor--74");
        }
        lines.push_back("02:00:00 "s + end);
    }
    EXPECT_THAT(told(lines),
                ElementsAre("02:00:00 fetch: config.db of A could not be fetched: Connect error "
                            "Connection refused",
                            "02:00:00 re-sync x3: endless re-sync: config.db of A fetched, though "
                            "its 'dsver' never comes to equal the copy's"));
}

TEST(Timeline, TellsACopyThatCouldNotBePutInPlaceAsAFailure) {
    const std::string failure =
        "02:00:01 ERROR :/etc/quoradmind/A.db cannot be put in place:No space left on device";
    EXPECT_THAT(told({"02:00:00 INFO :serverip:A --add_to_sync_config_db--59",
                      "02:00:00 INFO :Arg->op:256 --SyncQueueProcessor--74", failure,
                      "02:00:01 DEBUG :refresh_dhcp"}),
                ElementsAre("02:00:01 fetch: config.db of A could not be fetched: "
                            "/etc/quoradmind/A.db cannot be put in place:No space left on device"));
    EXPECT_THAT(told({"02:00:00 INFO :serverip:A --add_to_sync_config_db--59",
                      "02:00:00 INFO :Arg->op:256 --SyncQueueProcessor--74",
                      "02:00:01 ERROR :A.db not replaced, the download does not verify:x"}),
                ElementsAre(HasSubstr("could not be fetched: A.db not replaced, the download")));
    // By the tool, or an old one: nobody fetches.
    EXPECT_THAT(told({failure}), ElementsAre(HasSubstr("trouble: /etc/quoradmind/A.db cannot be")));
}

TEST(Timeline, GroupsTroubles) {
    std::vector<std::string> lines;
    for (int n = 0; n < 20; ++n) {
        lines.push_back(clock_text(2 * n) + " ERROR :sendto error:Broken pipe");
        lines.push_back(clock_text(2 * n) + " ERROR :record too long, not sent: " +
                        std::string(std::size_t(n), 'k') + " (key 4 bytes, value 1024 bytes)");
    }
    lines.push_back("01:00:00 ERROR :sendto error:Broken pipe");
    lines.push_back("01:00:00 INFO :Bind error:Address already in use");
    lines.push_back("01:00:00 INFO :a word that nobody asked for");
    const auto texts = told(lines);
    EXPECT_THAT(texts[0], HasSubstr("trouble x20: sendto error:Broken pipe"));
    EXPECT_LT(texts.size(), 12U);  // not one for each record
    EXPECT_THAT(texts[texts.size() - 2], HasSubstr("01:00:00 trouble: sendto error"));
    EXPECT_THAT(texts.back(), HasSubstr("01:00:00 trouble: Bind error"));
}

TEST(Timeline, NoticesStandstillAndAClockThatWasSet) {
    EXPECT_THAT(told({beat("03:00:00", 2, 71), beat("03:00:30", 1, 71), beat("02:00:00", 2, 71),
                      "01:59:59 INFO :of another thread"}),
                ElementsAre("02:00:00 clock: the clock was set back by 3630 s",
                            testing::StartsWith("03:00:00 silence: no heartbeat for 30 s")));
}

TEST(Timeline, JudgesWhetherThePairIsInSync) {
    const LogTime now = *parse_since("2026-11-16 03:00:10", {});
    const auto verdict = [now](const std::vector<std::string>& lines) {
        Timeline timeline = timeline_of(lines);
        (void)timeline.finish();
        return judge_sync(timeline.state(), now).verdict;
    };
    const std::string first = beat("03:00:06", 2, 71);
    const std::string second = beat("03:00:08", 2, 71);
    const std::string trigger = "03:00:08 INFO :start_data_syncd CLIENT";
    const std::string stamp = "03:00:08 INFO :data 2: dbver=x";
    const std::string unread =
        "03:00:08 ERROR :own version stamps cannot be read, nothing asked for";
    const std::string stop = "03:00:09 INFO :slave exit line292";
    const std::string back = "03:00:08 DEBUG :beat back to A :1#2";
    EXPECT_EQ(verdict({}), InSync::CANNOT_TELL);
    EXPECT_EQ(verdict({first}), InSync::CANNOT_TELL);
    EXPECT_EQ(verdict({first, second}), InSync::YES);
    EXPECT_EQ(verdict({first, second, trigger}), InSync::NO);
    EXPECT_EQ(verdict({first, second, trigger, stamp}), InSync::CANNOT_TELL);
    EXPECT_EQ(verdict({first, second, beat("03:00:08", -5, 75)}), InSync::CANNOT_TELL);
    EXPECT_EQ(verdict({beat("02:59:00", 2, 71), beat("02:59:02", 2, 71)}), InSync::CANNOT_TELL);
    EXPECT_EQ(verdict({first, unread, second, unread}), InSync::CANNOT_TELL);
    EXPECT_EQ(verdict({first, second, stop}), InSync::CANNOT_TELL);
    EXPECT_EQ(verdict({back, back}), InSync::YES);
    EXPECT_EQ(verdict({back, back, "03:00:08 DEBUG :db:2"}), InSync::NO);
    EXPECT_EQ(verdict({back, back, "03:00:08 ERROR :sendto error:x"}), InSync::CANNOT_TELL);
}

class LogFiles : public WithFiles {};

TEST_F(LogFiles, AreReadAcrossNewlinesAndForeignLines) {
    const std::string stop = stamped("03:00:20 INFO :slave exit line292");
    write_file("/var/log/quorsyncd_2026_11_16.log",
               "no message\n" + stamped("03:00:00 INFO :data 2: K=a\nb") + stop + "\n" +
                   std::string(3U << 20U, 'x') + "\n\n" + std::string(5000, '\0') +
                   "quorsyncd:2.1 2026-99-16 03:00:20 INFO :become a master host\n" +
                   stamped("03:00:21 INFO :a value with " + stop) + "\n" +
                   stamped("03:00:22 INFO :become a master host"));  // not ended yet
    write_file("/var/log/quorsyncd_2026_11_15.log",
               "quorsyncd:2.1 2026-11-15 23:59:59 INFO :quorsyncd_role:slave\n");
    write_file("/var/log/quorsyncd_2026_13_15.log", stop + "\n");
    History all = read_history("/var/log", {});
    EXPECT_EQ(all.failure, "");
    EXPECT_THAT(told(all.timeline.finish()),
                ElementsAre(HasSubstr("23:59:59 start"), HasSubstr("03:00:00 sync"),
                            HasSubstr("03:00:20 stop"), HasSubstr("03:00:22 take-over")));
    History later = read_history("/var/log", parse_since("2026-11-16 03:00:21", {}));
    EXPECT_EQ(later.failure, "");
    EXPECT_EQ(later.timeline.finish().size(), 1U);
    EXPECT_THAT(read_history("/etc/quoradmind", {}).failure, HasSubstr("holds no daily log"));
    EXPECT_THAT(read_history("/nowhere", {}).failure, HasSubstr("No such file"));
}

TEST(Since, IsUnderstoodAsOperatorsSayIt) {
    const LogTime now = *parse_since("2026-11-16 10:00:00", {});
    const auto text = [now](const char* since) {
        const auto time = parse_since(since, now);
        return time ? format_log_time(*time) : "none";
    };
    EXPECT_EQ(text("2026-11-16 03:00"), "2026-11-16 03:00:00");
    EXPECT_EQ(text("2026-11-16"), "2026-11-16 00:00:00");
    EXPECT_EQ(text("03:00"), "2026-11-16 03:00:00");
    EXPECT_EQ(text("2h"), "2026-11-16 08:00:00");
    EXPECT_EQ(text("3d"), "2026-11-13 10:00:00");
    EXPECT_EQ(text("today"), "2026-11-16 00:00:00");
    EXPECT_EQ(text("yesterday"), "2026-11-15 00:00:00");
    for (const char* wrong : {"", "h", "2", "2x", "-2h", "2026-02-30", "25:00", "soon"}) {
        EXPECT_EQ(text(wrong), "none") << wrong;
    }
}

}  // namespace
