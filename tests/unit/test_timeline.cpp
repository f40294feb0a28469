#include <fmt/format.h>
#include <zlib.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>

#include "ctl/history/log_reader.h"
#include "ctl/history/timeline.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Lines = std::vector<std::string>;

constexpr const char* DAY = "2026-11-16 ";
const LogTime MIDNIGHT = *parse_day("2026-11-16");

// "03:00:02 INFO :text" as the daemon writes it, without the newline.
std::string stamped(const std::string& line) {
    return "quorsyncd:2.1 " + (DAY + line);
}

Timeline timeline_of(const Lines& lines) {
    Timeline timeline;
    for (const std::string& line : lines) {
        const std::string whole = stamped(line);
        const auto message = parse_log_line(whole, MIDNIGHT);
        EXPECT_TRUE(message) << line;
        timeline.add(*message);
    }
    return timeline;
}

// "03:00:02 take-over: text", with "x3" behind the kind of what came three times.
Lines told(std::vector<TimelineEvent> events) {
    Lines texts;
    for (const TimelineEvent& event : events) {
        std::string text = format_log_time(event.time).substr(11) + " ";
        text += kind_name(event.kind);
        text += event.count > 1 ? " x" + std::to_string(event.count) : "";
        texts.push_back(text + ": " + event.text);
    }
    return texts;
}

// Each section of the file is a log, and behind "=>" what the timeline makes of it.
TEST(Timeline, TellsWhatTheLogsMean) {
    std::istringstream file(contents(GOLDEN_FILES "/timeline.txt"));
    int sections = 0;
    for (std::string title, line; std::getline(file, title); ++sections) {
        Lines lines;
        while (std::getline(file, line) && line != "=>") {
            lines.push_back(line);
        }
        Lines wanted;
        while (std::getline(file, line) && !line.empty()) {
            wanted.push_back(line);
        }
        EXPECT_EQ(told(timeline_of(lines).finish()), wanted) << title;
    }
    EXPECT_GT(sections, 10);
}

class LogFiles : public WithFiles {};

