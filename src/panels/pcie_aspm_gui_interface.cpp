#include "panels/pcie_aspm_gui_interface.h"

nlohmann::json PCIEASPMGUIInterface::GetPCIEASPMInfo() {
    return nlohmann::json{{"ports", _rows}};
}
bool PCIEASPMGUIInterface::OnL0sEnabledToggled(int index, bool) { return _is_row(index); }
bool PCIEASPMGUIInterface::OnL1EnabledToggled(int index, bool) { return _is_row(index); }
bool PCIEASPMGUIInterface::OnL11EnabledToggled(int index, bool) { return _is_row(index); }
bool PCIEASPMGUIInterface::OnL12EnabledToggled(int index, bool) { return _is_row(index); }
bool PCIEASPMGUIInterface::OnL0TimerIndexChanged(int index, int, const std::string&) { return _is_row(index); }
bool PCIEASPMGUIInterface::OnL1TimerIndexChanged(int index, int, const std::string&) { return _is_row(index); }
