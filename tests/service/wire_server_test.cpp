#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "running_service.h"
#include "service/wire_server.h"
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
                      DecodeCase{"%7B%22k%22%3A1%7D", "{\"k\":1}"}, DecodeCase{"%zz%", "%zz%"}));

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
                                           "/static/%2Fetc%2Fpasswd"));

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
