// The process's single HTTP and WebSocket endpoint.
//
// Everything else in the service talks to the network through this header
// only: routes are plain functions from a WireRequest to a WireResponse, and
// pushes go out through SendWSMessage. The HTTP library itself is confined to
// wire_server.cpp so no other unit pays its compile time or depends on it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace PortHall {

enum class HttpMethod { Get, Post };

const char* method_name(HttpMethod method);

struct WireRequest {
    HttpMethod method = HttpMethod::Get;
    std::string path;
    std::string body;
    // Header names are stored in lower case.
    std::map<std::string, std::string> headers;
    // The query string's parameters, decoded (see parse_query_string).
    std::map<std::string, std::string> query;

    std::string header(const std::string& lower_case_name) const;
    // The decoded value of a query parameter, or nothing when it is absent.
    std::optional<std::string> query_value(const std::string& name) const;
};

// A body sent in pieces as it is made (chunked transfer), for answers too
// large to hold in memory. write() blocks while the client is behind, so a
// slow reader holds the producer back instead of filling memory; it returns
// false once the client is gone or the server stops, and the producer should
// then end.
class WireBodyWriter {
public:
    virtual ~WireBodyWriter() = default;
    virtual bool write(std::string piece) = 0;
};

using WireBodyProducer = std::function<void(WireBodyWriter&)>;

struct WireResponse {
    int status = 200;
    std::string body;
    std::string content_type = "text/plain; charset=utf-8";
    // Further header fields, e.g. Content-Disposition for a download.
    std::vector<std::pair<std::string, std::string>> headers;
    // Runs once the answer has been written to the client (used by "/stop",
    // which must answer before the listener goes away).
    std::function<void()> after_sent;
    // When set, the body is made by this producer while it is sent, and
    // `body` is ignored. It runs on the thread that ran the handler.
    WireBodyProducer stream;

    static WireResponse text(std::string body, int status = 200);
    static WireResponse json(const nlohmann::json& document);
};

using RouteHandler = std::function<WireResponse(const WireRequest&)>;

// Whether a route may change the state of the service or the machine. Such
// routes are refused to pages of other sites (see WireLogHandler).
enum class RouteEffect { ReadOnly, ChangesState };

// Runs a job on a thread of its own choosing. The job is told whether it
// still runs in time (false: it waited too long and should only refuse).
// Answers false when it can take no more jobs.
using WireOffload = std::function<bool(std::function<void(bool in_time)>)>;

struct WireRoute {
    std::string path;
    HttpMethod method;
    RouteEffect effect;
    RouteHandler handler;
    // Heavy routes run here instead of on the server's workers, so they
    // can't hold up the rest of the API; empty: on the worker itself.
    WireOffload offload;
};

// The guard every request passes before and after its handler. The service
// has no login, so a page of another site that the operator happens to have
// open must not be able to queue tests, reset links or stop the service.
class WireLogHandler {
public:
    struct context {};
    WireLogHandler() {}

    // An answer that ends the request before its handler runs, or nothing.
    std::optional<WireResponse> before_handle(const WireRequest& request, RouteEffect effect) const;
    void after_handle(const WireRequest& request, WireResponse& response) const;

    // True when the request's Origin header is absent or names the host and
    // port the request was sent to.
    static bool origin_is_own(const WireRequest& request);
};

// The route table. Handlers run on the server's worker threads; whatever a
// handler throws is turned into an HTTP error answer, never into a dropped
// connection.
class WireApp {
public:
    void route(std::string path, HttpMethod method, RouteHandler handler,
               RouteEffect effect = RouteEffect::ReadOnly, WireOffload offload = {});
    const std::vector<WireRoute>& routes() const { return _routes; }
    const WireRoute* find(const std::string& path, HttpMethod method) const;
    bool has_path(const std::string& path) const;

    // Runs the guard and the handler, turning exceptions into answers.
    WireResponse dispatch(const WireRoute& route, const WireRequest& request) const;

private:
    std::vector<WireRoute> _routes;
    WireLogHandler _guard;
};