TEST_F(LogFiles, AreReadAcrossNewlinesAndForeignLines) {
    const std::string stop = stamped("03:00:20 INFO :slave exit line292");
    write_file("/var/log/quorsyncd_2026_11_16.log",
               "no message\n" + stamped("03:00:00 INFO :data 2: K=a\nb") + stop + "\n" +
                   std::string(3U << 20U, 'x') + "\n\n" + std::string(5000, '\0') +
                   "quorsyncd:2.1 2026-99-16 03:00:20 INFO :become a master host\n" +
                   "quorsyncd:2.1 2026-11-15 03:00:20 INFO :become a master host\n" +
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

TEST_F(LogFiles, TellNothingOfWhatStandsInAValue) {
    const std::string forged = stamped("03:00:10 INFO :become a master host\n");
    const std::string record = stamped("03:00:10 INFO :data 2: K=a\n");
    const std::string next = stamped("03:00:10 INFO :data 2: L=b\n");
    const std::string sent = stamped("03:00:10 DEBUG : send data: K = a\n");
    const std::string late = stamped("03:00:40 INFO :become a master host\n");
    const std::string closing = stamped("03:00:10 INFO :data 2: dbver=20261116030000\n");
    const std::string note = "a line of somebody else\n";
    const auto take_overs = [](const std::string& text) {
        write_file("/var/log/quorsyncd_2026_11_16.log", text);
        const Lines events = told(read_history("/var/log", {}).timeline.finish());
        return std::count_if(events.begin(), events.end(), [](const std::string& event) {
            return event.find("take-over") != std::string::npos ||
                   event.find("clock") != std::string::npos;
        });
    };
    EXPECT_EQ(take_overs(record + forged + "end" + next), 0);
    EXPECT_EQ(take_overs(record + forged + "end\n" + next), 0);
    EXPECT_EQ(take_overs(record + forged + forged + "end"), 0);
    for (const char* time : {"03:00:00", "03:01:00"}) {
        const std::string other = stamped(time + " INFO :become a master host\n"s);
        EXPECT_EQ(take_overs(sent + other + sent), 0) << time;
        EXPECT_EQ(take_overs(record + other + stamped("03:00:12 DEBUG :bottle=2, status=71\n")), 0);
    }
    // Messages of their own.
    EXPECT_EQ(take_overs(record + late), 1);
    EXPECT_EQ(take_overs(record + late + stamped("03:00:42 INFO :data 2: K=a\n") + note), 1);
    EXPECT_EQ(take_overs(closing + forged + note), 1);
    EXPECT_EQ(take_overs(sent + std::string(6000, 'x') + "\n" + forged + note), 1);
}

TEST_F(LogFiles, AreReadWhenRotatedAndPackedToo) {
    const auto text = [](const std::string& date, const std::string& server) {
        return "quorsyncd:2.1 " + date + " INFO :quorsyncd start,master_ip:" + server +
               ",slave_ip:S\n";
    };
    const auto pack = [](const std::string& path, const std::string& lines) {
        const gzFile file = gzopen(path.c_str(), "w");
        EXPECT_GT(gzwrite(file, lines.data(), static_cast<unsigned>(lines.size())), 0);
        gzclose(file);
    };
    write_file("/var/log/quorsyncd_2026_11_16.log", text("2026-11-16 09:00:00", "E"));
    write_file("/var/log/quorsyncd_2026_11_16.log.1", text("2026-11-16 08:00:00", "D"));
    pack("/var/log/quorsyncd_2026_11_16.log.2.gz", text("2026-11-16 07:00:00", "C"));
    pack("/var/log/quorsyncd_2026_11_15.log-20261117.gz", text("2026-11-15 07:00:00", "B"));
    pack("/var/log/quorsyncd_2026_11_14.log.1.gz", text("2026-11-14 07:00:00", "A"));
    pack("/var/log/quorsyncd_2026_11_16.log.1.gz", text("2026-11-16 08:00:00", "D"));
    write_file("/var/log/quorsyncd_2026_11_16.log.old", text("2026-11-16 01:00:00", "X"));
    write_file("/var/log/quorsyncd_2026_11_16.log.1x", text("2026-11-16 01:00:00", "X"));
    std::string masters;
    History all = read_history("/var/log", {});
    EXPECT_EQ(all.failure, "");
    for (const TimelineEvent& event : all.timeline.finish()) {
        masters += event.text.substr(event.text.find("master ") + 7, 1);
    }
    EXPECT_EQ(masters, "ABCDE");
    write_file("/var/log/quorsyncd_2026_11_13.log.gz", "\x1f\x8b\x08 torn");
    const std::string cut = "/var/log/quorsyncd_2026_11_14.log.1.gz";
    std::filesystem::resize_file(cut, std::filesystem::file_size(cut) - 1);
    all = read_history("/var/log", {});
    EXPECT_THAT(all.unread, ElementsAre(HasSubstr("11_13.log.gz cannot be read: Bad message"),
                                        HasSubstr("11_14.log.1.gz cannot be read: Bad message")));
    EXPECT_EQ(all.timeline.finish().size(), 5U) << "of the others, and of what is there";
}

TEST(Timeline, KnowsThatSummerTimeBegins) {
    setenv("TZ", "AAA0BBB,M11.3.1/3,M12.1.0", 1);  // on that day, at three
    tzset();
    Lines of_master;
    Lines of_slave;
    for (const char* time : {"02:59:54", "02:59:56", "02:59:58", "04:00:00", "04:00:02"}) {
        of_master.push_back(std::string(time) + " DEBUG :beat back to B :1#2");
        of_slave.push_back(std::string(time) + " DEBUG :bottle=2, status=71");
    }
    EXPECT_THAT(told(timeline_of(of_slave).finish()), ElementsAre());
    EXPECT_EQ(timeline_of(of_slave).bands().size(), 1U);
    Timeline timeline = timeline_of(of_master);
    EXPECT_THAT(told(timeline.finish()), ElementsAre());
    timeline.reach(MIDNIGHT + std::chrono::hours(4) + std::chrono::seconds(20));
    EXPECT_THAT(told(timeline.finish()),
                ElementsAre("04:00:02 slave-silent: no heartbeat of B for 18 s"));
    EXPECT_EQ(timeline.finish().size(), 1U);
    unsetenv("TZ");
    tzset();
}

TEST(Timeline, TellsTheEndOfSummerTimeFromAClockThatWasSetBack) {
    setenv("TZ", "AAA0BBB,M3.1.0,M11.3.1/3", 1);  // on that day, at three
    tzset();
    const auto clock_of = [](const char* from, const char* to) {
        Lines lines;
        for (const char* time : {from, to}) {
            lines.push_back(std::string(time) + " DEBUG :bottle=2, status=71");
        }
        return told(timeline_of(lines).finish());
    };
    EXPECT_THAT(clock_of("02:59:59", "02:00:00"), ElementsAre());
    EXPECT_THAT(clock_of("02:59:30", "02:00:20"), ElementsAre());
    const auto is_set_back = ElementsAre(HasSubstr("clock: the clock was set back by "));
    for (const char* to : {"02:58:00", "01:59:00", "02:02:00"}) {
        EXPECT_THAT(clock_of("02:59:59", to), is_set_back) << to;
    }
    EXPECT_THAT(clock_of("03:30:00", "02:30:00"), is_set_back) << "after it";
    EXPECT_THAT(clock_of("01:30:00", "00:30:00"), is_set_back) << "before it";
    unsetenv("TZ");
    tzset();
}

// A day of a slave: take-overs, client lists with forged lines, a clock that is wrong at ten for
// five minutes, and that is set back at noon.
std::string long_log() {
    std::string text;
    for (int minute = 10; minute < 24 * 60; ++minute) {
        const int wrong = minute / 5 == 120 ? 110 : minute < 12 * 60 ? 0 : -100;
        const int shown = minute + wrong;
        const std::string stamp =
            fmt::format("quorsyncd:2.1 {}{:02}:{:02}:00 ", DAY, shown / 60, shown % 60);
        if (minute % 240 == 120) {
            text += stamp + "INFO :become a master host\n";
        }
        if (minute % 240 == 160) {
            text += stamp + "INFO :restore to be a slave host\n";
        }
        for (int record = 0; record < 8; ++record) {
            text += fmt::format("{}INFO :data 2: MAC{}={:400}\n", stamp, record, "");
        }
        text += stamp + "INFO :data 2: MAC=a\n" + stamped("00:00:00 INFO :data 2: MAC=b\n");
        text += stamp + "INFO :data 2: dbver=1\n";
    }
    return text;
}

// What is told since a time, or of the last events, is what reading all comes to.
TEST_F(LogFiles, AreReadFromNearTheWantedTime) {
    write_file("/var/log/quorsyncd_2026_11_16.log", long_log());
    for (const int minute : {0, 180, 360, 540, 710, 720, 900, 1080, 1260}) {
        const LogTime since = MIDNIGHT + std::chrono::minutes(minute);
        Timeline wanted;
        DailyLog log = daily_logs("/var/log")->front();
        EXPECT_TRUE(visit_messages(log, [&](const LogMessage& message) {
            if (message.time >= since) {
                wanted.add(message);
            }
        }));
        EXPECT_EQ(told(read_history("/var/log", since).timeline.finish()), told(wanted.finish()));
        begin_at(log, since);
        EXPECT_EQ(log.begin > 0, minute > 0) << log.begin;
    }
    const Lines all = told(read_history("/var/log", {}).timeline.finish());
    for (const std::size_t count : std::array<std::size_t, 4>{1, 2, 9, 1000}) {
        Lines last = told(read_last_events("/var/log", {}, count).timeline.finish());
        const auto wanted = static_cast<std::ptrdiff_t>(std::min(count, all.size()));
        ASSERT_GE(std::ssize(last), wanted);
        last.erase(last.begin(), last.end() - wanted);
        EXPECT_EQ(last, Lines(all.end() - wanted, all.end()));
    }
}

TEST(Since, IsUnderstoodAsOperatorsSayIt) {
    const LogTime now = *parse_since("2026-11-16 10:00:00", {});
    const auto text = [now](const char* since) {
        const auto time = parse_since(since, now);
        return time ? format_log_time(*time) : "none";
    };
    EXPECT_EQ(text("2026-11-16 03:00"), "2026-11-16 03:00:00");
    EXPECT_EQ(text("03:00"), "2026-11-16 03:00:00");
    EXPECT_EQ(text("3d"), "2026-11-13 10:00:00");
    EXPECT_EQ(text("1w"), "2026-11-09 10:00:00");
    EXPECT_EQ(text("90m"), "2026-11-16 08:30:00");
    EXPECT_EQ(text("yesterday"), "2026-11-15 00:00:00");
    for (const char* wrong : {"", "h", "2", "2x", "-2h", "2026-02-30", "25:00", "soon"}) {
        EXPECT_EQ(text(wrong), "none") << wrong;
    }
}

}  // namespace
