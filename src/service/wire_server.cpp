#include "service/wire_server.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>
#include <unordered_map>

#include <arpa/inet.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <restinio/all.hpp>
#include <restinio/router/boost_regex_engine.hpp>
#include <restinio/websocket/websocket.hpp>

#include "hardware/file_logger.h"
#include "hardware/json_limits.h"
#include "hardware/os_specific.h"
#include "hardware/system_facts.h"

namespace PortHall {

namespace rws = restinio::websocket::basic;
namespace fs = std::filesystem;

// The Boost.Regex engine: the standard library's regex costs half the
// throughput once some sixty routes are tried in turn.
using wire_router_t = restinio::router::express_router_t<restinio::router::boost_regex_engine_t>;
// Every request passes the gate (Host, body size) before the router; the
// connection limiter keeps descriptors in reserve (see connection_cap).
struct wire_traits_t : public restinio::traits_t<restinio::asio_timer_manager_t, restinio::null_logger_t> {
    static constexpr bool use_connection_count_limiter = true;
};
using wire_http_server_t = restinio::http_server_t<wire_traits_t>;
using wire_request_handle_t = restinio::request_handle_t;

std::mutex g_send_message_protection;
const std::string stop_service_name = "/stop";

namespace {

constexpr std::size_t kWorkerCount = 10;
constexpr auto kBroadcastPause = std::chrono::milliseconds(10);

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string reason_phrase(int status) {
    switch (status) {
        case 200: return "OK";
        case 400: return "Bad Request";
        case 403: return "Forbidden";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 413: return "Payload Too Large";
        case 500: return "Internal Server Error";
        case 503: return "Service Unavailable";
        default: return "Status";
    }
}

// One line, so a reason never breaks a log or a status bar.
std::string one_line(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::replace(text.begin(), text.end(), '\r', ' ');
    return text;
}

bool read_whole_file(const std::string& path, std::ios::openmode mode, std::string& out) {
    std::ifstream in(path, mode);
    if (!in) return false;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    out = buffer.str();
    return true;
}

void log_line(const std::string& message) {
    Logger::get().log(message);
}

}  // namespace

const char* method_name(HttpMethod method) {
    return method == HttpMethod::Post ? "POST" : "GET";
}

std::string WireRequest::header(const std::string& lower_case_name) const {
    auto found = headers.find(lower_case_name);
    return found == headers.end() ? std::string{} : found->second;
}

std::optional<std::string> WireRequest::query_value(const std::string& name) const {
    auto found = query.find(name);
    if (found == query.end()) return std::nullopt;
    return found->second;
}

WireResponse WireResponse::text(std::string body, int status) {
    WireResponse response;
    response.status = status;
    response.body = std::move(body);
    return response;
}

WireResponse WireResponse::json(const nlohmann::json& document) {
    WireResponse response;
    response.body = document.dump();
    response.content_type = "application/json";
    return response;
}

// ---------------------------------------------------------------------------
// Request guard

namespace {

// "http://host:port" -> "host:port", with the scheme's default port added.
std::string authority_with_port(const std::string& authority, const std::string& scheme) {
    std::string result = lower(authority);
    bool has_port = false;
    if (!result.empty() && result.front() == '[') {  // IPv6 literal
        has_port = result.find("]:") != std::string::npos;
    } else {
        has_port = result.find(':') != std::string::npos;
    }
    if (!has_port) result += scheme == "https" ? ":443" : ":80";
    return result;
}

}  // namespace

bool WireLogHandler::origin_is_own(const WireRequest& request) {
    const std::string origin = request.header("origin");
    if (origin.empty()) return true;  // curl, scripts, same-origin navigations
    const auto scheme_end = origin.find("://");
    if (scheme_end == std::string::npos) return false;  // "null" and other opaque origins
    const std::string scheme = lower(origin.substr(0, scheme_end));
    std::string authority = origin.substr(scheme_end + 3);
    if (auto slash = authority.find('/'); slash != std::string::npos) authority.resize(slash);
    const std::string host = request.header("host");
    if (host.empty()) return false;
    return authority_with_port(authority, scheme) == authority_with_port(host, "http");
}

std::optional<WireResponse> WireLogHandler::before_handle(const WireRequest& request,
                                                          RouteEffect effect) const {
    if (effect != RouteEffect::ChangesState) return std::nullopt;
    // Browsers mark requests that a page of another site makes; an <img> or a
    // form can reach a GET route without sending any Origin at all.
    const bool cross_site = request.header("sec-fetch-site") == "cross-site";
    if (!origin_is_own(request) || cross_site) {
        log_line("Refused " + request.path + " from origin '" + request.header("origin") + "'");
        return WireResponse::text("Forbidden: requests from pages of other sites are refused", 403);
    }
    return std::nullopt;
}

void WireLogHandler::after_handle(const WireRequest&, WireResponse&) const {}

// ---------------------------------------------------------------------------
// Route table

void WireApp::route(std::string path, HttpMethod method, RouteHandler handler, RouteEffect effect,
                    WireOffload offload) {
    _routes.push_back(WireRoute{std::move(path), method, effect, std::move(handler), std::move(offload)});
}

const WireRoute* WireApp::find(const std::string& path, HttpMethod method) const {
    for (const auto& route : _routes) {
        if (route.path == path && route.method == method) return &route;
    }
    return nullptr;
}

bool WireApp::has_path(const std::string& path) const {
    return std::any_of(_routes.begin(), _routes.end(),
                       [&](const WireRoute& route) { return route.path == path; });
}

WireResponse WireApp::dispatch(const WireRoute& route, const WireRequest& request) const {
    if (auto refusal = _guard.before_handle(request, route.effect)) return *refusal;
    WireResponse response;
    try {
        response = route.handler(request);
    } catch (const BadRequest& error) {
        response = WireResponse::text(one_line(error.what()), 400);
    } catch (const nlohmann::json::exception& error) {
        response = WireResponse::text("Malformed request: " + one_line(error.what()), 400);
    } catch (const std::exception& error) {
        log_line("Error in " + route.path + ": " + error.what());
        response = WireResponse::text("Internal error: " + one_line(error.what()), 500);
    } catch (...) {
        log_line("Unknown error in " + route.path);
        response = WireResponse::text("Internal error", 500);
    }
    _guard.after_handle(request, response);
    return response;
}

// ---------------------------------------------------------------------------
// Helpers for the front-end files

std::string percent_decode(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() &&
            std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::map<std::string, std::string> parse_query_string(const std::string& query) {
    auto decode = [](std::string text) {
        std::replace(text.begin(), text.end(), '+', ' ');
        return percent_decode(text);
    };
    std::map<std::string, std::string> parameters;
    std::size_t start = 0;
    while (start <= query.size()) {
        std::size_t end = query.find('&', start);
        if (end == std::string::npos) end = query.size();
        const std::string pair = query.substr(start, end - start);
        if (!pair.empty()) {
            const auto equals = pair.find('=');
            std::string name = decode(pair.substr(0, equals));
            std::string value = equals == std::string::npos ? std::string{} : decode(pair.substr(equals + 1));
            parameters.emplace(std::move(name), std::move(value));
        }
        start = end + 1;
    }
    return parameters;
}

std::optional<std::string> resolve_inside(const std::string& root, const std::string& relative) {
    const std::string decoded = percent_decode(relative);
    if (decoded.empty() || decoded.find('\0') != std::string::npos) return std::nullopt;
    fs::path rel(decoded);
    if (rel.is_absolute()) return std::nullopt;
    std::error_code ec;
    const fs::path base = fs::weakly_canonical(fs::path(root), ec);
    if (ec) return std::nullopt;
    const fs::path target = fs::weakly_canonical(base / rel, ec);
    if (ec) return std::nullopt;
    auto [base_end, target_it] = std::mismatch(base.begin(), base.end(), target.begin(), target.end());
    if (base_end != base.end() || target_it == target.end()) return std::nullopt;
    return target.string();
}

std::string content_type_for(const std::string& file_name) {
    static const std::unordered_map<std::string, std::string> types = {
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".json", "application/json"},
        {".map", "application/json"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".jpg", "image/jpeg"},
        {".ico", "image/x-icon"},
        {".woff", "font/woff"},
        {".woff2", "font/woff2"},
        {".txt", "text/plain; charset=utf-8"},
        {".csv", "text/csv; charset=utf-8"},
    };
    const auto found = types.find(lower(fs::path(file_name).extension().string()));
    return found == types.end() ? "application/octet-stream" : found->second;
}

// ---------------------------------------------------------------------------
// Host names the service answers to

namespace {

std::string trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// "Name." and "name" are one host.
std::string normal_host_name(std::string name) {
    name = lower(trim(name));
    if (!name.empty() && name.back() == '.') name.pop_back();
    return name;
}

}  // namespace

bool host_is_allowed(const std::string& host_header, const std::vector<std::string>& allowed_names) {
    std::string host = trim(host_header);
    if (host.empty()) return false;
    auto port_is_valid = [](const std::string& port) {
        return !port.empty() && port.size() <= 5 &&
               std::all_of(port.begin(), port.end(), [](unsigned char c) { return std::isdigit(c); });
    };
    if (host.front() == '[') {
        const auto close = host.find(']');
        if (close == std::string::npos) return false;
        const std::string rest = host.substr(close + 1);
        if (!rest.empty() && (rest.front() != ':' || !port_is_valid(rest.substr(1)))) return false;
        in6_addr address{};
        return ::inet_pton(AF_INET6, host.substr(1, close - 1).c_str(), &address) == 1;
    }
    if (const auto colon = host.find(':'); colon != std::string::npos) {
        if (!port_is_valid(host.substr(colon + 1))) return false;
        host.resize(colon);
    }
    in_addr address{};
    if (::inet_pton(AF_INET, host.c_str(), &address) == 1) return true;
    host = normal_host_name(host);
    if (host.empty()) return false;
    return std::any_of(allowed_names.begin(), allowed_names.end(),
                       [&](const std::string& name) { return normal_host_name(name) == host; });
}

std::vector<std::string> allowed_host_names() {
    std::vector<std::string> names{"localhost"};
    char own[256] = {};
    if (::gethostname(own, sizeof(own) - 1) == 0 && own[0] != '\0') names.emplace_back(own);
    // Under the machine model this is the modelled machine's name.
    if (const std::string modelled = system_facts().host_name(); !modelled.empty()) names.push_back(modelled);
    if (const char* listed = std::getenv("LANEWRIGHT_ALLOWED_HOSTS")) {
        std::stringstream list(listed);
        std::string name;
        while (std::getline(list, name, ',')) {
            if (!trim(name).empty()) names.push_back(trim(name));
        }
    }
    return names;
}

// ---------------------------------------------------------------------------
// Descriptors

std::size_t raise_open_file_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    if (limit.rlim_cur < limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = limit.rlim_max;
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    }
    return limit.rlim_cur == RLIM_INFINITY ? std::numeric_limits<std::size_t>::max()
                                           : static_cast<std::size_t>(limit.rlim_cur);
}

