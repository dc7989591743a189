// A deliberately small HTTP/1.1 and WebSocket client over plain sockets, so
// the tests talk to the server exactly as a browser or curl would, including
// requests a well-behaved client library would refuse to send ("/../").
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <string>

#include "service/wire_server.h"

namespace wire_test {

inline int connect_local(unsigned port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        throw std::runtime_error("connect failed");
    }
    return fd;
}

inline unsigned free_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

inline void send_all(int fd, const std::string& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) throw std::runtime_error("send failed");
        sent += static_cast<std::size_t>(n);
    }
}

// Reads whatever arrives within the timeout; empty on timeout or close.
inline std::string receive_some(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, timeout_ms) <= 0) return {};
    char buffer[65536];
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));  // sockets and pipes alike
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string{};
}

struct HttpResponse {
    int status = 0;
    std::map<std::string, std::string> headers;  // lower-case names
    std::string body;
};

inline HttpResponse parse_response(const std::string& raw) {
    HttpResponse response;
    const auto header_end = raw.find("\r\n\r\n");
    if (raw.size() < 12 || header_end == std::string::npos) throw std::runtime_error("no HTTP answer");
    response.status = std::stoi(raw.substr(9, 3));
    std::size_t line_start = raw.find("\r\n") + 2;
    while (line_start < header_end) {
        const auto line_end = raw.find("\r\n", line_start);
        const std::string line = raw.substr(line_start, line_end - line_start);
        const auto colon = line.find(':');
        std::string name = line.substr(0, colon);
        for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::string value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        response.headers[name] = value;
        line_start = line_end + 2;
    }
    response.body = raw.substr(header_end + 4);
    if (response.headers["transfer-encoding"] == "chunked") {
        std::string body;
        std::size_t at = 0;
        for (;;) {
            const auto size_end = response.body.find("\r\n", at);
            if (size_end == std::string::npos) throw std::runtime_error("chunked body cut short");
            const std::size_t size = std::stoul(response.body.substr(at, size_end - at), nullptr, 16);
            if (size == 0) break;
            body += response.body.substr(size_end + 2, size);
            at = size_end + 2 + size + 2;
        }
        response.body = std::move(body);
    }
    return response;
}

// One request on a fresh connection; the server closes it after answering.
inline HttpResponse request(unsigned port, const std::string& method, const std::string& path,
                            const std::string& body = "",
                            const std::map<std::string, std::string>& headers = {}) {
    const int fd = connect_local(port);
    // A "Host" among the headers replaces the usual one.
    std::string text = method + " " + path + " HTTP/1.1\r\nConnection: close\r\n";
    if (!headers.count("Host")) text += "Host: localhost:" + std::to_string(port) + "\r\n";
    for (const auto& [name, value] : headers) text += name + ": " + value + "\r\n";
    if (method == "POST") text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    text += "\r\n" + body;
    send_all(fd, text);
    std::string raw;
    for (;;) {
        const std::string part = receive_some(fd, 5000);
        if (part.empty()) break;
        raw += part;
    }
    ::close(fd);
    return parse_response(raw);
}

// A WebSocket client: text frames in, masked frames out.
class WsClient {
public:
    WsClient(unsigned port, const std::map<std::string, std::string>& headers = {}) : _fd(connect_local(port)) {
        std::string text = "GET /ws HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n";
        if (!headers.count("Host")) text += "Host: localhost:" + std::to_string(port) + "\r\n";
        for (const auto& [name, value] : headers) text += name + ": " + value + "\r\n";
        send_all(_fd, text + "\r\n");
        std::string raw;
        while (raw.find("\r\n\r\n") == std::string::npos) {
            const std::string part = receive_some(_fd, 5000);
            if (part.empty()) break;
            raw += part;
        }
        const auto header_end = raw.find("\r\n\r\n");
        status = header_end == std::string::npos ? 0 : parse_response(raw).status;
        if (header_end != std::string::npos) _buffer = raw.substr(header_end + 4);
    }
    ~WsClient() { close_abruptly(); }

    int status = 0;

    void send_frame(uint8_t opcode, const std::string& payload) {
        std::string frame;
        frame.push_back(static_cast<char>(0x80 | opcode));
        if (payload.size() < 126) {
            frame.push_back(static_cast<char>(0x80 | payload.size()));
        } else {  // up to 64 KiB
            frame.push_back(static_cast<char>(0x80 | 126));
            frame.push_back(static_cast<char>(payload.size() >> 8));
            frame.push_back(static_cast<char>(payload.size() & 0xFF));
        }
        const uint8_t mask[4] = {0x12, 0x34, 0x56, 0x78};
        frame.append(reinterpret_cast<const char*>(mask), 4);
        for (std::size_t i = 0; i < payload.size(); ++i) frame.push_back(static_cast<char>(payload[i] ^ mask[i % 4]));
        send_all(_fd, frame);
    }

    // The next frame as opcode and payload, or nothing within the timeout.
    std::optional<std::pair<uint8_t, std::string>> next_frame(int timeout_ms = 3000) {
        for (;;) {
            if (auto frame = _take_frame()) return frame;
            const std::string part = receive_some(_fd, timeout_ms);
            if (part.empty()) return std::nullopt;
            _buffer += part;
        }
    }

    // Next text frame, skipping control frames.
    std::optional<std::string> next_text(int timeout_ms = 3000) {
        while (auto frame = next_frame(timeout_ms)) {
            if (frame->first == 0x1) return frame->second;
        }
        return std::nullopt;
    }

    void close_abruptly() {
        if (_fd >= 0) ::close(_fd);
        _fd = -1;
    }

private:
    std::optional<std::pair<uint8_t, std::string>> _take_frame() {
        if (_buffer.size() < 2) return std::nullopt;
        const uint8_t opcode = static_cast<uint8_t>(_buffer[0]) & 0x0F;
        uint64_t length = static_cast<uint8_t>(_buffer[1]) & 0x7F;
        std::size_t offset = 2;
        if (length == 126) {
            if (_buffer.size() < 4) return std::nullopt;
            length = (static_cast<uint8_t>(_buffer[2]) << 8) | static_cast<uint8_t>(_buffer[3]);
            offset = 4;
        } else if (length == 127) {
            if (_buffer.size() < 10) return std::nullopt;
            length = 0;
            for (int i = 0; i < 8; ++i) length = (length << 8) | static_cast<uint8_t>(_buffer[2 + i]);
            offset = 10;
        }
        if (_buffer.size() < offset + length) return std::nullopt;
        std::string payload = _buffer.substr(offset, length);
        _buffer.erase(0, offset + length);
        return std::make_pair(opcode, payload);
    }

    int _fd;
    std::string _buffer;
};

// Waits until the server has listed count sockets. The upgrade is answered
// before the socket is listed, so a push sent in between would pass it by.
inline bool wait_for_connections(std::size_t count) {
    for (int i = 0; i < 500; ++i) {
        if (PortHall::WireServer::GetInstance()->connection_count() == count) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace wire_test
