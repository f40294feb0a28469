#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "PK_Request_Client.h"
#include "PK_Request_Client/body_codec.h"
#include "keys.h"
#include "support.h"
#include "tcp.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

// Computed by hand. What a tail cannot hold is at the low end of its last index.
TEST(BodyCodec, KnownVectors) {
    const std::vector<std::pair<std::string_view, std::string>> vectors = {
        {"", ""},         {"a", "YB=="},        {"ab", "YWC="},           {"abcd", "YWJjZA=="},
        {"\0"sv, "AA=="}, {"\xFF\xFF", "//P="}, {"\xFB\xEF\xBE", "++++"}, {"\x80\x01", "gAB="}};
    for (const auto& [text, encoded] : vectors) {
        EXPECT_EQ(encode_body(text), encoded);
        EXPECT_EQ(decode_body(encoded), text) << encoded;
    }
}

TEST(BodyCodec, AGroupOfAnotherShapeYieldsNothing) {
    for (const auto group :
         {"YW=j"sv, "Y=Jj"sv, "=WJj"sv, "Y==="sv, "YWJ\xFF"sv, "\x80WJj"sv, "Y\0Jj"sv, "YWJ"sv}) {
        EXPECT_EQ(decode_body(group), "") << group;
        EXPECT_EQ(decode_body("YWJj"s + std::string(group)), "abc") << group;
    }
    EXPECT_EQ(decode_body("YB==YWC=YWJj"), "aababc");
    EXPECT_EQ(decode_body("//==///="), "\xFF\xFF\xFF");  // bits beyond a byte are dropped
}

// What a peer does with one connection.
struct Script {
    std::string answer;
    std::size_t piece = SIZE_MAX;       // sent in pieces of this size
    bool stays = false;                 // does not close before the client does
    std::uint32_t patience = 60;        // the client's time-out in seconds
    std::chrono::milliseconds pause{};  // before each piece
};