std::size_t connection_cap(std::size_t open_file_limit) {
    // A quarter of the table, and never fewer than 256 descriptors, stays free
    // for archive files, the log and the machine's device files. The
    // listener's accept loop ends at the first failed accept (EMFILE), so the
    // connections alone must never be able to fill the table.
    const std::size_t reserve = std::max<std::size_t>(256, open_file_limit / 4);
    const std::size_t room = open_file_limit > reserve ? open_file_limit - reserve : 0;
    return std::clamp<std::size_t>(room, kMinConnections, kMaxConnections);
}

// ---------------------------------------------------------------------------
// Caching and compression of the front-end files

bool is_hashed_asset(const std::string& file_name) {
    // The bundler names assets "name-XXXXXXXX.ext", the eight characters a
    // content hash in base64url. A plain word of eight letters ("settings")
    // is not taken for one: a hash has a digit or a capital letter.
    const std::string stem = fs::path(file_name).stem().string();
    const auto dash = stem.rfind('-');
    if (dash == std::string::npos || dash == 0 || stem.size() - dash - 1 != 8) return false;
    const std::string hash = stem.substr(dash + 1);
    const bool alphabet = std::all_of(hash.begin(), hash.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '_' || c == '-';
    });
    const bool mixed = std::any_of(hash.begin(), hash.end(), [](unsigned char c) {
        return std::isdigit(c) || std::isupper(c);
    });
    return alphabet && mixed && !fs::path(file_name).extension().empty();
}

