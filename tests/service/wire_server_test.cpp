#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <zlib.h>

#include <gtest/gtest.h>

#include "running_service.h"
#include "service/wire_server.h"
#include "support/case_name.h"
#include "wire_client.h"

using PortHall::WireServer;
using wire_test::request;
using wire_test::running_service;
using wire_test::WsClient;

struct DecodeCase {
    std::string in, out;
    // Readable case names in the test list.
    friend void PrintTo(const DecodeCase& c, std::ostream* os) { *os << '"' << c.in << "\" -> \"" << c.out << '"'; }
};
class FormatHTTPStringTest : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(FormatHTTPStringTest, DecodesByTableInKeyOrder) {
    EXPECT_EQ(WireServer::FormatHTTPString(GetParam().in), GetParam().out);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FormatHTTPStringTest,
    ::testing::Values(DecodeCase{"%2520", "%20"},  // "%20" was passed before "%25" made it
                      DecodeCase{"%253A", ":"},    // "%3A" comes after "%25"
                      DecodeCase{"aX|Xb", "a\\b"}, DecodeCase{"%2C%3B", "},},"}, DecodeCase{"a%3Db", "a,b"},
                      DecodeCase{"%5Bx%5D", "{x"}, DecodeCase{"%E2%82%AC", "`"}, DecodeCase{"a%20%20b", "a  b"},
                      DecodeCase{"%7B%22k%22%3A1%7D", "{\"k\":1}"}, DecodeCase{"%zz%", "%zz%"}),
    lw_test::by_field(&DecodeCase::in));

std::string gunzip(const std::string& data) {
    z_stream stream{};
    inflateInit2(&stream, 15 + 16);
    std::string out(1 << 20, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    inflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    inflateEnd(&stream);
    return out;
}

TEST(WireServerFiles, HashedAssetsAreCachedForGoodAndSentCompressedWhenAccepted) {
    const auto& service = running_service();
    std::string script;
    for (int i = 0; i < 200; ++i) script += "export const value" + std::to_string(i) + " = " + std::to_string(i) + ";\n";
    std::ofstream(service.ui_folder / "static" / "index-Ab3dE9_x.js") << script;
    const std::string path = "/static/index-Ab3dE9_x.js";

    const auto plain = request(service.port, "GET", path);
    EXPECT_EQ(plain.body, script);
    EXPECT_EQ(plain.headers.at("cache-control"), "public, max-age=31536000, immutable");
    EXPECT_EQ(plain.headers.count("content-encoding"), 0u);
    for (const char* accepted : {"gzip", "deflate, gzip;q=0.5", "br, GZIP"}) {
        const auto packed = request(service.port, "GET", path, "", {{"Accept-Encoding", accepted}});
        EXPECT_EQ(packed.headers.at("content-encoding"), "gzip") << accepted;
        EXPECT_LT(packed.body.size(), script.size() / 2) << accepted;
        EXPECT_EQ(gunzip(packed.body), script) << accepted;
    }
    EXPECT_EQ(request(service.port, "GET", path, "", {{"Accept-Encoding", "gzip;q=0"}}).body, script);
    // Files without a content hash, the page and the API are never kept.
    for (const char* other : {"/static/js/app.js", "/", "/api/GetLANEWRIGHTVersion"}) {
        EXPECT_EQ(request(service.port, "GET", other).headers.at("cache-control"), "no-store") << other;
    }
    for (const char* name : {"index-settings.js", "index-Ab3dE9.js", "Ab3dE9_x.js", "app-Ab3dE9_x"}) {
        EXPECT_FALSE(PortHall::is_hashed_asset(name)) << name;
    }
}

TEST(WireServerFiles, IndexStaticAndNotFoundTexts) {
    const unsigned port = running_service().port;
    const auto index = request(port, "GET", "/");
    EXPECT_EQ(index.status, 200);
    EXPECT_EQ(index.body, "<html>placeholder</html>");
    const auto script = request(port, "GET", "/static/js/app.js");
    EXPECT_EQ(script.body, "console.log(1);");
    // Module scripts are refused by browsers unless served as JavaScript.
    EXPECT_EQ(script.headers.at("content-type").rfind("text/javascript", 0), 0u);
    const auto missing = request(port, "GET", "/static/js/none.js");
    EXPECT_EQ(missing.status, 200);
    EXPECT_EQ(missing.body, "404");
}

TEST(WireServerFiles, MissingIndexGivesTheNotFoundText) {
    const auto& service = running_service();
    std::filesystem::rename(service.ui_folder / "index.html", service.ui_folder / "moved.html");
    const auto response = request(service.port, "GET", "/");
    std::filesystem::rename(service.ui_folder / "moved.html", service.ui_folder / "index.html");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "File not found (404).");
}

