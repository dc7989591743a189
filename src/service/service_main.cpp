#include "service/service_main.h"

#include <iostream>
#include <memory>
#include <new>
#include <thread>

#include "gui/gui_resource_store.h"
#include "gui/hvl_conflict_check.h"
#include "gui/gui_eye_scan_handle_test.h"
#include "gui/gui_hvl_handle_test.h"
#include "gui/gui_pcie_handle_test.h"
#include "gui/max_test_scheduler.h"
#include "gui/test_archive.h"
#include "gui/test_journal.h"
#include "gui/test_runner.h"
#include "gui/test_storage.h"
#include "discovery/pci_detection.h"
#include "hardware/crn_factory.h"
#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/pci_std.h"
#include "service/startup_inventory.h"
#include "service/service_loop.h"
#include "service/shutdown_signals.h"
#include "service/web_back_end.h"
#include "service/wire_server.h"

namespace {

bool platform_refuses_gui(const std::vector<VEX_DIE_INFO>& dies) {
    for (const auto& die : dies) {
        if (die.name() == "KX900A") return true;
    }
    return false;
}

// Tests a killed run left in the journal are archived before anything new
// is queued, in the run folder they belonged to.
void recover_journal(const std::string& root) {
    const JournalRecovery recovery = recover_test_journal(root);
    for (const auto& problem : recovery.problems) Logger::get().log("Test journal: " + problem);
    if (!recovery.archived.empty()) {
        Logger::get().log("Test journal: archived " + std::to_string(recovery.archived.size()) +
                          " test(s) the previous run left unfinished");
    }
}

}  // namespace

int run_service(const ServiceOptions& options) {
    ShutdownSignals::block_in_this_process();

    std::shared_ptr<ReadPCI> read = options.read ? options.read : std::make_shared<ReadPCIStd>();
    std::shared_ptr<WritePCI> write = options.write ? options.write : std::make_shared<WritePCIStd>();
    CRNFactory::initalize(read, write);

    std::vector<PCIDeviceDetails> devices = DetectPCIDevices()(read);
    GUIResourceStore store(options.results_root);
    try {
        store.store_pcie_device_list(devices, read, write);
    } catch (const std::exception& error) {
        // A machine the die tables can't describe; say so rather than abort.
        std::cerr << "Error: die detection failed: " << error.what() << std::endl;
        return 1;
    }
    const std::vector<VEX_DIE_INFO> dies = store.get_die_list();
    HVLConflictCheck::initalize(dies);
    print_inventory(inventory_lines(devices, dies, read));
    if (platform_refuses_gui(dies)) {
        std::cout << "Graphical User Interface is not supported on this platform" << std::endl;
        return 0;
    }

    const std::string root = store.get_directory_for_lanewright();
    recover_journal(root);
    TestStorage storage;
    storage.journal = std::make_shared<TestJournal>(OSSpecific().append_to_path(root, TestJournal::kFileName),
                                                    [&store] { return store.get_directory_for_this_instance(); });
    MaxTestScheduler scheduler(storage, store);
    // The service's flag: raised at shutdown so every running margin stops
    // at its next offset with its lanes back at normal settings.
    PCIE::MarginStopFlag margin_stop;
    TestRunnerRegistry::get().add("PCIe Margin", std::make_shared<PCIeMarginRunner>(margin_stop));
    TestRunnerRegistry::get().add("HVL Destructive Margin", std::make_shared<HVLMarginRunner>(margin_stop));
    TestRunnerRegistry::get().add("EyeScan", std::make_shared<EyeScanRunner>(margin_stop));
    std::unique_ptr<WebBackEnd> backend(new (std::nothrow) WebBackEnd(store, storage));
    if (!backend) {
        std::cout << "Web BackEnd allocation failed." << std::endl;
        return 0;
    }
    backend->RegisterServices();

    auto* server = PortHall::WireServer::GetInstance();
    server->set_port(options.port);
    if (!options.ui_folder.empty()) server->set_ui_folder(options.ui_folder);
    if (server->StartServer() != 1) {
        std::cerr << "Error: " << server->last_error() << std::endl;
        return 1;
    }
    const std::string port = std::to_string(options.port);
    std::cout << "Started server at " << server->GetIP() << ":" << port << std::endl;
    std::cout << "Open the link in any local/remote Web Browser (chrome recommended):  "
              << "http://" << server->GetIP() << ":" << port << std::endl;

    ShutdownSignals signals([server] { server->StopServer(); });
    std::thread poller(poll_thread, &scheduler, std::ref(storage), backend.get());
    server->Wait();
    // Only a stop that was asked for ends with 0; a supervisor restarts
    // anything else.
    const int exit_code = server->ended_unexpectedly() ? 1 : 0;
    if (exit_code != 0) std::cerr << "Error: the web server ended unexpectedly" << std::endl;

    stop_requested = true;
    poller.join();
    // Nothing queued disappears: what never started is archived as such.
    if (const std::size_t dropped = archive_queue_at_stop(storage, store))
        Logger::get().log("Service stopping: archived " + std::to_string(dropped) + " queued test(s) as not started");
    margin_stop.request_stop();
    scheduler.join_all_tests();
    backend.reset();
    return exit_code;
}
