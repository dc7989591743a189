#include "result_data/eq_data.h"

#include "discovery/e32_phy.h"
#include "discovery/lane_generic_information.h"
#include "hardware/crn_factory.h"

#include <iostream>
#include <optional>
#include <stdexcept>
#include <utility>

#include "hardware/chips/equalisation_fields.h"
#include "hardware/register_storage.h"

namespace eq = chips::equalisation;
using nlohmann::json;

json RxEq::to_json() const {
    json out{{"RxEqValid", valid}};
    if (!valid) return out;
    out["ctleidx"] = ctleidx;
    out["H0"] = H0;
    out["H1"] = H1;
    out["H2"] = H2;
    out["H3"] = H3;
    out["iq"] = iq;
    out["vga"] = vga;
    return out;
}

std::string preset_from_coefficients(unsigned int pre, unsigned int post) {
    for (const auto& entry : eq::kPresets)
        if (entry.pre == pre && entry.post == post) return entry.preset;
    return eq::kOtherPreset;
}

CorvaneEQData::CorvaneEQData(std::string link, VEX_DIE_INFO die) : _link(std::move(link)), _die(std::move(die)) {}

RxEq CorvaneEQData::get_rx_eq(unsigned int lane) {
    try {
        const auto store = get_register_store(_die);
        const auto accessor = CRNFactory::instance()->get_crn_accessor(_die);
        const auto lanes = get_lane_generic_info(_die);
        const auto phy = std::make_shared<PhyAccessor>(accessor);
        const LaneProtocol protocol = CorvaneCheckControllerType(_link, lane, store, lanes)();
        if (protocol != PCIe && protocol != hVL_TEXL) return RxEq{};
        auto commands = std::make_shared<CorvaneE32PCSCommands>(_link, lane, store);
        if (!commands->check_if_override_is_working()) return RxEq{};
        // The record is read with the override held, so the firmware doesn't
        // rewrite it under the reader; a grant that doesn't come in 20 ms
        // means no record this time.
        commands->set_abandon_check([round = 0]() mutable { return ++round > 20; });
        if (!commands->enable_override()) {
            commands->disable_override();
            return RxEq{};
        }
        CorvaneE32LANEDATA data;
        try {
            CorvaneVersionCheck version(_link, _die, commands);
            const unsigned int number = version();
            data = GetCorvaneE32LaneData(_link, lane, phy, lanes)(number, version.full_version());
        } catch (const std::runtime_error&) {
            commands->disable_override();
            return RxEq{};
        }
        commands->disable_override();
        if (!data.active_cache_valid() || data.active_cache >= data.rxadapt.size()) return RxEq{};
        const auto& adapt = data.rxadapt[data.active_cache];
        RxEq rx;
        rx.valid = true;
        rx.ctleidx = adapt.ctleidx;
        rx.vga = adapt.vga;
        rx.iq = adapt.iq;
        // Each tap is kept as a pair of sampler readings; the tap is half
        // their difference, in DAC steps.
        double* taps[] = {&rx.H0, &rx.H1, &rx.H2, &rx.H3};
        for (size_t tap = 0; tap < adapt.taps.size(); ++tap)
            *taps[tap] = (adapt.taps[tap].second - adapt.taps[tap].first) / 2.0;
        return rx;
    } catch (const std::runtime_error&) {
        return RxEq{};
    }
}

TxEq CorvaneEQData::get_tx_eq_local(unsigned int lane) {
    try {
        const auto store = get_register_store(_die);
        // Point the PHY's broadcast registers at the lane's quad before
        // touching its lane registers.
        const int quad = static_cast<int>(lane >> 2);
        const unsigned int masks[] = {1, 2, 4, 8};
        const char* const broadcast[] = {"CMN_BMASK6", "CMN_BMASKA", "CMN_BMASKC", "CMN_BMASKE"};
        for (int i = 0; i < 4; ++i) store->get_chiplet_register(broadcast[i], _link, quad)->write(masks[i]);

        const int at = static_cast<int>(lane);
        const unsigned int pre = eq::kFfeCoefficient.extract(store->get_lane_register("TX_FFE_COEF0", _link, at)->read());
        const unsigned int post = eq::kFfeCoefficient.extract(store->get_lane_register("TX_FFE_COEF1", _link, at)->read());
        const unsigned int pcs = store->get_lane_register("PCS_LANEX_COEFF", _link, at)->read();

        TxEq tx;
        tx.valid = 1;
        tx.pre = pre;
        tx.post = post;
        tx.preset = preset_from_coefficients(pre, post);
        const bool matched = pre == eq::kPcsPre.extract(pcs) && post == eq::kPcsPost.extract(pcs);
        tx.matched = matched ? 1 : 0;
        tx.main = matched ? static_cast<int32_t>(eq::kPcsMain.extract(pcs)) : -1;
        return tx;
    } catch (const std::runtime_error&) {
        // A lane the chip's tables or accessor can't reach has no record.
        return TxEq{};
    }
}

