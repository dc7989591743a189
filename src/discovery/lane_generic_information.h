// What each chip's SerDes links are: names, lanes, PHY and where the PHY's
// registers lie, so that PHY-level code needn't know the chip. The data
// lives in the chip tables (hardware/chips); the classes here answer from
// them and are chosen by the die's name.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hardware/chips/lane_layout.h"
#include "hardware/usb4_port.h"
#include "hardware/vex_die_info.h"

// Where one lane's PHY block sits.
struct LaneSection {
    unsigned int chiplet = 0;
    unsigned int base_address = 0;
};

// A selection of lanes on one link of one die: what the PHY-level code takes.
struct SerdesLaneSectionParam {
    VEX_DIE_INFO die;
    std::string link;
    std::vector<unsigned int> lanes;
    std::map<unsigned int, LaneSection> lane_section;
};

class LaneGenericInformation {
public:
    // PHY base address of `chiplet` (four lanes each) of `link`.
    virtual unsigned int get_base_address(const std::string& link, unsigned int chiplet) const = 0;
    virtual unsigned int get_pcs_base_address(const std::string& link) const = 0;
    // In the chip's own link order.
    virtual std::vector<std::string> get_link_names() const = 0;
    // The PHY port that drives `lane` of `link`.
    virtual unsigned int get_port_no(const std::string& link, unsigned int lane) const = 0;
    virtual unsigned int get_no_of_lanes(const std::string& link) const = 0;
    // "E32", "C10", "C20" or "CDNS".
    virtual std::string get_phy_name(const std::string& link) const = 0;
    virtual unsigned int get_power_gating_address(const std::string& link) const = 0;
    // True when the link's lanes are shared between controllers through a mux.
    virtual bool is_mux_present(const std::string& link) const = 0;
    // A chips::LinkProtocol value; 16 is hVL.
    virtual unsigned int which_protocol(const std::string& link) const = 0;
    virtual std::vector<unsigned int> get_usb4_router_device_ids() const = 0;
    virtual unsigned int get_usb4_port_crn_base_addr(USB::USB4Port port) const = 0;
    virtual ~LaneGenericInformation() = default;
};

// Answers every question from one chip table. Lookups of a link or chiplet
// the chip doesn't have throw a runtime error with a fixed text; errors
// that name a function name `class_name`.
class TableLaneGenericInformation : public LaneGenericInformation {
public:
    TableLaneGenericInformation(const chips::ChipLanes& table, std::string class_name);

    unsigned int get_base_address(const std::string& link, unsigned int chiplet) const override;
    unsigned int get_pcs_base_address(const std::string& link) const override;
    std::vector<std::string> get_link_names() const override;
    unsigned int get_port_no(const std::string& link, unsigned int lane) const override;
    unsigned int get_no_of_lanes(const std::string& link) const override;
    std::string get_phy_name(const std::string& link) const override;
    unsigned int get_power_gating_address(const std::string& link) const override;
    bool is_mux_present(const std::string& link) const override;
    unsigned int which_protocol(const std::string& link) const override;
    std::vector<unsigned int> get_usb4_router_device_ids() const override;
    unsigned int get_usb4_port_crn_base_addr(USB::USB4Port port) const override;

protected:
    const chips::LinkLanes& _link(const std::string& link, const char* error) const;
    const std::string& _class_name() const { return _name; }

private:
    const chips::ChipLanes& _table;
    std::string _name;
};

// Corvane and Dellmar. The link decides the protocol for the hVL, TEXL and
// PCIe-only links and for the USB ports; a name the chip doesn't have throws
// "CorvaneLaneGenericInformation::which_protocol should not be called.".
class CorvaneLaneGenericInformation : public TableLaneGenericInformation {
public:
    CorvaneLaneGenericInformation();
};

// KX900A, KX900X, KX900C.
class KX900ALaneGenericInformation : public TableLaneGenericInformation {
public:
    KX900ALaneGenericInformation();
};

class KX800LaneGenericInformation : public TableLaneGenericInformation {
public:
    KX800LaneGenericInformation();
    unsigned int get_pcs_base_address(const std::string& link) const override;
};

class FerrowLaneGenericInformation : public TableLaneGenericInformation {
public:
    FerrowLaneGenericInformation();
    unsigned int get_pcs_base_address(const std::string& link) const override;
};

class Ferrow2LaneGenericInformation : public TableLaneGenericInformation {
public:
    Ferrow2LaneGenericInformation();
    unsigned int get_pcs_base_address(const std::string& link) const override;
};

// Sabrel1, Sabrel2, Sabrel Crown.
class Sabrel1LaneGenericInformation : public TableLaneGenericInformation {
public:
    Sabrel1LaneGenericInformation();
};

// Tamblin1, Rusk.
class TamblinLaneGenericInformation : public TableLaneGenericInformation {
public:
    TamblinLaneGenericInformation();
};

class Hesk31LaneGenericInformation : public TableLaneGenericInformation {
public:
    Hesk31LaneGenericInformation();
};

// Hesk48, Hesk44.
class Hesk48LaneGenericInformation : public TableLaneGenericInformation {
public:
    Hesk48LaneGenericInformation();
};

// Ombrel, Cobalt Bay.
class OmbrelLaneGenericInformation : public TableLaneGenericInformation {
public:
    OmbrelLaneGenericInformation();
};

// Chooses the class by the die's name; any other name throws
// "Error in get_lane_generic_info. Did not handle " and the name.
std::shared_ptr<LaneGenericInformation> get_lane_generic_info(const VEX_DIE_INFO& die);

// PHY base address of the chiplet that holds `lane`.
unsigned int get_lane_base_address(const LaneGenericInformation& info, const std::string& link, unsigned int lane);

// A selection of `lanes` on `link` with each lane's section filled in from
// the die's lane information.
SerdesLaneSectionParam make_serdes_lane_section_param(const VEX_DIE_INFO& die, const std::string& link,
                                                      const std::vector<unsigned int>& lanes,
                                                      const LaneGenericInformation& info);
