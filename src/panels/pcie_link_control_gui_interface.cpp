#include "panels/pcie_link_control_gui_interface.h"

nlohmann::json PCIELinkControlGUIInterface::GetPCIELinkControlInfo() {
    return nlohmann::json{{"ports", _ports}};
}
nlohmann::json PCIELinkControlGUIInterface::GetPCIELinkPortInfo(int) { return nlohmann::json::object(); }
nlohmann::json PCIELinkControlGUIInterface::OnLinkWidthChange(int) { return nlohmann::json::object(); }
nlohmann::json PCIELinkControlGUIInterface::OnLinkSpeedChange(int) { return nlohmann::json::object(); }
nlohmann::json PCIELinkControlGUIInterface::OnPortOptionChanged(int, bool) { return nlohmann::json::object(); }
void PCIELinkControlGUIInterface::OnContinuousRunToggled(const nlohmann::json&) { _stop_requested = false; }
void PCIELinkControlGUIInterface::StopContinuousRun() { _stop_requested = true; }
bool PCIELinkControlGUIInterface::SetLogLinkStatus(bool checked) {
    _log_link_status = checked;
    return true;
}
bool PCIELinkControlGUIInterface::SetLogLinkErrors(bool checked) {
    _log_link_errors = checked;
    return true;
}
nlohmann::json PCIELinkControlGUIInterface::ClearErrorReport() { return nlohmann::json::object(); }
