// The service process against malformed and hostile traffic on every route:
// deep and huge JSON, broken framing, mutated requests and a flood of idle
// connections beyond its descriptor limit. Whatever arrives, it must stay up,
// answer afterwards and keep its memory.
#include <sys/resource.h>
#include <sys/socket.h>

#include <fstream>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "service/web_back_end.h"
#include "service/wire_server.h"
#include "service_process.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

using wire_test::connect_local;
using wire_test::receive_some;
using wire_test::send_all;

// Sends raw bytes, ends the sending side and collects what comes back until
// the server closes or falls silent.
std::string send_raw(unsigned port, const std::string& data) {
    int fd = -1;
    try {
        fd = connect_local(port);
    } catch (const std::exception&) {
        return {};  // gone: the liveness checks say so
    }
    try {
        send_all(fd, data);
    } catch (const std::exception&) {
        // The server may drop a request it refuses while it is being sent.
    }
    ::shutdown(fd, SHUT_WR);
    std::string answer;
    for (std::string part; !(part = receive_some(fd, 3000)).empty();) answer += part;
    ::close(fd);
    return answer;
}

std::string http(const std::string& method, const std::string& path, const std::string& body) {
    return method + " " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::size_t rss_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stoul(line.substr(6));
    }
    return 0;
}

bool alive(pid_t pid) {
    int status = 0;
    return ::waitpid(pid, &status, WNOHANG) == 0;
}

// The back end's route table, as the service registers it.
std::vector<std::pair<std::string, std::string>> api_routes() {
    GUIResourceStore store((std::filesystem::temp_directory_path() / "lanewright_hostile_routes").string());
    TestStorage storage;
    WebBackEnd backend(store, storage);
    PortHall::WireApp app;
    backend.RegisterServices(app);
    std::vector<std::pair<std::string, std::string>> routes;
    for (const auto& route : app.routes()) routes.emplace_back(PortHall::method_name(route.method), route.path);
    return routes;
}

std::string deep_arrays(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

std::string deep_objects(std::size_t depth) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += R"({"a":)";
    return text + "1" + std::string(depth, '}');
}

}  // namespace

