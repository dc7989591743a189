#include "running_service.h"

#include <fstream>
#include <memory>

#include <gtest/gtest.h>
#include <unistd.h>

#include "service/web_back_end.h"
#include "simulator/platform.h"
#include "service/wire_server.h"
#include "wire_client.h"

namespace wire_test {
namespace {

struct ServiceState {
    RunningService info;
    // Configuration space of the stored functions: the embedded machine,
    // reached only through the store (nothing is installed process-wide).
    sim::Platform machine = sim::load_platform("", std::nullopt, 1e6);
    std::unique_ptr<GUIResourceStore> store;
    std::unique_ptr<TestStorage> storage;
    std::unique_ptr<WebBackEnd> backend;
};

ServiceState* g_state = nullptr;

class StopServiceAtEnd : public ::testing::Environment {
public:
    void TearDown() override {
        if (!g_state) return;
        PortHall::WireServer::GetInstance()->StopServer();
        PortHall::WireServer::GetInstance()->Wait();
        g_state->backend.reset();
        std::filesystem::remove_all(g_state->info.ui_folder);
        std::filesystem::remove_all(g_state->info.results_root);
    }
};

[[maybe_unused]] auto* const g_environment = ::testing::AddGlobalTestEnvironment(new StopServiceAtEnd);

}  // namespace

RunningService& running_service() {
    if (g_state) return g_state->info;
    g_state = new ServiceState;
    g_state->info.ui_folder = std::filesystem::temp_directory_path() / ("lanewright_ui_" + std::to_string(::getpid()));
    std::filesystem::create_directories(g_state->info.ui_folder / "static" / "js");
    std::ofstream(g_state->info.ui_folder / "index.html") << "<html>placeholder</html>";
    std::ofstream(g_state->info.ui_folder / "static" / "js" / "app.js") << "console.log(1);";
    std::ofstream(g_state->info.ui_folder / "secret.txt") << "outside static";

    g_state->info.results_root =
        std::filesystem::temp_directory_path() / ("lanewright_results_" + std::to_string(::getpid()));
    g_state->store = std::make_unique<GUIResourceStore>(g_state->info.results_root.string());
    // Functions the queue tests can name: 0:3:0.0, a x4 endpoint that can be
    // margined; 0:4:0.0, one that can't (8 GT/s); 0:80:2.0, a x16 slot with a
    // x8 link (no dies are stored, so it counts as an unmapped port).
    std::vector<PCIDeviceDetails> devices{PCIDeviceDetails(0, 3, 0, 0), PCIDeviceDetails(0, 4, 0, 0),
                                          PCIDeviceDetails(0, 0x80, 2, 0)};
    g_state->store->store_pcie_device_list(devices, g_state->machine.read_pci(), g_state->machine.write_pci());
    g_state->storage = std::make_unique<TestStorage>();
    g_state->backend = std::make_unique<WebBackEnd>(*g_state->store, *g_state->storage);
    g_state->backend->RegisterServices();

    auto* server = PortHall::WireServer::GetInstance();
    g_state->info.port = free_port();
    server->set_port(g_state->info.port);
    server->set_ui_folder(g_state->info.ui_folder.string());
    if (server->StartServer() != 1) throw std::runtime_error("server did not start: " + server->last_error());
    g_state->info.store = g_state->store.get();
    g_state->info.storage = g_state->storage.get();
    return g_state->info;
}

}  // namespace wire_test
