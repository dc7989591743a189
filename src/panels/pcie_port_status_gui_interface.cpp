#include "panels/pcie_port_status_gui_interface.h"

nlohmann::json PCIEPortStatusGUIInterface::GetPCIEPortInfo() {
    return nlohmann::json{{"portSelection", {{"enabled", !_ports.empty()}, {"ports", _ports}, {"index", _selected}}}};
}
void PCIEPortStatusGUIInterface::GetRegistersInfo(nlohmann::json& registers) {
    if (!registers.is_object()) registers = nlohmann::json::object();
}
void PCIEPortStatusGUIInterface::GetPortStatusControlOptions(nlohmann::json& document) {
    const bool has_port = _selected >= 0;
    document["advErrorEnabled"] = {{"label", "Advanced Error Reporting"}, {"checked", false}, {"enabled", has_port}};
    document["secBusReset"] = {{"label", "Secondary Bus Reset"}, {"checked", false}, {"enabled", has_port}};
    document["linkDisable"] = {{"label", "Link Disable"}, {"checked", false}, {"enabled", has_port}};
}
void PCIEPortStatusGUIInterface::GetContLoopSettingsInfo(nlohmann::json& settings) {
    settings["enabled"] = _selected >= 0;
    settings["settingsSelection"] = {{"status", nlohmann::json::array()}};
}
nlohmann::json PCIEPortStatusGUIInterface::GetPortStatusRegisterInfo() { return nlohmann::json::object(); }
void PCIEPortStatusGUIInterface::OnPortSelectCurrentIndexChanged(int index) {
    _selected = (index >= 0 && static_cast<std::size_t>(index) < _ports.size()) ? index : -1;
}
void PCIEPortStatusGUIInterface::OnAdvErrorEnabledClicked(bool) {}
void PCIEPortStatusGUIInterface::OnLinkDisableClicked(bool) {}
bool PCIEPortStatusGUIInterface::OnSecBusResetClicked(bool) { return _selected >= 0; }
void PCIEPortStatusGUIInterface::OnClearAdvErrosClicked() {}
void PCIEPortStatusGUIInterface::StartContinuousRun(const nlohmann::json&) { _stop_requested = false; }
void PCIEPortStatusGUIInterface::StopContinuousRun() { _stop_requested = true; }
bool PCIEPortStatusGUIInterface::SetLogPortStatus(bool checked) {
    _log_port_status = checked;
    return true;
}
nlohmann::json PCIEPortStatusGUIInterface::get_ltssm_states() { return nlohmann::json::array(); }
