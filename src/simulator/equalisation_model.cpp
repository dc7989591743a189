#include "simulator/equalisation_model.h"

#include <bit>
#include <map>
#include <optional>
#include <stdexcept>

#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/equalisation_fields.h"
#include "hardware/chips/server_registers.h"
#include "hardware/register_storage.h"

namespace sim {

namespace {

namespace eq = chips::equalisation;

constexpr uint64_t kPortKey = 0xE0A1, kPhyKey = 0xE0A2;
// Cursors share this full swing between them, as the PHY's coefficients do.
constexpr unsigned kFullSwing = 48;

// A stable key for a name (the seeded noise takes numbers).
uint64_t name_key(const std::string& name) {
    uint64_t h = 0xCBF29CE484222325ull;
    for (unsigned char c : name) h = (h ^ c) * 0x100000001B3ull;
    return h;
}

const eq::PresetCoefficients& preset_of(uint64_t bits) { return eq::kPresets[bits % std::size(eq::kPresets)]; }

bool served(const std::string& die_type) { return die_type == "Corvane" || die_type == "Dellmar"; }

// The lane the debug register selects: its lowest select bit.
std::optional<unsigned> selected_lane(uint32_t debug) {
    const uint32_t select = debug >> eq::kDebugLaneSelectShift;
    if (!select) return std::nullopt;
    return static_cast<unsigned>(std::countr_zero(select));
}

struct LaneControl {
    const char* name;
    unsigned selector;
    chips::IdentityField downstream, upstream;
};
constexpr LaneControl kLaneControls[] = {
    {"PCIE_LANE_EQUALIZATION_CNTL", eq::kSelector8GT, eq::kPreset8Downstream, eq::kPreset8Upstream},
    {"LANE_EQUALIZATION_CNTL_16GT", eq::kSelector16GT, eq::kPresetDownstream, eq::kPresetUpstream},
    {"LANE_EQUALIZATION_CNTL_32GT", eq::kSelector32GT, eq::kPresetDownstream, eq::kPresetUpstream},
    {"ESM_LANE_EQUALIZATION_CNTL_20GT", eq::kSelector16GT, eq::kPresetDownstream, eq::kPresetUpstream},
    {"ESM_LANE_EQUALIZATION_CNTL_25GT", eq::kSelector16GT, eq::kPresetDownstream, eq::kPresetUpstream},
};

void place_port(RegisterSpace& r, const RegisterStorage& store, unsigned socket, const PortProfile& port,
                const RegisterLocator& locator, const Noise& noise) {
    const std::string core = port.core;
    const unsigned index = port.function_index;
    for (const char* name : {"PCIE_LC_EQ_CNTL_8GT", "PCIE_LC_EQ_CNTL_16GT", "PCIE_LC_EQ_CNTL_32GT"})
        if (const auto at = locator(name, core, index)) r.define(*at, eq::kLcEqMode.place(1), 0);
    const auto debug = locator("PCIE_LC_DEBUG_CNTL", core, index);
    const auto local = locator("PCIE_LC_CNTL5", core, index);
    const auto best = locator("PCIE_LC_BEST_EQ_SETTINGS", core, index);
    if (!debug || !local || !best) return;
    r.define(*debug, 0);
    const uint32_t debug_at = *debug;
    r.define(*local, 0, eq::kLocalSelector.place(eq::kLocalSelector.mask));
    r.on_read(*local, [&r, &noise, socket, core, index, debug_at](uint32_t stored, const ModelTime&) {
        const auto lane = selected_lane(r.peek(debug_at));
        if (!lane) return stored;
        const ModelPortLaneEq e =
            model_port_lane_eq(noise, socket, core, index, *lane, eq::kLocalSelector.extract(stored));
        return stored | eq::kLocalPreset.place(e.local_preset) | eq::kLocalPreCursor.place(e.local_pre) |
               eq::kLocalCursor.place(e.local_cursor) | eq::kLocalPostCursor.place(e.local_post);
    });
    r.define(*best, 0, eq::kBestSelector.place(eq::kBestSelector.mask));
    r.on_read(*best, [&r, &noise, socket, core, index, debug_at](uint32_t stored, const ModelTime&) {
        const auto lane = selected_lane(r.peek(debug_at));
        if (!lane) return stored;
        const ModelPortLaneEq e =
            model_port_lane_eq(noise, socket, core, index, *lane, eq::kBestSelector.extract(stored));
        return stored | eq::kBestPreset.place(e.best_preset) | eq::kBestPreCursor.place(e.best_pre) |
               eq::kBestCursor.place(e.best_cursor) | eq::kBestPostCursor.place(e.best_post) |
               eq::kBestFom.place(e.best_fom);
    });

    // Narrow lane controls share dwords: each lane's value goes into its byte lanes.
    for (const LaneControl& control : kLaneControls)
        for (unsigned lane = 0; lane < chips::server_io::kLanesPerPort; ++lane) {
            std::shared_ptr<Register> reg;
            try {
                reg = store.get_pcie_core_func_lane_register(control.name, core, index, lane);
            } catch (const std::runtime_error&) {
                continue;
            }
            const ModelPortLaneEq e = model_port_lane_eq(noise, socket, core, index, lane, control.selector);
            const uint32_t value = control.downstream.place(e.dsp_preset) | control.upstream.place(e.usp_preset);
            const uint32_t at = reg->get_offset();
            r.define(at, r.peek(at) | value << (8 * (at & 3)), 0);
        }
}

void place_phy_lanes(RegisterSpace& r, const RegisterStorage& store, unsigned socket, const Noise& noise) {
    for (const chips::LinkLanes& link : chips::corvane_lanes().links) {
        if (link.phy != "E32") continue;
        for (unsigned lane = 0; lane < link.lanes; ++lane) {
            const ModelPhyLaneEq e = model_phy_lane_eq(noise, socket, link.name, lane);
            const int at = static_cast<int>(lane);
            r.define(store.get_lane_register("TX_FFE_COEF0", link.name, at)->get_offset(),
                     eq::kFfeCoefficient.place(e.pre), 0);
            r.define(store.get_lane_register("TX_FFE_COEF1", link.name, at)->get_offset(),
                     eq::kFfeCoefficient.place(e.post), 0);
            if (!link.pcs_base) continue;
            r.define(store.get_lane_register("PCS_LANEX_COEFF", link.name, at)->get_offset(),
                     eq::kPcsPre.place(e.pre) | eq::kPcsPost.place(e.post) | eq::kPcsMain.place(e.main), 0);
        }
    }
}

}  // namespace

ModelPortLaneEq model_port_lane_eq(const Noise& noise, unsigned socket, const std::string& core, unsigned port,
                                   unsigned lane, unsigned selector) {
    auto bits = [&](uint64_t part) { return noise.bits({kPortKey, socket, name_key(core), port, lane, selector, part}); };
    ModelPortLaneEq e;
    e.dsp_preset = static_cast<unsigned>(bits(0) % 10);
    e.usp_preset = static_cast<unsigned>(bits(1) % 10);
    const auto& local = preset_of(bits(2));
    e.local_preset = static_cast<unsigned>(&local - eq::kPresets);
    e.local_pre = local.pre;
    e.local_post = local.post;
    e.local_cursor = kFullSwing - local.pre - local.post;
    const auto& best = preset_of(bits(3));
    e.best_preset = static_cast<unsigned>(&best - eq::kPresets);
    e.best_pre = best.pre;
    e.best_post = best.post;
    e.best_cursor = kFullSwing - best.pre - best.post;
    e.best_fom = 120 + static_cast<unsigned>(bits(4) % 120);
    return e;
}

ModelPhyLaneEq model_phy_lane_eq(const Noise& noise, unsigned socket, const std::string& link, unsigned lane) {
    const auto& preset = preset_of(noise.bits({kPhyKey, socket, name_key(link), lane}));
    return ModelPhyLaneEq{preset.pre, preset.post, kFullSwing - preset.pre - preset.post};
}

void place_equalisation_registers(RegisterSpace& registers, const std::string& die_type, unsigned socket,
                                  const std::vector<const PortProfile*>& root_ports, const RegisterLocator& locator,
                                  const Noise& noise) {
    if (!served(die_type)) return;
    const auto store = make_register_store(die_type, nullptr);
    for (const PortProfile* port : root_ports) place_port(registers, *store, socket, *port, locator, noise);
    place_phy_lanes(registers, *store, socket, noise);
}

}  // namespace sim
