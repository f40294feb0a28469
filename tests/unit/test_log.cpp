#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>

#include "SGCLog.h"
#include "log.h"
#include "log_burst.h"
#include "support.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

class Log : public WithFiles {};

// Logs a message; what it printed must be the whole of the day's file, too.
std::string log_line(int level, const std::string& message) {
    CaptureStdout();
    errno = EPIPE;
    EXPECT_EQ(write_log(level, "%s", message.c_str()), 0);
    EXPECT_EQ(errno, EPIPE);
    std::string line = GetCapturedStdout();
    std::string date = line.substr(14, 10);
    std::replace(date.begin(), date.end(), '-', '_');
    EXPECT_EQ(contents("/var/log/quorsyncd_" + date + ".log"), line);
    return line;
}

TEST_F(Log, LinesAreStampedAndEndedByTheRule) {
    const struct {
        int level;
        std::string message, written;
    } rows[] = {
        {LOG_DEBUG, "abc", "DEBUG :abc\n"},
        {LOG_ERROR, "a\nb", "ERROR :a\nb"},  // one in the middle is enough
        {LOG_FATAL, "", "FATAL :\n"},
        {-1, std::string(5000, 'x'), "OTHER :" + std::string(4095, 'x') + "\n"},
    };
    for (const auto& row : rows) {
        WithFiles::SetUp();
        const std::string line = log_line(row.level, row.message);
        EXPECT_THAT(line.substr(0, 34), MatchesRegex("quorsyncd:2\\.1 [0-9]{4}-[0-9]{2}-[0-9]{2} "
                                                     "[0-9]{2}:[0-9]{2}:[0-9]{2} "));
        EXPECT_EQ(line.substr(34), row.written);
    }
}

void log_client(const std::string& key, const std::string& value = "value") {
    log_record(msg::RECORD_SENT, key.c_str(), value.c_str());
}

TEST_F(Log, TheLinesOfABurstComeTogetherAndBeforeAnyOther) {
    log_client("a");  // without a burst it does not wait
    EXPECT_EQ(count_of(logged(), "send data: a = value"), 1U);
    CaptureStdout();
    {
        const LogBurst burst;
        log_client("b");
        log_client("c", "x\ny");
        EXPECT_EQ(count_of(logged(), "\n"), 1U);
        errno = EPIPE;
        log_message(msg::TOOK_OVER);
        EXPECT_EQ(errno, EPIPE);
        EXPECT_THAT(logged(), MatchesRegex("[^\n]*\n[^\n]*: b = value\n[^\n]*: c = x\ny\n"
                                           "[^\n]*become a master host\n"));
        WithFiles::SetUp();  // the file is found anew by the next lines
        log_client("d");
        end_log_burst();
        EXPECT_THAT(logged(), MatchesRegex("quorsyncd:2[^\n]*DEBUG :[^\n]*: d = value\n"));
        log_client("e");
    }
    EXPECT_THAT(logged(), MatchesRegex("[^\n]*: d = value\n[^\n]*: e = value\n"));
    EXPECT_THAT(GetCapturedStdout(), EndsWith(logged()));
}

