// The least a server on this HTTP library can do for one GET: same router
// engine, same worker count, a fixed JSON answer. Usage: bare_http_server PORT
#include <cstdlib>
#include <iostream>

#include <restinio/all.hpp>
#include <restinio/router/boost_regex_engine.hpp>

using router_t = restinio::router::express_router_t<restinio::router::boost_regex_engine_t>;
struct traits_t : public restinio::traits_t<restinio::asio_timer_manager_t, restinio::null_logger_t, router_t> {};

int main(int argc, char** argv) {
    const auto port = static_cast<std::uint16_t>(argc > 1 ? std::atoi(argv[1]) : 9980);
    auto router = std::make_unique<router_t>();
    router->http_get("/api/GetLANEWRIGHTVersion", [](auto req, auto) {
        return req->create_response()
            .append_header(restinio::http_field::content_type, "application/json")
            .set_body(R"({"Tool_Version":"5.1.56"})")
            .done();
    });
    restinio::run(restinio::on_thread_pool<traits_t>(10).port(port).address("127.0.0.1").request_handler(std::move(router)));
    return 0;
}