using TopicHandler = std::function<void(const nlohmann::json&)>;

// Thrown by handlers for a request the client got wrong; answered with 400
// and the text as the one-line reason.
class BadRequest : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class WireServer {
public:
    explicit WireServer(unsigned long port);
    ~WireServer();
    WireServer(const WireServer&) = delete;
    WireServer& operator=(const WireServer&) = delete;

    static WireServer* GetInstance();
    static void Init();

    WireApp& App();

    // Adds the server's own routes, binds the port and starts the workers.
    // Returns 1 when listening, 0 when the port could not be bound (the
    // reason is in last_error()).
    int StartServer();
    int StopServer();
    int Wait();

    std::string GetIP();
    int SendWSMessage(const std::string& message);
    static std::string FormatHTTPString(std::string text);

    // Configuration, only before StartServer.
    void set_port(unsigned long port);
    unsigned long port() const;
    void set_ui_folder(std::string folder);
    std::string ui_folder() const;
    void set_topic_handler(const std::string& topic, TopicHandler handler);

    std::string last_error() const;
    std::size_t connection_count() const;
    // True once the server ended without StopServer (its listener failed);
    // the process must then end with an error so a supervisor restarts it.
    bool ended_unexpectedly() const;
    // The connection limiter's cap chosen at the last StartServer.
    std::size_t max_connections() const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;

    static WireServer m_server;
};

extern std::mutex g_send_message_protection;
extern const std::string stop_service_name;

// Request bodies above this get 413 (the largest real one, a test record,
// is a few kilobytes). Above the hard cap the library drops the connection as
// the body arrives, so no request costs more memory than that.
constexpr std::size_t kMaxBodyBytes = 1024 * 1024;
constexpr std::size_t kHardMaxBodyBytes = 4 * 1024 * 1024;

// Parallel connections (WebSockets included) are capped by the limiter; more
// wait in the listen backlog until one closes.
constexpr std::size_t kMinConnections = 16;
constexpr std::size_t kMaxConnections = 4096;

// Raises the soft limit on open files to the hard one; returns the limit now
// in force (0 when it can't be read).
std::size_t raise_open_file_limit();

// The connection cap for a descriptor limit: what is left after a reserve of
// a quarter of the table (at least 256), within kMinConnections and
// kMaxConnections. 1024 descriptors give 768 connections.
std::size_t connection_cap(std::size_t open_file_limit);

// Whether a Host header names this machine: an IPv4 literal, a bracketed IPv6
// literal, or one of the names (case and a final dot ignored), with or
// without a port. Anything else may be a foreign name re-pointed at us.
bool host_is_allowed(const std::string& host_header, const std::vector<std::string>& allowed_names);

// "localhost", this machine's host name (the system's and the facts
// provider's) and the comma-separated names in LANEWRIGHT_ALLOWED_HOSTS.
std::vector<std::string> allowed_host_names();

// "index-TqXFsg1D.css": a bundler's content-hashed asset name.
bool is_hashed_asset(const std::string& file_name);

// Whether an Accept-Encoding value admits gzip ("gzip;q=0" does not).
bool accepts_gzip(const std::string& accept_encoding);

// The data in gzip format; nothing when compression fails.
std::optional<std::string> gzip_compress(const std::string& data);

// Content type by file name extension, for the front-end files.
std::string content_type_for(const std::string& file_name);

// Resolves a path below a root folder; nothing when the path leaves the root
// (through "..", a symbolic link or an absolute path). The path is taken
// percent-decoded.
std::optional<std::string> resolve_inside(const std::string& root, const std::string& relative);

// Standard URL percent-decoding (not the private table of FormatHTTPString).
std::string percent_decode(const std::string& text);

// "a=1&b=x+y%3A" -> {a: "1", b: "x y:"}: form encoding, as browsers send it
// ("+" is a blank). A name without "=" has the empty value; of a name given
// twice the first value counts.
std::map<std::string, std::string> parse_query_string(const std::string& query);

}  // namespace PortHall