TEST_F(Log, TheJournalGetsPrioritiesAndNoRecords) {
    const char* path = "/etc/quoradmind/journal";
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strcpy(address.sun_path, path);
    const OwnedFd journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_EQ(bind(journal.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(setenv("QUORSYNCD_JOURNAL", path, 1), 0);
    CaptureStdout();
    {
        const LogBurst burst;
        log_client("a");
        log_message(msg::TOOK_OVER);
    }
    (void)write_log(LOG_ERROR, "%s", "a\nb\n");
    (void)write_log(LOG_FATAL, "%s", std::string(5000, 'x').c_str());
    ASSERT_EQ(unsetenv("QUORSYNCD_JOURNAL"), 0);
    (void)write_log(LOG_ERROR, "%s", "nobody asks for it");
    EXPECT_EQ(GetCapturedStdout(), logged());
    const auto next = [&journal] {
        std::array<char, 8192> entry{};
        const ssize_t size = recv(journal.get(), entry.data(), entry.size(), 0);
        return std::string(entry.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    };
    const auto head = [](char priority, std::size_t size) {
        return "PRIORITY="s + priority + "\nSYSLOG_IDENTIFIER=quorsyncd\nMESSAGE\n" +
               static_cast<char>(size % 256) + static_cast<char>(size / 256) + std::string(6, '\0');
    };
    const std::size_t stamp = "quorsyncd:2.1 2026-11-16 03:52:26 "s.size();
    std::string entry = next();
    EXPECT_THAT(entry, StartsWith(head('6', stamp + 26) + "quorsyncd:2.1 "));
    EXPECT_THAT(entry, EndsWith("INFO :become a master host\n"));
    entry = next();
    EXPECT_THAT(entry, StartsWith(head('3', stamp + 10) + "quorsyncd:2.1 "));
    EXPECT_THAT(entry, EndsWith("ERROR :a\nb\n"));
    EXPECT_THAT(next(), StartsWith(head('2', stamp + 7 + 4095) + "quorsyncd:2.1 "));
    EXPECT_EQ(next(), "");

    ASSERT_EQ(setenv("QUORSYNCD_JOURNAL", "/etc/no/journal", 1), 0);
    CaptureStderr();
    (void)write_log(LOG_INFO, "%s", "bears to be lost");
    (void)write_log(LOG_ERROR, "%s", "does not");
    EXPECT_THAT(GetCapturedStderr(), AllOf(EndsWith("ERROR :does not\n"), Not(HasSubstr("lost"))));
    ASSERT_EQ(unsetenv("QUORSYNCD_JOURNAL"), 0);
}

TEST_F(Log, ABurstEndsWhenItIsLargeOrOld) {
    const LogBurst burst;
    std::size_t lines = 0;
    for (; logged().empty(); ++lines) {
        log_client("a", std::string(1000, 'x'));
    }
    EXPECT_LE(logged().size(), 64U * 1024);
    end_log_burst();
    EXPECT_EQ(count_of(logged(), "\n"), lines);

    WithFiles::SetUp();
    EXPECT_TRUE(eventually([] {
        log_client("a");
        return !logged().empty();
    }));
    EXPECT_LT(logged().size(), 60U * 1024);  // it was not their number
}

TEST_F(Log, TheEndOfTheProcessWritesTheBurstsOfAllThreads) {
    const LogBurst burst;
    log_client("a");
    std::thread([] { close_logs(); }).join();
    EXPECT_THAT(logged(), EndsWith(": a = value\n"));
}

// The compiler refuses a message whose arguments do not fit; here it says what it would refuse.
TEST_F(Log, AMessageTakesItsArgumentsAndNoOthers) {
    static_assert(takes_arguments("a", ""));
    static_assert(takes_arguments("%s:%d%ld %zu %.*s 0x%08X.", "sdlzdsu"));
    const struct {
        const char* format;
        const char* types;
    } wrong[] = {{"a", "s"},   {"%s", ""},    {"%s", "d"},  {"%d", "l"}, {"%s%d", "ds"},
                 {"%s", "ss"}, {"%.*s", "s"}, {"%zu", "l"}, {"%x", "u"}, {"%s", "?"}};
    for (const auto& row : wrong) {
        EXPECT_FALSE(takes_arguments(row.format, row.types)) << row.format << " " << row.types;
    }
    CaptureStdout();
    errno = EPIPE;
    log_message(msg::LIST_PUT_BACK, std::size_t{7}, std::size_t{2});
    EXPECT_EQ(errno, EPIPE);
    EXPECT_THAT(GetCapturedStdout(), EndsWith(" ERROR :client list put back: 7 records, instead of "
                                              "2 of an unfinished push\n"));
}

// A zone without any changes, so many hours east of Greenwich, as the system keeps its own.
void set_zone(int hours) {
    const auto number = [](int value) {
        const std::uint32_t sent = htonl(static_cast<std::uint32_t>(value));
        return std::string(reinterpret_cast<const char*>(&sent), sizeof sent);
    };
    // One zone, whose name has four bytes.
    const std::string zone = "TZif" + std::string(32, '\0') + number(1) + number(4) +
                             number(hours * 3600) + "\0\0ABC\0"s;
    write_file("/etc/localtime.new", zone);
    std::filesystem::rename("/etc/localtime.new", "/etc/localtime");
}

TEST_F(Log, AChangedTimeZoneIsFollowed) {
    unsetenv("TZ");
    for (const int hours : {5, -3}) {
        set_zone(hours);
        EXPECT_TRUE(eventually([hours] {
            std::tm stamp{};
            CaptureStdout();
            write_log(LOG_INFO, "abc");
            const std::string line = GetCapturedStdout();
            strptime(line.c_str() + 14, "%Y-%m-%d %H:%M:%S", &stamp);
            return std::lround(std::difftime(timegm(&stamp), std::time(nullptr)) / 3600) == hours;
        })) << hours;
    }
    std::filesystem::remove("/etc/localtime");
    tzset();
}

TEST_F(Log, AMissingDirectoryIsHarmless) {
    LogSettings settings;
    EXPECT_EQ(set_log_settings(settings, "/var/log/none/", 4), 0);
    EXPECT_EQ(settings.level, LOG_INFO);  // there is no level 4
    CaptureStdout();
    errno = EPIPE;
    EXPECT_EQ(write_log_file(settings, LOG_INFO, "abc"), 0);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_THAT(GetCapturedStdout(), EndsWith("INFO :abc\n"));
    EXPECT_FALSE(std::filesystem::exists("/var/log/none"));
    // One that fills the field has no terminator; the file name must end with it all the same.
    set_log_settings(settings, ("/var/log" + std::string(300, '/')).c_str(), LOG_FATAL);
    EXPECT_EQ(settings.level, LOG_FATAL);
    write_log_file(settings, LOG_INFO, "def");
    EXPECT_THAT(logged(), EndsWith("INFO :def\n"));
}

TEST_F(Log, TheRollingLogNeedsItsMarker) {
    SGCLog().printDebug("unseen");
    EXPECT_EQ(contents("/var/log/quorsyncd.log"), "");
    write_file("/var/log/quorsyncd.cfg", "");
    SGCLog log;
    log.printDebug("seen");
    log.close();
    EXPECT_THAT(contents("/var/log/quorsyncd.log"), EndsWith(" - seen\n"));
}

}  // namespace
