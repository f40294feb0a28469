#include <sstream>

#include "ctl/history/log_reader.h"
#include "ctl/history/timeline.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Lines = std::vector<std::string>;

constexpr const char* DAY = "2026-11-16 ";

// "03:00:02 INFO :text" as the daemon writes it, without the newline.
std::string stamped(const std::string& line) {
    return "quorsyncd:2.1 " + (DAY + line);
}

Timeline timeline_of(const Lines& lines) {
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
    EXPECT_EQ(text("03:00"), "2026-11-16 03:00:00");
    EXPECT_EQ(text("3d"), "2026-11-13 10:00:00");
    EXPECT_EQ(text("yesterday"), "2026-11-15 00:00:00");
    for (const char* wrong : {"", "h", "2", "2x", "-2h", "2026-02-30", "25:00", "soon"}) {
        EXPECT_EQ(text(wrong), "none") << wrong;
    }
}

}  // namespace
