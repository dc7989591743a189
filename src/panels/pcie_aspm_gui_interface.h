// The ASPM panel: L0s, L1 and the L1 substates of every PCI Express link
// found at start, both ends' support and state, and the toggles. "index" is
// a row of the list GetPCIEASPMInfo answers; the list never changes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "panels/pcie_aspm_interface.h"

class PCIEASPMGUIInterface {
public:
    PCIEASPMGUIInterface() = default;
    PCIEASPMGUIInterface(const std::vector<PCIDeviceDetails>& devices, std::shared_ptr<ReadPCI> read,
                         std::shared_ptr<WritePCI> write);

    // One element per link: "id", "L0TimerValues", "L1TimerValues", the
    // link's "L0sCapable".."L12Enabled" (both ends), and "Port" and
    // "Device" with each end's own "SBDF", capabilities, enables and
    // "L0sExitLatency" / "L1ExitLatency" texts.
    nlohmann::json GetPCIEASPMInfo();
    std::vector<std::string> GetASPML0sInactivityList(CASPMBase* entry);
    std::vector<std::string> GetASPML1InactivityList(CASPMBase* entry);
    // value in nanoseconds; all ones is "Disabled".
    static std::string GetTimerValueStr(unsigned int value);

    bool OnL0sEnabledToggled(int index, bool value);
    bool OnL1EnabledToggled(int index, bool value);
    bool OnL11EnabledToggled(int index, bool value);
    bool OnL12EnabledToggled(int index, bool value);
    // No entry has timers of its own to choose from (see CASPMGeneric), so
    // these refuse; they take a timer entry where a chip offers them.
    bool OnL0TimerIndexChanged(int index, int timer_index, const std::string& value);
    bool OnL1TimerIndexChanged(int index, int timer_index, const std::string& value);

private:
    CASPMGeneric* _entry(int index) const;
    std::unique_ptr<CASPMDeviceList> _list;
};