bool accepts_gzip(const std::string& accept_encoding) {
    std::stringstream list(accept_encoding);
    std::string item;
    while (std::getline(list, item, ',')) {
        const auto semicolon = item.find(';');
        if (lower(trim(item.substr(0, semicolon))) != "gzip") continue;
        if (semicolon == std::string::npos) return true;
        // "gzip;q=0" refuses it.
        std::string parameter = lower(trim(item.substr(semicolon + 1)));
        parameter.erase(std::remove(parameter.begin(), parameter.end(), ' '), parameter.end());
        if (parameter.rfind("q=", 0) != 0) return true;
        try {
            return std::stod(parameter.substr(2)) > 0;
        } catch (const std::exception&) {
            return false;
        }
    }
    return false;
}

std::optional<std::string> gzip_compress(const std::string& data) {
    z_stream stream{};
    // 15 window bits plus 16: a gzip wrapper, which every browser decodes.
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        return std::nullopt;
    }
    std::string out(deflateBound(&stream, static_cast<uLong>(data.size())), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) return std::nullopt;
    return out;
}

namespace {

bool is_compressible(const std::string& content_type) {
    return content_type.rfind("text/", 0) == 0 || content_type.rfind("application/json", 0) == 0 ||
           content_type.rfind("image/svg", 0) == 0;
}

// Compressed copies of the front-end files, made once per file version. The
// bound keeps a folder of unexpected size from growing the process: past it
// the cache starts over.
class GzipCache {
public:
    std::shared_ptr<const std::string> get(const std::string& path, const std::string& bytes) {
        std::error_code ec;
        const auto stamp = fs::last_write_time(path, ec);
        std::lock_guard<std::mutex> lock(_mutex);
        if (auto found = _entries.find(path);
            found != _entries.end() && found->second.stamp == stamp && found->second.size == bytes.size()) {
            return found->second.compressed;
        }
        auto compressed = gzip_compress(bytes);
        if (!compressed || compressed->size() >= bytes.size()) return nullptr;
        if (_total + compressed->size() > kMaxBytes) {
            _entries.clear();
            _total = 0;
        }
        if (auto old = _entries.find(path); old != _entries.end()) {
            _total -= old->second.compressed->size();
            _entries.erase(old);
        }
        auto shared = std::make_shared<const std::string>(std::move(*compressed));
        _total += shared->size();
        _entries[path] = Entry{stamp, bytes.size(), shared};
        return shared;
    }

private:
    static constexpr std::size_t kMaxBytes = 32 * 1024 * 1024;
    struct Entry {
        fs::file_time_type stamp;
        std::size_t size = 0;
        std::shared_ptr<const std::string> compressed;
    };
    std::mutex _mutex;
    std::unordered_map<std::string, Entry> _entries;
    std::size_t _total = 0;
};

}  // namespace