TEST(HostileRequests, ServiceStaysUpAnsweringAndSmall) {
    // The flood needs more descriptors than the service gets: 1,100
    // connections against a table of 1,024.
    rlimit own{};
    ::getrlimit(RLIMIT_NOFILE, &own);
    const bool can_flood = own.rlim_max >= 1400;
    own.rlim_cur = own.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &own);

    wire_test::ServiceProcess service(wire_test::free_port(), 1024);
    service.read_until("(chrome recommended):  http://");
    const unsigned port = service.port;
    ASSERT_EQ(wire_test::request(port, "GET", "/api/GetLANEWRIGHTVersion").status, 200);
    const std::size_t rss_at_start = rss_kib(service.pid);

    const std::vector<std::string> bodies{
        deep_arrays(80000),
        deep_objects(40000),
        R"({"Operation":"PCIe Margin","TestParams":)" + deep_arrays(100000) + "}",
        std::string(1536 * 1024, '['),
        std::string(6 * 1024 * 1024, ' '),  // beyond the library's hard cap
        R"({"index":1e999999,"checked":"\ud800","SBDF":"../../x","Lanes":[null,{},-1]})",
    };
    for (const auto& [method, path] : api_routes()) {
        for (const auto& body : bodies) send_raw(port, http(method, path, body));
        ASSERT_TRUE(alive(service.pid)) << "ended at " << path;
    }

    const std::string post = "POST /api/1.0/SetL0Enabled HTTP/1.1\r\nHost: localhost\r\n";
    const std::vector<std::string> framing{
        post + "Content-Length: 100\r\n\r\n{\"ind",
        post + "Content-Length: -5\r\n\r\n{}",
        post + "Content-Length: 99999999999999999999\r\n\r\n{}",
        post + "Transfer-Encoding: chunked\r\n\r\nZZ\r\n{}\r\n0\r\n\r\n",
        post + "Transfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\n{}",
        post + "Transfer-Encoding: chunked\r\nContent-Length: 2\r\n\r\n2\r\n{}\r\n0\r\n\r\n",
        post + "X-Big: " + std::string(200 * 1024, 'x') + "\r\n\r\n",
        "GET /" + std::string(100 * 1024, 'a') + " HTTP/1.1\r\nHost: localhost\r\n\r\n",
        "GET / HTTP/9.9\r\n\r\n",
        std::string("\x00\x01\x02 garbage\r\n\r\n", 15),
        "GET / HTTP/1.1\r\nno colon here\r\n\r\n",
        "GET /ws HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n",
    };
    std::string headers;
    for (int i = 0; i < 300; ++i) headers += "X-" + std::to_string(i) + ": y\r\n";
    std::string pipelined;
    for (int i = 0; i < 200; ++i) pipelined += "GET /api/GetLANEWRIGHTVersion HTTP/1.1\r\nHost: localhost\r\n\r\n";
    for (const auto& raw : framing) send_raw(port, raw);
    send_raw(port, "GET / HTTP/1.1\r\n" + headers + "\r\n");
    send_raw(port, pipelined);
    ASSERT_TRUE(alive(service.pid));

    {
        wire_test::WsClient socket(port);
        ASSERT_EQ(socket.status, 101);
        socket.send_frame(0x1, R"({"Topic":"x","Message":)" + deep_arrays(30000) + "}");
        socket.send_frame(0x9, "still");
        EXPECT_TRUE(socket.next_frame());
    }

    // Mutations of valid requests: bytes flipped, dropped and repeated.
    std::mt19937 random(20261125);
    const std::vector<std::string> seeds{
        http("POST", "/api/1.0/AddTestToQueue",
             R"({"Operation":"PCIe Margin","PCIeInfo":{"SBDF":"0:3:0.0"},"TestParams":{"BER":"9","ErrCnt":4,"Lanes":[0,1],"Receiver":1}})"),
        http("POST", "/api/1.0/GetResultsByDate", R"({"start":"","end":""})"),
        http("GET", "/static/index.js?x=%2e%2e%2f", ""),
    };
    for (int i = 0; i < 300; ++i) {
        std::string raw = seeds[random() % seeds.size()];
        for (int edits = 1 + random() % 4; edits > 0; --edits) {
            const std::size_t at = random() % raw.size();
            switch (random() % 3) {
                case 0: raw[at] = static_cast<char>(random()); break;
                case 1: raw.erase(at, 1 + random() % 8); break;
                default: raw.insert(at, std::string(1 + random() % 64, raw[at])); break;
            }
            if (raw.empty()) raw = "x";
        }
        send_raw(port, raw);
    }
    ASSERT_TRUE(alive(service.pid));

    // Idle connections beyond the service's descriptor table: the extra ones
    // wait in the listen backlog, none costs the listener.
    if (can_flood) {
        std::vector<int> idle;
        for (int i = 0; i < 1100; ++i) idle.push_back(connect_local(port));
        std::this_thread::sleep_for(std::chrono::seconds(1));
        for (const int fd : idle) ::close(fd);
    } else {
        std::cout << "Connection flood left out: this process may open only " << own.rlim_max << " files\n";
    }

    EXPECT_EQ(wire_test::request(port, "GET", "/api/GetLANEWRIGHTVersion").status, 200);
    EXPECT_TRUE(alive(service.pid));
    // Nothing of what came is kept: bodies, connections and parses are gone.
    // (Sanitizer builds keep freed memory in quarantine and shadow it.)
    if (!kSanitized) {
        EXPECT_LT(rss_kib(service.pid), rss_at_start + 64 * 1024) << "started at " << rss_at_start << " KiB";
    }
    wire_test::request(port, "GET", "/stop");
    EXPECT_EQ(service.wait_for_exit(), 0);
}