class StaticEscapeTest : public ::testing::TestWithParam<std::string> {};

TEST_P(StaticEscapeTest, NeverServesOutsideStatic) {
    const auto response = request(running_service().port, "GET", GetParam());
    EXPECT_EQ(response.body.find("outside static"), std::string::npos);
    EXPECT_NE(response.status, 200);
}

INSTANTIATE_TEST_SUITE_P(Paths, StaticEscapeTest,
                         ::testing::Values("/static/../secret.txt", "/static/js/../../secret.txt",
                                           "/static/%2e%2e/secret.txt", "/static/..%2Fsecret.txt",
                                           "/static/%2Fetc%2Fpasswd"),
                         lw_test::by_value);

TEST(WireServerOrigin, ForeignOriginMayNotChangeState) {
    const unsigned port = running_service().port;
    const std::string own = "http://localhost:" + std::to_string(port);
    const std::string body = R"({"checked":true})";
    const auto foreign = request(port, "POST", "/api/1.0/SetLogLinkStatus", body, {{"Origin", "http://evil.example"}});
    EXPECT_EQ(foreign.status, 403);
    const auto other_port = request(port, "POST", "/api/1.0/SetLogLinkStatus", body,
                                    {{"Origin", "http://localhost:" + std::to_string(port + 1)}});
    EXPECT_EQ(other_port.status, 403);
    EXPECT_EQ(request(port, "POST", "/api/1.0/SetLogLinkStatus", body, {{"Origin", own}}).status, 200);
    EXPECT_EQ(request(port, "POST", "/api/1.0/SetLogLinkStatus", body).status, 200);
    EXPECT_EQ(request(port, "GET", "/stop", "", {{"Sec-Fetch-Site", "cross-site"}}).status, 403);
    // Reading is allowed from anywhere; it changes nothing.
    EXPECT_EQ(request(port, "GET", "/api/GetLANEWRIGHTVersion", "", {{"Origin", "http://evil.example"}}).status, 200);

    WsClient foreign_socket(port, {{"Origin", "http://evil.example"}});
    EXPECT_EQ(foreign_socket.status, 403);
    WsClient own_socket(port, {{"Origin", own}});
    EXPECT_EQ(own_socket.status, 101);
    WsClient rebound_socket(port, {{"Host", "evil.example:" + std::to_string(port)},
                                   {"Origin", "http://evil.example:" + std::to_string(port)}});
    EXPECT_EQ(rebound_socket.status, 403);
}

struct HostCase {
    std::string host;
    bool allowed;
    friend void PrintTo(const HostCase& c, std::ostream* os) { *os << '"' << c.host << '"'; }
};
class HostCheckTest : public ::testing::TestWithParam<HostCase> {};