// ---------------------------------------------------------------------------
// The server

struct WireServer::Impl {
    unsigned long port;
    std::string ui_folder;
    WireApp app;
    bool own_routes_added = false;

    std::unique_ptr<wire_http_server_t> server;
    std::thread server_thread;
    mutable std::mutex lifecycle_mutex;  // start, stop and wait
    // Separate from server_thread: Wait() takes the thread out to join it
    // without the lock, and a stop must still reach a server being waited on.
    bool running = false;
    bool stopping = false;
    // The workers ran out of work without a stop: the listener is gone.
    bool ended_unexpectedly = false;
    std::string last_error;
    std::vector<std::string> allowed_hosts;
    std::size_t max_connections = kMaxConnections;
    GzipCache gzip;

    mutable std::mutex connection_mutex;
    std::unordered_map<std::uint64_t, rws::ws_handle_t> connections;
    std::map<std::string, TopicHandler> topics;
    // Tells streamed answers to give up waiting for their clients.
    std::atomic<bool> streams_stopping{false};

    explicit Impl(unsigned long p) : port(p) {}

    static WireRequest convert(const wire_request_handle_t& req) {
        WireRequest request;
        request.method = req->header().method() == restinio::http_method_post() ? HttpMethod::Post
                                                                                  : HttpMethod::Get;
        request.path = std::string(req->header().path());
        request.body = req->body();
        request.query = parse_query_string(std::string(req->header().query()));
        req->header().for_each_field([&](const auto& field) {
            request.headers[lower(std::string(field.name()))] = std::string(field.value());
        });
        return request;
    }

    static restinio::request_handling_status_t answer(const wire_request_handle_t& req,
                                                      const WireResponse& response) {
        // The body is complete before the response object exists: a throw
        // between the two would leave the client without any answer.
        auto builder = req->create_response(restinio::http_status_line_t{
            restinio::http_status_code_t{static_cast<std::uint16_t>(response.status)},
            reason_phrase(response.status)});
        builder.append_header(restinio::http_field::content_type, response.content_type);
        const bool own_cache_rule = std::any_of(response.headers.begin(), response.headers.end(),
                                                [](const auto& field) { return lower(field.first) == "cache-control"; });
        if (!own_cache_rule) builder.append_header(restinio::http_field::cache_control, "no-store");
        for (const auto& [name, value] : response.headers) builder.append_header(name, one_line(value));
        builder.set_body(response.body);
        if (response.after_sent) {
            auto after_sent = response.after_sent;
            return builder.done([after_sent](const asio::error_code&) { after_sent(); });
        }
        return builder.done();
    }

    // Sends a streamed body as chunks with at most two in flight: the
    // producer waits for the client instead of queueing the whole answer.
    class ChunkWriter : public WireBodyWriter {
    public:
        using builder_t = restinio::response_builder_t<restinio::chunked_output_t>;
        ChunkWriter(builder_t& builder, const std::atomic<bool>& stopping)
            : _builder(builder), _stopping(stopping), _state(std::make_shared<State>()) {}