// A peer that follows a script, once.
class Peer {
public:
    explicit Peer(Script script, std::uint16_t port = FILE_SERVICE_PORT)
        : script_(std::move(script)), listener_(TcpBuildListen("", port, 20)) {
        EXPECT_EQ(TcpLocalPort(listener_.get()), port);
        thread_ = std::thread([this] { serve(); });
    }
    ~Peer() { end(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // The request as it came; waits for the end of the connection.
    const std::string& heard() {
        end();
        return heard_;
    }

private:
    void end() {
        if (thread_.joinable()) {
            (void)shutdown(listener_.get(), SHUT_RDWR);  // in case nobody has connected
            thread_.join();
        }
    }
    bool hear(int fd, std::size_t count) {
        std::string part(count, '\0');
        const bool whole = TcpRecvExact(fd, part.data(), count) == 0;
        heard_ += part;
        return whole;
    }
    void serve() {
        OwnedFd fd(TcpSvAccept(listener_.get(), 20));
        if (!fd.valid()) {
            return;
        }
        std::uint32_t body = 0;
        if (hear(fd.get(), 16)) {
            std::memcpy(&body, heard_.data() + 12, sizeof body);
            (void)hear(fd.get(), body);
        }
        const int on = 1;
        (void)setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const std::string& answer = script_.answer;
        for (std::size_t at = 0; at < answer.size(); at += std::min(script_.piece, answer.size())) {
            const std::size_t count = std::min(script_.piece, answer.size() - at);
            std::this_thread::sleep_for(script_.pause);
            if (TcpSendSome(fd.get(), answer.data() + at, count) != count) {
                return;
            }
        }
        char end = 0;
        if (script_.stays) {
            (void)TcpRecvSome(fd.get(), &end, 1);
        }
    }

    Script script_;
    std::string heard_;
    OwnedFd listener_;
    std::thread thread_;
};

std::string answer_header(int error, int size) {
    const std::array<int, 5> fields = {-1, -1, error, -1, size};  // three of them are not examined
    return {reinterpret_cast<const char*>(fields.data()), sizeof fields};
}

// A whole answer with the decoded body `reply`.
std::string answer(const std::string& reply) {
    const std::string body = encode_body(reply);
    return answer_header(0, static_cast<int>(body.size())) + body;
}

std::string length_answer(const std::string& json_value) {
    return answer(R"({"note": [1], "length": )" + json_value + "}");
}

const std::string OLD(9000, 'o');
const std::string NEW = std::string(4096, '1') + std::string(904, '2');

class FileFetch : public WithFiles {
protected:
    static constexpr const char* TARGET = "/etc/quoradmind/fetched";

    int fetch(const char* target = TARGET) {
        return GetServerFile(client, "127.0.0.1", CONFIG_DB, target);
    }

    // The result with such a peer; the caller closes its connection.
    int fetch_from(const Script& script, const char* target = TARGET) {
        const Peer peer(script);
        const int result = fetch(target);
        client.Close();
        return result;
    }

    PK_Request_Client client;
};

TEST_F(FileFetch, AsksAndStoresWhatIsAnnounced) {
    Peer peer({length_answer(R"("5000")") + NEW + "rest"});
    EXPECT_EQ(fetch(), 0);
    EXPECT_EQ(contents(TARGET), NEW);
    struct stat status {};
    ASSERT_EQ(stat(TARGET, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    // The connection is the caller's.
    std::string rest(5, '-');
    EXPECT_EQ(client.RecvAll(rest.data(), 5), 4);
    EXPECT_EQ(rest, "rest-");
    EXPECT_EQ(client.Close(), 0);
    EXPECT_EQ(client.RecvAll(rest.data(), 1), -1);

    const std::string body = R"({ "action": "get-file", "path": "\/etc\/quoradmind\/config.db" })";
    const std::array<std::uint32_t, 4> header = {0x8008, 0, 0, 88};
    const std::string& heard = peer.heard();
    EXPECT_EQ(heard.substr(0, 16), std::string(reinterpret_cast<const char*>(&header), 16));
    EXPECT_EQ(decode_body(heard.substr(16)), body);
    EXPECT_EQ(heard.size(), 16U + 88U);
}

struct Case {
    const char* name;
    Script script;
    int result;
    std::string log;  // an expression that the log matches; none for success
    std::string left;
};

const std::string OURS = "src/PK_Request_Client";
const std::string EXCHANGE = "---" + OURS + "---Hpc_RequestPro_NoClose--";
const std::string NO_JSON = "FILE_MGR json_tokener_parse:";
const std::string NO_LENGTH = "FILE_MGR length not found:";
const std::string TOO_LARGE = "FILE_MGR length too large:67108865 > 67108864   --" + OURS + "--";
const std::string PART = NEW.substr(0, 4500);
const std::string PART_ONLY =
    "recv_file recv error 404 != 904  [0-9]+  " + OURS + "--recv_file-- [0-9]+";
const std::string PEER_ERROR =
    "szServerIp:127.0.0.1 szServerFilePath " + std::string(CONFIG_DB) + " --" + OURS + "--";

// A reply that is `encoded` bytes long on its way, and the same file as ever.
Script padded(std::size_t encoded) {
    std::string body = encode_body(R"({"length":"5000"})" + std::string(encoded / 4 * 3 - 17, ' '));
    body += std::string(encoded % 4, 'A');
    return {answer_header(0, static_cast<int>(encoded)) + body + NEW};
}

const std::vector<Case> CASES = {
    {"in small pieces", {length_answer("\"5000\"") + NEW, 7}, 0, "", NEW},
    {"a number", {length_answer("5000") + NEW}, 0, "", NEW},
    {"blank and sign", {length_answer("\" +12\"") + NEW}, 0, "", NEW.substr(0, 12)},
    {"an empty file", {length_answer("\"0\"")}, 0, "", ""},
    {"one below the buffer", padded(1023), 0, "", NEW},
    {"the buffer's size", padded(1024), -1, "Size:1024 >= 1024 " + EXCHANGE, OLD},
    {"error", {answer_header(5, 0)}, -2, "FILE_MGR nErrCode:5 " + PEER_ERROR, OLD},
    {"no body", {answer_header(0, 0)}, -3, NO_JSON + "   --" + OURS + "--", OLD},
    {"most negative size", {answer_header(0, INT_MIN)}, -3, NO_JSON + " ", OLD},

    {"no JSON", {answer("length") + NEW}, -3, NO_JSON + "length   --" + OURS + "--", OLD},
    {"an array", {answer("[\"length\"]")}, -3, NO_LENGTH, OLD},
    {"a plain number", {answer("12")}, -3, NO_LENGTH + "12   --" + OURS + "--", OLD},
    {"no length", {answer("{}")}, -3, NO_LENGTH, OLD},
    {"null length", {length_answer("null")}, -3, NO_LENGTH, OLD},
    {"no digits", {length_answer("\"abc\"")}, -3, NO_LENGTH, OLD},
    {"one byte too long", {length_answer("\"67108865\"") + NEW}, -3, TOO_LARGE, OLD},
    {"negative length", {length_answer("\"-5\"") + NEW}, -3, NO_LENGTH, OLD},

    {"closes when asked", {""}, -1, "Recv Ret:0 size:20 Err:.*" + EXCHANGE, OLD},
    {"half a header", {answer_header(0, 8).substr(0, 10)}, -1, "Recv Ret:10 size:20 Err:", OLD},
    {"half a body", {answer_header(0, 8) + "YWJ"}, -1, "Rcev Ret:3 size:.* Err:8---", OLD},
    {"part of a file", {length_answer("5000") + PART}, -4, PART_ONLY, NEW.substr(0, 4096)},
    {"never answers", {"", 1, true, 1}, -1, "Recv Ret:0 size:20 Err:11---", OLD},
};

TEST_F(FileFetch, AgainstAPeerThatFollowsAScript) {
    for (const Case& each : CASES) {
        SCOPED_TRACE(each.name);
        SetUp();
        client.SetTimeout(each.script.patience);
        write_file(TARGET, OLD);
        EXPECT_EQ(fetch_from(each.script), each.result);
        EXPECT_EQ(contents(TARGET), each.left);
        if (each.log.empty()) {
            EXPECT_THAT(logged(), Not(HasSubstr("ERROR")));
        } else {
            EXPECT_THAT(logged(), ContainsRegex("ERROR :.*" + each.log));
            EXPECT_EQ(count_of(logged(), "ERROR"), 1U);  // each failure is told once
        }
    }
}

TEST_F(FileFetch, LimitsGrowWithTheLength) {
    const FetchLimits limits;
    EXPECT_EQ(limits.time_for((1 << 20) - 1), 60s);
    EXPECT_EQ(limits.time_for(limits.bytes), 124s);
    for (const std::int64_t most : {4999, 5000}) {
        client.SetFetchLimits(FetchLimits{.bytes = most});
        EXPECT_EQ(fetch_from({length_answer("5000") + NEW}), most == 5000 ? 0 : -3);
    }
}

// One that sends a byte now and then, for minutes, and one that falls silent for as long.
TEST_F(FileFetch, APeerCannotHoldItBeyondItsTime) {
    const std::string whole = length_answer("5000") + NEW;
    const Script drips{whole, 64, true, 20, 50ms};
    const Script stalls{whole.substr(0, whole.size() - 1), 9000, true, 20};
    for (const Script& script : {drips, stalls}) {
        SetUp();
        client.SetFetchLimits(FetchLimits{.base = 500ms});
        EXPECT_LT(fetch_from(script), 0);  // wherever that is on a slow machine
        EXPECT_THAT(logged(),
                    ContainsRegex("(Recv Ret:|Rcev Ret:|recv_file recv error ).*[ :]110"));
    }
}

// Nobody else may have a way to what will be put in place.
TEST_F(FileFetch, RefusesATargetThatIsNotOursAlone) {
    const std::string other = "/etc/quoradmind/other";
    const std::vector<std::function<void()>> targets = {
        [] { ASSERT_EQ(mkfifo(TARGET, 0600), 0); },
        [&] {
            write_file(other, OLD);
            std::filesystem::create_hard_link(other, TARGET);
        },
        [] {
            write_file(TARGET, OLD);
            ASSERT_EQ(chown(TARGET, 65534, 65534), 0);
        },
    };
    for (const auto& make : targets) {
        SetUp();
        make();
        EXPECT_EQ(fetch_from({length_answer("5000") + NEW}), -1);
        EXPECT_THAT(logged(),
                    HasSubstr(fmt::format("ERROR :{} is no ordinary file of our own", TARGET)));
        if (std::filesystem::is_regular_file(TARGET)) {
            EXPECT_EQ(contents(TARGET), OLD);
        }
    }
}

TEST_F(FileFetch, WithoutAPeerOrATarget) {
    EXPECT_EQ(GetServerFile(client, "127.0.0.1", CONFIG_DB, nullptr), -77);
    EXPECT_EQ(fetch(), -1);
    EXPECT_THAT(logged(), HasSubstr("ERROR :Connect error Connection refused " + EXCHANGE));
    EXPECT_FALSE(std::filesystem::exists(TARGET));

    // A link in the target's place would lead the download anywhere.
    write_file("/etc/quoradmind/aim", OLD);
    std::filesystem::create_symlink("/etc/quoradmind/aim", TARGET);
    EXPECT_EQ(fetch_from({length_answer("5000") + NEW}), -1);
    EXPECT_EQ(contents("/etc/quoradmind/aim"), OLD);
    EXPECT_THAT(logged(), HasSubstr("ERROR :open ("s + TARGET + ") error:"));
    EXPECT_THAT(logged(),
                HasSubstr("ERROR :File.OpenRwAlwaysSetSize szPath:"s + TARGET + " --" + OURS));

    std::filesystem::remove(TARGET);
    ASSERT_EQ(mount("tmpfs", "/usr/local/bin", "tmpfs", 0, "size=4k"), 0);
    EXPECT_EQ(fetch_from({length_answer("5000") + NEW}, "/usr/local/bin/target"), -3);
    EXPECT_EQ(umount("/usr/local/bin"), 0);
    EXPECT_THAT(logged(), HasSubstr("ERROR : recv_file WriteFile error -1 != 904 28  " + OURS +
                                    "--recv_file-- "));
}

TEST_F(FileFetch, ARequestFillsTheCallersBufferOnlyWithAReply) {
    constexpr std::uint16_t DEFAULT_PORT = 3232;
    std::array<char, 64> reply;
    reply.fill('x');
    std::int32_t error = 0;
    const auto ask = [&] {
        return client.Hpc_RequestPro("127.0.0.1", 7, "", reply.data(), reply.size(), &error);
    };
    EXPECT_EQ(ask(), REQUEST_NO_CONNECTION);
    EXPECT_EQ(error, -11);
    {
        Peer peer({answer_header(0, 0)}, DEFAULT_PORT);
        EXPECT_EQ(ask(), 0);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(std::string(reply.data(), reply.size()), std::string(64, 'x'));
        EXPECT_EQ(peer.heard().size(), 16U);
    }
    const Peer peer({answer("hi\0there"s)}, DEFAULT_PORT);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(std::string(reply.data(), reply.size()), "hi\0there"s + std::string(56, '\0'));
    EXPECT_THAT(logged(), HasSubstr("INFO :PK_Request_Client::Hpc_RequestPro szRetMsg hi\n"));
    EXPECT_EQ(client.RecvAll(reply.data(), 1), -1);  // it has closed the connection
}

}  // namespace
