// The ASPM panel: L0s, L1 and L1 substates of the PCIe ports and their timers.
// The ports are listed by the panel itself; "index" is a row of that list.
// Until port discovery feeds it, the list is empty and every change is refused.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

class PCIEASPMGUIInterface {
public:
    nlohmann::json GetPCIEASPMInfo();
    bool OnL0sEnabledToggled(int index, bool value);
    bool OnL1EnabledToggled(int index, bool value);
    bool OnL11EnabledToggled(int index, bool value);
    bool OnL12EnabledToggled(int index, bool value);
    bool OnL0TimerIndexChanged(int index, int timer_index, const std::string& value);
    bool OnL1TimerIndexChanged(int index, int timer_index, const std::string& value);

private:
    bool _is_row(int index) const { return index >= 0 && static_cast<std::size_t>(index) < _rows.size(); }
    std::vector<nlohmann::json> _rows;
};