        bool write(std::string piece) override {
            constexpr int kInFlight = 2;
            // A client that takes nothing for this long is given up.
            constexpr auto kStalled = std::chrono::seconds(30);
            {
                std::unique_lock<std::mutex> lock(_state->mutex);
                const auto deadline = std::chrono::steady_clock::now() + kStalled;
                while (_state->in_flight >= kInFlight && !_state->failed) {
                    if (_stopping || std::chrono::steady_clock::now() > deadline) {
                        _state->failed = true;
                        break;
                    }
                    _state->changed.wait_for(lock, std::chrono::milliseconds(100));
                }
                if (_state->failed) return false;
                if (piece.empty()) return true;
                ++_state->in_flight;
            }
            _builder.append_chunk(std::move(piece));
            _builder.flush([state = _state](const asio::error_code& error) {
                std::lock_guard<std::mutex> lock(state->mutex);
                --state->in_flight;
                if (error) state->failed = true;
                state->changed.notify_all();
            });
            return true;
        }

    private:
        struct State {
            std::mutex mutex;
            std::condition_variable changed;
            int in_flight = 0;
            bool failed = false;
        };
        builder_t& _builder;
        const std::atomic<bool>& _stopping;
        std::shared_ptr<State> _state;
    };

    void answer_streamed(const wire_request_handle_t& req, const WireResponse& response) {
        auto builder = req->create_response<restinio::chunked_output_t>(restinio::http_status_line_t{
            restinio::http_status_code_t{static_cast<std::uint16_t>(response.status)},
            reason_phrase(response.status)});
        builder.append_header(restinio::http_field::content_type, response.content_type);
        builder.append_header(restinio::http_field::cache_control, "no-store");
        for (const auto& [name, value] : response.headers) builder.append_header(name, one_line(value));
        ChunkWriter writer(builder, streams_stopping);
        try {
            response.stream(writer);
        } catch (const std::exception& error) {
            // The status line is out already; the client sees a short body.
            log_line(std::string("Streamed answer ended early: ") + error.what());
        }
        builder.done();
    }

    // A route that runs on its own threads: the worker only hands it over.
    restinio::request_handling_status_t offload(const wire_request_handle_t& req, const WireRoute& route) {
        WireRequest request = convert(req);
        auto job = [this, req, route, request = std::move(request)](bool in_time) {
            try {
                if (!in_time) {
                    answer(req, WireResponse::text("Busy: the archive is answering other requests; try again", 503));
                    return;
                }
                WireResponse response = app.dispatch(route, request);
                if (response.stream) {
                    answer_streamed(req, response);
                } else {
                    answer(req, response);
                }
            } catch (const std::exception& error) {
                log_line("Error in " + route.path + ": " + error.what());
            }
        };
        if (route.offload(std::move(job))) return restinio::request_accepted();
        return answer(req, WireResponse::text("Busy: too many archive requests at once; try again", 503));
    }

    WireResponse serve_index() const {
        std::string text;
        const std::string path = OSSpecific().append_to_path(ui_folder, "index.html");
        if (!read_whole_file(path, std::ios::in, text)) return WireResponse::text("File not found (404).");
        WireResponse response = WireResponse::text(std::move(text));
        response.content_type = "text/html; charset=utf-8";
        return response;
    }

    WireResponse serve_static(const std::string& captured, const std::string& accept_encoding) {
        const std::string root = OSSpecific().append_to_path(ui_folder, "static");
        const auto resolved = resolve_inside(root, captured);
        if (!resolved) {
            log_line("Refused static path outside the front-end folder: " + captured);
            return WireResponse::text("403", 403);
        }
        std::string bytes;
        std::error_code ec;
        if (!fs::is_regular_file(*resolved, ec) || !read_whole_file(*resolved, std::ios::binary, bytes)) {
            return WireResponse::text("404");
        }
        const std::string type = content_type_for(*resolved);
        WireResponse response;
        response.content_type = type;
        // Hashed names change with their content, so a browser may keep them
        // for good; anything else is asked for again.
        if (is_hashed_asset(*resolved)) {
            response.headers.emplace_back("Cache-Control", "public, max-age=31536000, immutable");
        }
        if (is_compressible(type)) {
            response.headers.emplace_back("Vary", "Accept-Encoding");
            if (accepts_gzip(accept_encoding)) {
                if (auto compressed = gzip.get(*resolved, bytes)) {
                    response.headers.emplace_back("Content-Encoding", "gzip");
                    response.body = *compressed;
                    return response;
                }
            }
        }
        response.body = std::move(bytes);
        return response;
    }