TEST_P(HostCheckTest, OnlyAddressesAndOwnNamesPass) {
    EXPECT_EQ(PortHall::host_is_allowed(GetParam().host, {"localhost", "bench-7", "lab.example"}), GetParam().allowed);
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, HostCheckTest,
    ::testing::Values(HostCase{"127.0.0.1:9970", true}, HostCase{"10.1.2.3", true}, HostCase{"[::1]:9970", true},
                      HostCase{"[fe80::1]", true}, HostCase{"LocalHost.:9970", true}, HostCase{"bench-7", true},
                      HostCase{"lab.example:80", true}, HostCase{"evil.example:9970", false},
                      HostCase{"localhost.evil.example", false}, HostCase{"127.0.0.1.evil.example", false},
                      HostCase{"localhost:99x", false}, HostCase{"[::1", false}, HostCase{"[::1]x", false},
                      HostCase{"[evil]:80", false}, HostCase{"", false}, HostCase{"0x7f.1", false}),
    [](const auto& info) { return (info.param.allowed ? "Allowed_" : "Refused_") + lw_test::case_name(info.param.host); });

TEST(HostCheck, ListsOwnNamesAndTheConfiguredOnes) {
    ::setenv("LANEWRIGHT_ALLOWED_HOSTS", " lab-a.example , ,lab-b ", 1);
    const auto names = PortHall::allowed_host_names();
    ::unsetenv("LANEWRIGHT_ALLOWED_HOSTS");
    char own[256] = {};
    ::gethostname(own, sizeof(own) - 1);
    for (const std::string expected : {std::string("localhost"), std::string(own), std::string("lab-a.example"), std::string("lab-b")}) {
        EXPECT_NE(std::find(names.begin(), names.end(), expected), names.end()) << expected;
    }
    EXPECT_EQ(std::count(names.begin(), names.end(), ""), 0);
}

struct GateCase {
    std::string name, method, path, body;
    std::map<std::string, std::string> headers;
    int status;
    std::string reason;  // a part of the answer
    friend void PrintTo(const GateCase& c, std::ostream* os) { *os << c.name; }
};
class GateTest : public ::testing::TestWithParam<GateCase> {};

std::string nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }
std::string nested_objects(std::size_t depth) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += R"({"a":)";
    return text + "1" + std::string(depth, '}');
}

TEST_P(GateTest, AnswersWithItsReason) {
    const auto& c = GetParam();
    auto headers = c.headers;
    for (auto& [name, value] : headers) {
        if (value.find("PORT") != std::string::npos) value.replace(value.find("PORT"), 4, std::to_string(running_service().port));
    }
    const auto answer = request(running_service().port, c.method, c.path, c.body, headers);
    EXPECT_EQ(answer.status, c.status) << answer.body;
    EXPECT_NE(answer.body.find(c.reason), std::string::npos) << answer.body;
    EXPECT_EQ(answer.body.find('\n'), std::string::npos);
}

const std::map<std::string, std::string> kEvilHost{{"Host", "evil.example:PORT"}};

INSTANTIATE_TEST_SUITE_P(
    Requests, GateTest,
    ::testing::Values(
        GateCase{"DeepArrayOnEchoRoute", "POST", "/api/1.0/SetCountersLogging", nested(80000), {}, 400, "deeper than 64"},
        GateCase{"DeepObjectOnPortRun", "POST", "/api/1.0/StartPortStatusContinuousRun", nested_objects(50000), {},
                    400, "deeper than 64"},
        GateCase{"DeepKeyInQueuedRecord", "POST", "/api/1.0/AddTestToQueue",
                    R"({"Operation":"PCIe Margin","x":)" + nested(64) + "}", {}, 400, "deeper than 64"},
        // 64 levels in all still parse; the handler then looks for its keys.
        GateCase{"SixtyFourLevelsParse", "POST", "/api/1.0/SetLinkWidth", R"({"x":)" + nested(63) + "}", {},
                    400, "Malformed request"},
        GateCase{"BodyOverOneMiB", "POST", "/api/1.0/SetL0Enabled", std::string(1024 * 1024 + 1, ' '), {}, 413,
                    "larger than 1 MiB"},
        GateCase{"RecordOver64KiB", "POST", "/api/1.0/AddTestToQueue",
                    R"({"Operation":"PCIe Margin","Pad":")" + std::string(65536, 'a') + "\"}", {}, 200,
                    R"("ErrMsg":"Test record larger than 64 KiB")"},
        GateCase{"ForeignHostReading", "GET", "/api/1.0/GetPCIEDeviceListForMargin", "", kEvilHost, 403,
                    "not this machine's"},
        GateCase{"RebindingWithMatchingOrigin", "POST", "/api/1.0/SetLogLinkStatus", R"({"checked":true})",
                    {{"Host", "evil.example:PORT"}, {"Origin", "http://evil.example:PORT"}}, 403, "not this machine's"},
        GateCase{"ForeignHostOnStaticFiles", "GET", "/static/js/app.js", "", kEvilHost, 403, "not this machine's"},
        GateCase{"AddressLiteralHost", "GET", "/api/GetLANEWRIGHTVersion", "", {{"Host", "127.0.0.1:PORT"}}, 200,
                    "Tool_Version"}),
    lw_test::by_name);

