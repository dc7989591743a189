// The queue's check of a posted test record (the steps AddTestToQueue takes
// before a record may queue) over the simulated default machine.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "discovery/pci_detection.h"
#include "gui/gui_resource_store.h"
#include "gui/test_record_checks.h"
#include "hardware/crn_factory.h"
#include "hardware/json_limits.h"
#include "service/web_back_end.h"
#include "simulator/platform.h"

namespace {

GUIResourceStore* g_store = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static const sim::Platform platform = sim::load_platform("");
    platform.install();
    CRNFactory::initalize(platform.read_pci(), platform.write_pci());
    std::vector<PCIDeviceDetails> devices = DetectPCIDevices()(platform.read_pci());
    g_store = new GUIResourceStore("/tmp/lanewright_fuzz_results");
    g_store->store_pcie_device_list(devices, platform.read_pci(), platform.write_pci());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxTestRecordBytes) return 0;
    try {
        const nlohmann::json record =
            parse_json_limited(std::string_view(reinterpret_cast<const char*>(data), size));
        if (!record.is_object()) return 0;
        check_test_record(record, *g_store);
    } catch (const JsonTooDeep&) {
    } catch (const nlohmann::json::exception&) {
        // Answered as a malformed request by the service.
    }
    return 0;
}