    void on_ws_message(const rws::ws_handle_t& wsh, const rws::message_handle_t& message) {
        switch (message->opcode()) {
            case rws::opcode_t::ping_frame: {
                std::lock_guard<std::mutex> lock(connection_mutex);
                try {
                    wsh->send_message(rws::final_frame, rws::opcode_t::pong_frame, message->payload());
                } catch (const std::exception&) {
                }
                return;
            }
            case rws::opcode_t::connection_close_frame: {
                std::string reason;
                if (message->payload().size() >= 2) {
                    reason = std::to_string(static_cast<unsigned>(
                        rws::status_code_from_bin(message->payload())));
                }
                log_line("websocket connection closed: " + reason);
                std::lock_guard<std::mutex> lock(connection_mutex);
                connections.erase(wsh->connection_id());
                try {
                    wsh->send_message(rws::final_frame, rws::opcode_t::connection_close_frame,
                                      rws::status_code_to_bin(rws::status_code_t::normal_closure));
                } catch (const std::exception&) {
                }
                wsh->shutdown();
                return;
            }
            case rws::opcode_t::text_frame:
                handle_topic_message(message->payload());
                return;
            default:
                return;
        }
    }

    // Inbound messages name a topic; a handler registered for it gets the
    // "Message" value. A malformed message is reported and the socket stays.
    void handle_topic_message(const std::string& data) {
        try {
            const auto document = parse_json_limited(data);
            const std::string topic = document.at("Topic").get<std::string>();
            const nlohmann::json& value = document.at("Message");
            TopicHandler handler;
            {
                std::lock_guard<std::mutex> lock(connection_mutex);
                auto found = topics.find(topic);
                if (found == topics.end()) return;
                handler = found->second;
            }
            handler(value);
        } catch (const std::exception& error) {
            std::cerr << "Exception: " << error.what() << std::endl;
        }
    }

    // Refusals every request gets before routing, the socket upgrade included.
    std::optional<WireResponse> gate(const wire_request_handle_t& req) const {
        const auto& header = req->header();
        // A browser always names the host it thinks it talks to; a page whose
        // name was re-pointed at this machine (DNS rebinding) names its own.
        // Requests without a Host (HTTP/1.0 tools) can't come from a page and
        // are let through.
        if (header.has_field(restinio::http_field::host)) {
            const std::string host(header.get_field(restinio::http_field::host));
            if (!host_is_allowed(host, allowed_hosts)) {
                log_line("Refused request for host '" + one_line(host) + "'");
                return WireResponse::text(
                    "Forbidden: host name '" + one_line(host) +
                        "' is not this machine's; add it to LANEWRIGHT_ALLOWED_HOSTS to allow it",
                    403);
            }
        }
        if (req->body().size() > kMaxBodyBytes) {
            return WireResponse::text("Request body larger than " + std::to_string(kMaxBodyBytes / 1024 / 1024) +
                                          " MiB",
                                      413);
        }
        return std::nullopt;
    }

    restinio::request_handling_status_t upgrade(const wire_request_handle_t& req) {
        const WireRequest request = convert(req);
        if (auto refusal = WireLogHandler().before_handle(request, RouteEffect::ChangesState)) {
            return answer(req, *refusal);
        }
        if (restinio::http_connection_header_t::upgrade != req->header().connection()) {
            return answer(req, WireResponse::text("Expected a WebSocket upgrade", 400));
        }
        rws::ws_handle_t wsh;
        try {
            wsh = rws::upgrade<wire_traits_t>(
                *req, rws::activation_t::delayed,
                [this](rws::ws_handle_t handle, rws::message_handle_t message) {
                    on_ws_message(handle, message);
                });
        } catch (const std::exception& error) {
            log_line(std::string("WebSocket upgrade failed: ") + error.what());
            return restinio::request_rejected();
        }
        log_line("new websocket connection");
        {
            std::lock_guard<std::mutex> lock(connection_mutex);
            connections.emplace(wsh->connection_id(), wsh);
            // Reading starts only once the socket is in the set, so a close
            // that arrives at once cannot leave a stale entry behind.
            activate(*wsh);
        }
        return restinio::request_accepted();
    }

    std::shared_ptr<wire_router_t> build_router() {
        auto router = std::make_shared<wire_router_t>();
        for (const auto& route : app.routes()) {
            auto handler = [this, route](const wire_request_handle_t& req, auto) {
                if (route.offload) return offload(req, route);
                const WireRequest request = convert(req);
                const WireResponse response = app.dispatch(route, request);
                return answer(req, response);
            };
            if (route.method == HttpMethod::Post) {
                router->http_post(route.path, handler);
            } else {
                router->http_get(route.path, handler);
            }
        }
        router->http_get("/static/:path(.*)", [this](const wire_request_handle_t& req, auto params) {
            const std::string accept_encoding(
                req->header().get_field_or(restinio::http_field::accept_encoding, std::string{}));
            return answer(req, serve_static(std::string(params["path"]), accept_encoding));
        });
        router->http_get("/ws", [this](const wire_request_handle_t& req, auto) { return upgrade(req); });
        router->non_matched_request_handler([this](const wire_request_handle_t& req) {
            const std::string path(req->header().path());
            if (app.has_path(path)) return answer(req, WireResponse::text("Method Not Allowed", 405));
            return answer(req, WireResponse::text("Not Found", 404));
        });
        return router;
    }

