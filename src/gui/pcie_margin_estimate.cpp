#include "gui/pcie_margin_estimate.h"

#include <cmath>
#include <optional>
#include <string>

#include "discovery/pci_capability.h"
#include "discovery/pci_readers.h"
#include "discovery/port_mapping.h"
#include "gui/gui_resource_store.h"
#include "gui/test_record_checks.h"
#include "hardware/os_specific.h"
#include "margin_pcie/execute_lane_margin_command.h"
#include "margin_pcie/margin_pcie_utils.h"
#include "margin_pcie/margin_plan.h"

using nlohmann::json;

namespace {

constexpr unsigned int kBusyPollMs = 10, kBusyWaitMs = 1000;

json refusal(const std::string& reason) { return {{"OperationStatus", false}, {"ErrMsg", reason}}; }

// Bits per second of the link, as the engine takes it for its dwell: a mapped
// port at 16 GT/s running ESM counts at the ESM rate.
std::optional<double> data_rate(const PCIE::Device_ID& id, GUIResourceStore& store, std::string& err) {
    const auto read = store.get_read_accessor();
    PCIE::DetectThisPCIECapability capability(id, *read);
    PCIE::LINK_SPEEDS speed = PCIE::SPEED_2_5_GT;
    if (!PCIE::GetCurrentLinkSpeed(id, *read, capability).get(speed, err)) return std::nullopt;
    if (speed == PCIE::SPEED_32_GT) return 32e9;
    if (speed != PCIE::SPEED_16_GT) {
        err = "PCIe device speed is lower than 16 GT/s";
        return std::nullopt;
    }
    const auto devices = store.get_pcie_device_list();
    const PortMapData port_map = get_all_port_data(store.get_die_list(), devices, read);
    if (is_device_mapped(id.segment, id.bus, id.device, id.function, port_map)) {
        const auto [die, port] = get_mapped_device(id.segment, id.bus, id.device, id.function, port_map);
        if (port.esm_active) return port.esm_speed * 1e9;
    }
    return 16e9;
}

// The receiver's steps, MaxLanes and sides, without disturbing a margin.
std::optional<PCIE::MarginCapabilities> receiver_figures(const PCIE::Device_ID& id, unsigned int receiver,
                                                         unsigned int lane, GUIResourceStore& store,
                                                         std::string& err) {
    // Another estimate reading them, or a run about to, fills the figures
    // within a fraction of a second; the wait for that is bounded.
    std::optional<PCIE::MarginRegisterClaim> claim;
    for (unsigned int waited = 0;; waited += kBusyPollMs) {
        if (const auto known = PCIE::MarginRegisterClaim::figures(id, receiver)) return known;
        if (claim.emplace(id); claim->held()) break;
        claim.reset();
        if (waited >= kBusyWaitMs) {
            err = "The receiver of this function is busy and its margining figures are not known yet. Try again "
                  "shortly.";
            return std::nullopt;
        }
        OSSpecific().milli_secs_sleep(kBusyPollMs);
    }
    const PCIE::ExecuteLaneMarginCmd cmd(id, lane, receiver, *store.get_read_accessor(), *store.get_write_accessor());
    PCIE::MarginCapabilities figures;
    PCIE::ExecuteLaneMarginCmd::MarginCtrlCapability capability;
    std::string cause;
    if (!cmd.read_number_of_timing_steps(figures.NumTimingSteps, cause) ||
        !cmd.read_margin_ctrl_capability(capability, cause)) {
        err = "Unable to read the receiver's margining figures. Reason: " + cause;
        return std::nullopt;
    }
    // As in a run, voltage figures and MaxLanes may be missing.
    if (!cmd.read_number_of_voltage_steps(figures.NumVoltSteps, cause)) figures.NumVoltSteps = 0;
    if (!cmd.read_max_lanes(figures.MaxLanes, cause)) figures.MaxLanes = 0;
    figures.IndErrSampler = capability.IndErrSampler;
    figures.LeftRightTiming = capability.LeftRightTiming;
    figures.IndUpDownVolt = capability.IndUpDownVolt;
    figures.VoltSupported = capability.VoltSupported;
    PCIE::MarginRegisterClaim::remember_figures(id, receiver, figures);
    return figures;
}

}  // namespace

json estimate_pcie_margin_duration(const json& record, GUIResourceStore& store) {
    if (!record.is_object()) return refusal("the record is not a JSON object");
    if (record.contains("Operation") && record["Operation"] != "PCIe Margin")
        return refusal("only \"PCIe Margin\" records have a duration estimate");
    if (const auto refused = check_pcie_margin_record(record, store)) return refusal(*refused);
    try {
        const PCIE::Device_ID id = *parse_sbdf(record.at("PCIeInfo").at("SBDF").get<std::string>());
        const json& params = record.at("TestParams");
        const auto receiver = params.at("Receiver").get<unsigned int>();
        const auto ber = static_cast<unsigned int>(std::stoul(params.at("BER").get<std::string>()));
        const auto errors = params.at("ErrCnt").get<unsigned int>();
        std::string err;
        const auto lanes = parse_lanes(params.at("Lanes"), err);
        if (!lanes) return refusal(err);

        const auto rate = data_rate(id, store, err);
        if (!rate) return refusal(err);
        unsigned int lane_count = static_cast<unsigned int>(lanes->size());
        if (lane_count == 0) {
            PCIE::DetectThisPCIECapability capability(id, *store.get_read_accessor());
            PCIE::GetCurrentLinkWidth::WIDTH width = PCIE::GetCurrentLinkWidth::X1;
            if (!PCIE::GetCurrentLinkWidth(id, *store.get_read_accessor(), capability).get(width, err))
                return refusal("Unable to read the link width. Reason: " + err);
            lane_count = width;
        }
        const auto figures = receiver_figures(id, receiver, lanes->empty() ? 0 : lanes->front(), store, err);
        if (!figures) return refusal(err);

        const double dwell_seconds = PCIE::getDwellTime(errors, ber, *rate);
        if (!(dwell_seconds < 4e6))
            return refusal("The dwell for a BER of 1e-" + std::to_string(ber) + " is too long to plan");
        PCIE::MarginPlanInput in;
        in.dwell_ms = static_cast<unsigned int>(1000 * dwell_seconds);
        in.lanes = lane_count;
        in.lanes_at_once = PCIE::lanes_at_once(*figures, true);  // the service margins lanes in parallel
        in.figures = *figures;
        const PCIE::MarginPlan plan = PCIE::plan_margin(in);
        return {{"OperationStatus", true},
                {"Seconds", std::round(plan.total_seconds() * 10) / 10},
                {"DwellSeconds", in.dwell_ms / 1000.0},
                {"Batches", plan.batches},
                {"Lanes", lane_count}};
    } catch (const std::exception& error) {
        return refusal(std::string("The record can't be estimated: ") + error.what());
    }
}
