// Equalisation a link trained to, read next to its margin: the SerDes
// lane's receiver and transmitter settings (EQData), and the PCIe
// controller's view of presets and cursors (PCIETxEqCorvane).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/port_map_types.h"
#include "hardware/pci_device_details.h"
#include "hardware/vex_die_info.h"

// A receiver's adapted settings, in the report's names.
struct RxEq {
    bool valid = false;
    double ctleidx = 0, H0 = 0, H1 = 0, H2 = 0, H3 = 0, iq = 0, vga = 0;

    // "RxEqValid", and the seven settings when valid.
    nlohmann::json to_json() const;
};

// A transmitter's coefficients as the PHY holds them.
struct TxEq {
    uint32_t valid = 0;
    uint32_t pre = 0;
    uint32_t post = 0;
    uint32_t matched = 0;  // 1 when the PCS word agrees with both coefficients
    int32_t main = 0;      // the PCS word's main cursor when matched, else -1
    std::string preset;    // "P0" .. "P10"
};

// "P0".."P9" for the coefficient pairs of the standard presets, else "P10".
std::string preset_from_coefficients(unsigned int pre, unsigned int post);

class EQData {
public:
    virtual ~EQData() = default;
    // Lanes count from 0 on the link. A lane that can't be read gives a
    // record that isn't valid; nothing throws.
    virtual RxEq get_rx_eq(unsigned int lane) = 0;
    virtual TxEq get_tx_eq_local(unsigned int lane) = 0;
};

// E32 lanes of the server dies and the KX900/KX800 line.
//
// get_rx_eq checks that a controller drives the lane, and reads the adapted
// values of the active cache from the PHY firmware's lane training record
// under the PHY override. Any step that fails gives a record that isn't valid.
class CorvaneEQData : public EQData {
public:
    CorvaneEQData(std::string link, VEX_DIE_INFO die);
    RxEq get_rx_eq(unsigned int lane) override;
    TxEq get_tx_eq_local(unsigned int lane) override;

private:
    std::string _link;
    VEX_DIE_INFO _die;
};

// C20 lanes of the client dies. Their register maps aren't filled in yet
// (the stores answer no lane register), so both reads give records that
// aren't valid.
class C20EQData : public EQData {
public:
    C20EQData(std::string link, VEX_DIE_INFO die);
    RxEq get_rx_eq(unsigned int lane) override;
    TxEq get_tx_eq_local(unsigned int lane) override;

private:
    std::string _link;
    VEX_DIE_INFO _die;
};

// The reader for the die's chip. Throws std::runtime_error "Error in
// get_eq_data. Did not handle <name>" for a die no class serves.
std::shared_ptr<EQData> get_eq_data(std::string link, VEX_DIE_INFO die);

// The PCIe controller's view of a port's lanes: negotiated presets, and
// the local and best settings of the link's equalisation.
//
// The rate selector of the local and best reads is 0, 1, 2 for 8, 16 and
// 32 GT/s. Lane controls are indexed by the port's logical lane; the debug
// lane select takes the controller lane the port map gives. Lanes of one
// port share the select register, so callers read lanes one after another
// and never two ports' lanes of one core at once.
class PCIETxEqCorvane {
public:
    struct Input {
        PCIE::Device_ID device;        // the port's bridge, or a function below it
        std::vector<unsigned int> lanes;  // logical lanes of the port
        // The link's current speed ("16 GT/s"); empty takes the port map's.
        std::string speed;
    };

    struct Field {
        bool got = false;
        unsigned int value = 0;
    };

    struct LaneEq {
        Field TxPreset, LCBestPreset, LCLocalPreset, USPTxPreset;
        Field LCLocalPreCursor, LCLocalCursor, LCLocalPostCursor;
        Field LCBestPreCursor, LCBestCursor, LCBestPostCursor, LCBestFom;
        bool lc_eq_mode = false;  // the rate's equalisation mode bit; no report column

        // Each field under its name (its value, 0 when not got) and its
        // "<name>Got" flag.
        nlohmann::json to_json() const;
    };

    struct Output {
        std::map<unsigned int, LaneEq> lanes;  // by logical lane; every lane asked for
        // The lane's object, or every field not got for a lane not read.
        nlohmann::json lane_json(unsigned int lane) const;
    };

    // A port the map doesn't hold, a lane without mapping (printed) or a
    // speed below 8 GT/s leave the lane's fields without "Got".
    Output operator()(const Input& input, const std::map<VEX_DIE_INFO, std::vector<PortMap>>& ports) const;
};