    void close_all_sockets() {
        std::lock_guard<std::mutex> lock(connection_mutex);
        for (auto& [id, wsh] : connections) {
            try {
                wsh->kill();
            } catch (const std::exception&) {
            }
        }
        connections.clear();
    }
};

WireServer WireServer::m_server(9970);

WireServer::WireServer(unsigned long port) : _impl(std::make_unique<Impl>(port)) {
    _impl->ui_folder = OSSpecific().append_to_path(OSSpecific().get_exe_folder(), "UI");
}

WireServer::~WireServer() {
    StopServer();
    Wait();
}

WireServer* WireServer::GetInstance() { return &m_server; }

void WireServer::Init() { m_server.StartServer(); }

WireApp& WireServer::App() { return _impl->app; }

int WireServer::StartServer() {
    std::lock_guard<std::mutex> lock(_impl->lifecycle_mutex);
    if (_impl->running) return 1;
    if (!_impl->own_routes_added) {
        _impl->app.route("/", HttpMethod::Get, [this](const WireRequest&) { return _impl->serve_index(); });
        _impl->app.route(
            stop_service_name, HttpMethod::Get,
            [](const WireRequest&) {
                WireResponse response = WireResponse::text("");
                response.after_sent = [] { GetInstance()->StopServer(); };
                return response;
            },
            RouteEffect::ChangesState);
        _impl->own_routes_added = true;
    }
    _impl->allowed_hosts = allowed_host_names();
    _impl->max_connections = connection_cap(raise_open_file_limit());
    try {
        _impl->server = std::make_unique<wire_http_server_t>(
            restinio::own_io_context(), [this](auto& settings) {
                std::shared_ptr<wire_router_t> router = _impl->build_router();
                settings.port(static_cast<std::uint16_t>(_impl->port))
                    .address("0.0.0.0")
                    // An archive query over a large, not yet indexed archive
                    // may take longer than the library's 10 s.
                    .handle_request_timeout(std::chrono::seconds(60))
                    .max_parallel_connections(_impl->max_connections)
                    // Beyond these the library drops the connection as the
                    // headers or body arrive, before buffering more; bodies
                    // between kMaxBodyBytes and the hard cap get a 413.
                    .incoming_http_msg_limits(restinio::incoming_http_msg_limits_t{}
                                                  .max_url_size(16 * 1024)
                                                  .max_field_name_size(1024)
                                                  .max_field_value_size(32 * 1024)
                                                  .max_field_count(100)
                                                  .max_body_size(kHardMaxBodyBytes))
                    .request_handler([this, router](const wire_request_handle_t& req) {
                        if (auto refusal = _impl->gate(req)) return Impl::answer(req, *refusal);
                        return (*router)(req);
                    });
            });
        _impl->server->open_sync();
    } catch (const std::exception& error) {
        _impl->last_error = "Unable to listen on port " + std::to_string(_impl->port) + ": " + error.what();
        _impl->server.reset();
        return 0;
    }
    _impl->running = true;
    _impl->stopping = false;
    _impl->streams_stopping = false;
    _impl->ended_unexpectedly = false;
    _impl->last_error.clear();
    _impl->server_thread = std::thread([this] {
        std::vector<std::thread> workers;
        for (std::size_t i = 0; i < kWorkerCount; ++i) {
            workers.emplace_back([this] {
                // A handler's exception ends only that call of run(); the
                // worker goes back to work.
                for (;;) {
                    try {
                        _impl->server->io_context().run();
                        return;
                    } catch (const std::exception& error) {
                        log_line(std::string("Server worker caught: ") + error.what());
                    } catch (...) {
                        log_line("Server worker caught an unknown exception");
                    }
                }
            });
        }
        for (auto& worker : workers) worker.join();
        std::lock_guard<std::mutex> lock(_impl->lifecycle_mutex);
        if (!_impl->stopping) {
            _impl->ended_unexpectedly = true;
            log_line("The web server ended without being asked to stop (its listener failed)");
        }
    });
    return 1;
}

