// The ASPM panel: L0s, L1 and the L1 substates of every PCI Express link
// found on first use, both ends' support and state, the toggles, and the
// ASPM entry timers where the link has a platform end with them. "index" is
// a row of the list GetPCIEASPMInfo answers; the list never changes.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "panels/pcie_aspm_interface.h"

class PCIEASPMGUIInterface {
public:
    PCIEASPMGUIInterface() = default;
    // The machine is asked for on first use (the inventory may come later).
    explicit PCIEASPMGUIInterface(PanelMachineSource machine);
    // Without dies: links are seen through their standard capabilities only.
    PCIEASPMGUIInterface(const std::vector<PCIDeviceDetails>& devices, std::shared_ptr<ReadPCI> read,
                         std::shared_ptr<WritePCI> write);

    // One element per link: "id", "L0TimerValues", "L1TimerValues", the
    // link's "L0sCapable".."L12Enabled" (both ends), "Kind" ("Platform root
    // port", "Platform endpoint", "PCI Express"), "TimerEnd" ("Port",
    // "Device", "" without timers), "L0TimerIndex" / "L1TimerIndex" (the
    // entry in use, -1 without timers), and "Port" and "Device" with each
    // end's own "SBDF", capabilities, enables and "L0sExitLatency" /
    // "L1ExitLatency" texts.
    nlohmann::json GetPCIEASPMInfo();
    std::vector<std::string> GetASPML0sInactivityList(CASPMBase* entry);
    std::vector<std::string> GetASPML1InactivityList(CASPMBase* entry);
    // value in nanoseconds; all ones is "Disabled".
    static std::string GetTimerValueStr(unsigned int value);

    bool OnL0sEnabledToggled(int index, bool value);
    bool OnL1EnabledToggled(int index, bool value);
    bool OnL11EnabledToggled(int index, bool value);
    bool OnL12EnabledToggled(int index, bool value);
    // Selects entry timerIndex of the link's timer list. value must be that
    // entry's text, so a client holding a stale list changes nothing. False
    // for a link without timers, an entry outside the list, or a timer that
    // doesn't read back what was written.
    bool OnL0TimerIndexChanged(int index, int timer_index, const std::string& value);
    bool OnL1TimerIndexChanged(int index, int timer_index, const std::string& value);

private:
    CASPMGeneric* _entry(int index);
    bool _timer_changed(bool l1, int index, int timer_index, const std::string& value);

    PanelMachineSource _source;
    std::mutex _mutex;  // requests come from several server threads
    std::unique_ptr<CASPMDeviceList> _list;
};