C20EQData::C20EQData(std::string link, VEX_DIE_INFO die) : _link(std::move(link)), _die(std::move(die)) {}

RxEq C20EQData::get_rx_eq(unsigned int) { return RxEq{}; }

TxEq C20EQData::get_tx_eq_local(unsigned int) { return TxEq{}; }

std::shared_ptr<EQData> get_eq_data(std::string link, VEX_DIE_INFO die) {
    const std::string name = die.name();
    for (const char* corvane : {"Corvane", "Dellmar", "KX900A", "KX900X", "KX900C", "KX800"})
        if (name == corvane) return std::make_shared<CorvaneEQData>(std::move(link), std::move(die));
    for (const char* c20 : {"Ferrow", "Ferrow2", "Sabrel1", "Sabrel2", "Sabrel Crown", "Hesk31", "Hesk32"})
        if (name == c20) return std::make_shared<C20EQData>(std::move(link), std::move(die));
    throw std::runtime_error("Error in get_eq_data. Did not handle " + name);
}

// ---- PCIe controller view ----

namespace {

void field_json(const char* name, const PCIETxEqCorvane::Field& field, json& out) {
    out[name] = field.value;
    out[std::string(name) + "Got"] = field.got;
}

// "8 GT/s" and "8GT/s" name the same rate; 0 for anything below 8 GT/s.
unsigned int speed_gt(std::string speed) {
    std::erase(speed, ' ');
    if (speed == "8GT/s") return 8;
    if (speed == "16GT/s") return 16;
    if (speed == "32GT/s") return 32;
    return 0;
}

struct RateRegisters {
    const char* lane;
    const char* lc;
    chips::IdentityField upstream;
    unsigned int selector;
};

std::optional<RateRegisters> rate_registers(unsigned int gt, const PortMap& port) {
    if (gt == 8) return RateRegisters{"PCIE_LANE_EQUALIZATION_CNTL", "PCIE_LC_EQ_CNTL_8GT", eq::kPreset8Upstream,
                                      eq::kSelector8GT};
    if (gt == 32) return RateRegisters{"LANE_EQUALIZATION_CNTL_32GT", "PCIE_LC_EQ_CNTL_32GT", eq::kPresetUpstream,
                                       eq::kSelector32GT};
    if (gt != 16) return std::nullopt;
    const char* lane = "LANE_EQUALIZATION_CNTL_16GT";
    if (port.esm_active && port.esm_speed == 20) lane = "ESM_LANE_EQUALIZATION_CNTL_20GT";
    if (port.esm_active && port.esm_speed == 25) lane = "ESM_LANE_EQUALIZATION_CNTL_25GT";
    return RateRegisters{lane, "PCIE_LC_EQ_CNTL_16GT", eq::kPresetUpstream, eq::kSelector16GT};
}

// The port whose bridge is the device, else the one whose buses hold it.
std::pair<const VEX_DIE_INFO*, const PortMap*> find_port(const PCIE::Device_ID& device,
                                                         const std::map<VEX_DIE_INFO, std::vector<PortMap>>& ports) {
    for (const auto& [die, list] : ports)
        for (const PortMap& port : list)
            if (port.device == device) return {&die, &port};
    for (const auto& [die, list] : ports)
        for (const PortMap& port : list)
            if (port.device.segment == device.segment && port.secondary_bus != 0 &&
                device.bus >= port.secondary_bus && device.bus <= port.subordinate_bus)
                return {&die, &port};
    return {nullptr, nullptr};
}

PCIETxEqCorvane::Field got(unsigned int value) { return PCIETxEqCorvane::Field{true, value}; }

}  // namespace

