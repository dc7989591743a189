// Two PCIe tests conflict when they work on the same function, or when one
// works on a bridge whose bus range holds the other's bus: margining a root
// port and a device below it at once would disturb both links. Functions on
// another segment never conflict.
#pragma once

#include <cstdint>

#include <nlohmann/json.hpp>

class PCIEConflictCheck {
public:
    struct PCIEDevicDetails {
        uint32_t segment = 0;
        uint32_t bus = 0;
        uint32_t device = 0;
        uint32_t function = 0;
        bool is_bridge = false;
        uint32_t secondary_bus = 0;
        uint32_t subordinate_bus = 0;
    };
    bool check_if_conflict(PCIEDevicDetails a, PCIEDevicDetails b) const;
};

// The scheduler's check on two test records. The bridge fields are filled
// from "PCIeInfo"."DeviceType" ("Bridge") and "PCIeInfo"."BridgeInfo"
// ("SecondaryBus", "SubordinateBus"), so a test on a root port and a test on
// a device below it wait for each other. A record without those keys counts
// as an endpoint.
class GUIPCIECheckConflict {
public:
    bool check_conflict(const nlohmann::json& running, const nlohmann::json& queued) const;
};

// The device part of a record as the conflict check sees it. Throws
// std::runtime_error when "PCIeInfo"."SBDF" is missing or malformed.
PCIEConflictCheck::PCIEDevicDetails pcie_details_of(const nlohmann::json& test);
