#include "gui/gui_hvl_get_device.h"

#include "discovery/hvl_links.h"
#include "hardware/resource_lock.h"
#include "margin_hvl/hvl_link_operations.h"
#include "margin_hvl/hvl_margin_handler.h"

using nlohmann::json;

namespace {

bool init_done = false;
json json_data;

json numbers(unsigned int count) {
    json lanes = json::array();
    for (unsigned int lane = 0; lane < count; ++lane) lanes.push_back(lane);
    return lanes;
}

}  // namespace

json GUIHVLGetDevice::_get_eyescan_data() const {
    return {{"BER",
             {"7.65", "7.345", "7.045", "6.745", "6.445", "6.145", "5.84", "5.54", "5.24", "4.94", "4.64", "4.335",
              "4.035", "3.735"}},
            {"Lanes", numbers(16)}};
}

json GUIHVLGetDevice::get_device_list(std::vector<PCIDeviceDetails>) const {
    NamedLockGuard guard("GUIPCIEGetDevice");
    if (init_done) return json_data;
    const std::vector<VEX_DIE_INFO> dies = _store.get_die_list();
    bool second_socket = false;
    for (const VEX_DIE_INFO& die : dies) second_socket = second_socket || ((die.is_cpu || die.is_apu) && die.socket() != 0);
    if (!second_socket) return json_data;

    json list = json::array();
    for (const VEX_DIE_INFO& die : dies) {
        std::shared_ptr<GenerateHVLLinkInfoList> generator;
        try {
            generator = get_hvl_info_list_generator(die, dies);
        } catch (const std::runtime_error&) {
            continue;  // a die of a platform without hVL
        }
        for (const CorvaneHVLLinkStatus::LinkStatus& link : CorvaneHVLLinkStatus(die)()) {
            static const char* const kWidths[] = {" x4", " x8", " x16"};
            json info = {{"DeviceName", die.full_name()},
                         {"Speed", std::to_string(link.data_rate) + "Gts"},
                         {"Width", kWidths[link.width > 2 ? 2 : link.width]},
                         {"SERDES", link.link},
                         {"Socket", die.socket()},
                         {"Die", die.die()}};
            if (const auto partner = find_hvl_partner_end(die, link.link, dies)) {
                info["PartnerDeviceName"] = partner->die.full_name();
                info["PartnerSERDES"] = partner->link;
                info["PartnerSocket"] = partner->die.socket();
                info["PartnerDie"] = partner->die.die();
                try {
                    info["LaneReversed"] = generator->is_lane_reversed(die, link.link, 0);
                } catch (const std::runtime_error&) {
                }
            }
            list.push_back({{"SERDES", {{"DeviceName", die.full_name()}, {"SERDES", link.link}}},
                            {"HVLCtrlInfo", info},
                            {"HVLDestMarginSupported", true},
                            {"HVLDestMarginData",
                             {{"BER", {"8", "9", "10", "11", "12", "13", "14"}},
                              {"ErrCnt", {{"Max", 63}, {"Min", 1}}},
                              {"Lanes", numbers(16)}}},
                            {"EyeScanSupported", true},
                            {"EyeScanData", _get_eyescan_data()},
                            {"NonDestMarginSupported", false},
                            {"NonDestMarginData", _get_eyescan_data()}});
        }
    }
    json_data = list;
    init_done = true;
    return json_data;
}

void GUIHVLGetDevice::forget_cached_list() {
    NamedLockGuard guard("GUIPCIEGetDevice");
    init_done = false;
    json_data = json();
}