json PCIETxEqCorvane::LaneEq::to_json() const {
    json out = json::object();
    field_json("TxPreset", TxPreset, out);
    field_json("LCBestPreset", LCBestPreset, out);
    field_json("LCLocalPreset", LCLocalPreset, out);
    field_json("USPTxPreset", USPTxPreset, out);
    field_json("LCLocalPreCursor", LCLocalPreCursor, out);
    field_json("LCLocalCursor", LCLocalCursor, out);
    field_json("LCLocalPostCursor", LCLocalPostCursor, out);
    field_json("LCBestPreCursor", LCBestPreCursor, out);
    field_json("LCBestCursor", LCBestCursor, out);
    field_json("LCBestPostCursor", LCBestPostCursor, out);
    field_json("LCBestFom", LCBestFom, out);
    return out;
}

json PCIETxEqCorvane::Output::lane_json(unsigned int lane) const {
    const auto it = lanes.find(lane);
    return it == lanes.end() ? LaneEq{}.to_json() : it->second.to_json();
}

PCIETxEqCorvane::Output PCIETxEqCorvane::operator()(const Input& input,
                                                    const std::map<VEX_DIE_INFO, std::vector<PortMap>>& ports) const {
    Output output;
    for (unsigned int lane : input.lanes) output.lanes[lane] = LaneEq{};
    const auto [die, port] = find_port(input.device, ports);
    if (!port) return output;
    const auto rate = rate_registers(speed_gt(input.speed.empty() ? port->speed : input.speed), *port);
    if (!rate) return output;

    std::shared_ptr<RegisterStorage> store;
    std::shared_ptr<Register> debug, local, best;
    bool mode = false;
    const std::string& core = port->core;
    const unsigned int index = port->function_index;
    try {
        store = get_register_store(*die);
        debug = store->get_pcie_core_func_register("PCIE_LC_DEBUG_CNTL", core, index);
        local = store->get_pcie_core_func_register("PCIE_LC_CNTL5", core, index);
        best = store->get_pcie_core_func_register("PCIE_LC_BEST_EQ_SETTINGS", core, index);
        mode = eq::kLcEqMode.extract(store->get_pcie_core_func_register(rate->lc, core, index)->read()) != 0;
    } catch (const std::runtime_error&) {
        return output;  // a die or port the chip's tables can't reach
    }

    for (unsigned int lane : input.lanes) {
        const auto physical = port->logical_to_controller_lane.find(lane);
        if (physical == port->logical_to_controller_lane.end()) {
            std::cout << "Error: Failed to find physical lane for logical lane " << lane << "." << std::endl;
            continue;
        }
        if (!port->logical_to_serdes_lane.count(lane)) {
            std::cout << "Error: Failed to logical lane sereial number  for physical lane " << physical->second
                      << std::endl;
            continue;
        }
        LaneEq& out = output.lanes[lane];
        try {
            out.lc_eq_mode = mode;
            const unsigned int presets =
                store->get_pcie_core_func_lane_register(rate->lane, core, index, lane)->read();
            const chips::IdentityField downstream = rate->selector == eq::kSelector8GT ? eq::kPreset8Downstream
                                                                                      : eq::kPresetDownstream;
            out.TxPreset = got(downstream.extract(presets));
            out.USPTxPreset = got(rate->upstream.extract(presets));

            if (physical->second >= 32 - eq::kDebugLaneSelectShift)
                throw std::runtime_error("controller lane beyond the lane select");
            const unsigned int select = (debug->read() & eq::kDebugKeepMask) |
                                        (1u << physical->second) << eq::kDebugLaneSelectShift;
            debug->write(select);
            local->write((local->read() & ~eq::kLocalSelector.place(eq::kLocalSelector.mask)) |
                         eq::kLocalSelector.place(rate->selector));
            const unsigned int local_value = local->read();
            out.LCLocalPreset = got(eq::kLocalPreset.extract(local_value));
            out.LCLocalPreCursor = got(eq::kLocalPreCursor.extract(local_value));
            out.LCLocalCursor = got(eq::kLocalCursor.extract(local_value));
            out.LCLocalPostCursor = got(eq::kLocalPostCursor.extract(local_value));

            debug->write(select);
            best->write(eq::kBestSelector.place(rate->selector));
            const unsigned int best_value = best->read();
            out.LCBestPreset = got(eq::kBestPreset.extract(best_value));
            out.LCBestPreCursor = got(eq::kBestPreCursor.extract(best_value));
            out.LCBestCursor = got(eq::kBestCursor.extract(best_value));
            out.LCBestPostCursor = got(eq::kBestPostCursor.extract(best_value));
            out.LCBestFom = got(eq::kBestFom.extract(best_value));
        } catch (const std::runtime_error&) {
            out = LaneEq{};  // a lane that can't be read shows nothing got
        }
    }
    return output;
}