int WireServer::StopServer() {
    std::lock_guard<std::mutex> lock(_impl->lifecycle_mutex);
    if (!_impl->running || _impl->stopping) return 1;
    _impl->stopping = true;
    _impl->streams_stopping = true;
    _impl->close_all_sockets();
    restinio::initiate_shutdown(*_impl->server);
    return 1;
}

int WireServer::Wait() {
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(_impl->lifecycle_mutex);
        if (!_impl->server_thread.joinable()) return 0;
        thread = std::move(_impl->server_thread);
    }
    thread.join();
    std::lock_guard<std::mutex> lock(_impl->lifecycle_mutex);
    _impl->close_all_sockets();
    _impl->server.reset();
    _impl->running = false;
    _impl->stopping = false;
    return 1;
}

std::string WireServer::GetIP() {
    static std::string cached;
    static std::mutex cached_mutex;
    std::lock_guard<std::mutex> lock(cached_mutex);
    if (!cached.empty()) return cached;
    // Connecting a UDP socket sends nothing; it only makes the kernel pick the
    // interface that routes outwards. A literal documentation address avoids
    // a name lookup, which on a machine without network can hang for seconds.
    try {
        asio::io_context context;
        asio::ip::udp::socket socket(context);
        const asio::ip::udp::endpoint outside(asio::ip::make_address_v4("192.0.2.1"), 9);
        socket.open(asio::ip::udp::v4());
        socket.connect(outside);
        const std::string address = socket.local_endpoint().address().to_string();
        if (address == "0.0.0.0") return "localhost";
        cached = address;
        return cached;
    } catch (const std::exception&) {
        return "localhost";
    }
}

int WireServer::SendWSMessage(const std::string& message) {
    std::lock_guard<std::mutex> send_lock(g_send_message_protection);
    {
        std::lock_guard<std::mutex> lock(_impl->connection_mutex);
        for (auto& [id, wsh] : _impl->connections) {
            try {
                wsh->send_message(rws::final_frame, rws::opcode_t::text_frame,
                                  restinio::writable_item_t{std::string(message)});
            } catch (const std::exception&) {
                // The socket closed under us; its close handler removes it.
            }
        }
    }
    // Paces bursts: every sender queues behind this pause.
    std::this_thread::sleep_for(kBroadcastPause);
    return 1;
}

std::string WireServer::FormatHTTPString(std::string text) {
    // The front end sends JSON fragments in this private form; the table is
    // not the URL standard's and its key order decides overlapping cases
    // ("%2520" gives "%20" because "%20" was already passed).
    static const std::map<std::string, std::string> table = {
        {"%20", " "},  {"%21", "!"},  {"%22", "\""}, {"%23", "#"},  {"%24", "$"},
        {"%25", "%"},  {"%26", "&"},  {"%27", "'"},  {"%28", "("},  {"%29", ")"},
        {"%2A", "*"},  {"%2B", "+"},  {"%2C", "},"}, {"%2D", "-"},  {"%2E", "."},
        {"%2F", "/"},  {"%3A", ":"},  {"%3B", "},"}, {"%3C", "<"},  {"%3D", ","},
        {"%3E", ">"},  {"%3F", "?"},  {"%40", "@"},  {"%5B", "{"},  {"%5C", "\\"},
        {"%5D", ""},   {"%5E", "^"},  {"%5F", "_"},  {"%60", "`"},  {"%7B", "{"},
        {"%7C", "|"},  {"%7D", "}"},  {"%7E", "~"},  {"%E2%82%AC", "`"}, {"X|X", "\\"},
    };
    for (const auto& [code, replacement] : table) {
        std::size_t position = 0;
        while ((position = text.find(code, position)) != std::string::npos) {
            text.replace(position, code.size(), replacement);
            position += replacement.size();
        }
    }
    return text;
}

void WireServer::set_port(unsigned long port) { _impl->port = port; }
unsigned long WireServer::port() const { return _impl->port; }
void WireServer::set_ui_folder(std::string folder) { _impl->ui_folder = std::move(folder); }
std::string WireServer::ui_folder() const { return _impl->ui_folder; }

void WireServer::set_topic_handler(const std::string& topic, TopicHandler handler) {
    std::lock_guard<std::mutex> lock(_impl->connection_mutex);
    _impl->topics[topic] = std::move(handler);
}

std::string WireServer::last_error() const { return _impl->last_error; }

bool WireServer::ended_unexpectedly() const {
    std::lock_guard<std::mutex> lock(_impl->lifecycle_mutex);
    return _impl->ended_unexpectedly;
}

std::size_t WireServer::max_connections() const { return _impl->max_connections; }

std::size_t WireServer::connection_count() const {
    std::lock_guard<std::mutex> lock(_impl->connection_mutex);
    return _impl->connections.size();
}

}  // namespace PortHall