TEST(WireServerEnd, ConnectionCapLeavesDescriptorsSpare) {
    EXPECT_EQ(PortHall::connection_cap(1024), 768u);
    EXPECT_EQ(PortHall::connection_cap(200), PortHall::kMinConnections);
    EXPECT_EQ(PortHall::connection_cap(1u << 20), PortHall::kMaxConnections);
    EXPECT_GE(PortHall::raise_open_file_limit(), 1024u);
}

using wire_test::wait_for_connections;

TEST(WireServerSockets, BroadcastReachesAllAndSurvivesASocketClosingMidway) {
    const unsigned port = running_service().port;
    // Sockets of earlier tests leave the set asynchronously; start from none.
    ASSERT_TRUE(wait_for_connections(0));
    const std::size_t base = 0;
    WsClient first(port), second(port);
    ASSERT_EQ(first.status, 101);
    ASSERT_EQ(second.status, 101);
    ASSERT_TRUE(wait_for_connections(base + 2));

    EXPECT_EQ(WireServer::GetInstance()->SendWSMessage(R"({"key":"hello"})"), 1);
    EXPECT_EQ(first.next_text(), R"({"key":"hello"})");
    EXPECT_EQ(second.next_text(), R"({"key":"hello"})");

    // One socket vanishes while broadcasts are under way.
    std::atomic<bool> sending{true};
    std::thread sender([&] {
        for (int i = 0; i < 30; ++i) WireServer::GetInstance()->SendWSMessage("burst " + std::to_string(i));
        sending = false;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    first.close_abruptly();
    sender.join();
    EXPECT_FALSE(sending);

    WireServer::GetInstance()->SendWSMessage("after");
    std::optional<std::string> text;
    while ((text = second.next_text()) && *text != "after") {
    }
    EXPECT_EQ(text, "after");
    EXPECT_EQ(request(port, "GET", "/api/GetLANEWRIGHTVersion").status, 200);
}

TEST(WireServerSockets, PingIsAnsweredAndJunkKeepsTheSocketOpen) {
    WsClient client(running_service().port);
    ASSERT_EQ(client.status, 101);
    client.send_frame(0x9, "beat");
    auto frame = client.next_frame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->first, 0xA);
    EXPECT_EQ(frame->second, "beat");

    std::atomic<int> calls{0};
    WireServer::GetInstance()->set_topic_handler("count", [&](const nlohmann::json& value) { calls += value.get<int>(); });
    client.send_frame(0x1, "no json here");
    client.send_frame(0x1, R"({"Message":1})");
    client.send_frame(0x1, R"({"Topic":"count","Message":3})");
    client.send_frame(0x9, "still");
    frame = client.next_frame();
    ASSERT_TRUE(frame) << "socket closed after junk";
    EXPECT_EQ(frame->second, "still");
    EXPECT_EQ(calls, 3);
}

TEST(WireServerAddress, GetIPAnswersWithoutHanging) {
    const std::string address = WireServer::GetInstance()->GetIP();
    EXPECT_FALSE(address.empty());
    EXPECT_NE(address, "0.0.0.0");
}
