#include "panels/pcie_aspm_gui_interface.h"

using nlohmann::json;

PCIEASPMGUIInterface::PCIEASPMGUIInterface(PanelMachineSource machine) : _source(std::move(machine)) {}

PCIEASPMGUIInterface::PCIEASPMGUIInterface(const std::vector<PCIDeviceDetails>& devices, std::shared_ptr<ReadPCI> read,
                                           std::shared_ptr<WritePCI> write)
    : _source([machine = PanelMachine{devices, {}, std::move(read), std::move(write)}]() -> std::optional<PanelMachine> {
          return machine;
      }) {}

// Detects on first use; until the machine is there, the list is empty and
// is asked for again next time.
CASPMGeneric* PCIEASPMGUIInterface::_entry(int index) {
    if (!_list && _source)
        if (const auto machine = _source()) _list = std::make_unique<CASPMDeviceList>(*machine);
    CASPMGeneric* entry = nullptr;
    if (!_list || index < 0 || !_list->GetListEntry(static_cast<unsigned int>(index), &entry)) return nullptr;
    return entry;
}

std::string PCIEASPMGUIInterface::GetTimerValueStr(unsigned int value) {
    if (value == 0xFFFFFFFFu) return "Disabled";
    if (value < 1000) return std::to_string(value) + " ns";
    if (value >= 1000000) return std::to_string(value / 1000000) + " ms";
    return std::to_string(value / 1000) + " us";
}

std::vector<std::string> PCIEASPMGUIInterface::GetASPML0sInactivityList(CASPMBase* entry) {
    std::vector<std::string> texts;
    unsigned int value = 0;
    const unsigned int entries = entry->GetL0sNumberOfEntries();
    for (unsigned int i = 0; i < entries; ++i)
        if (entry->GetASPML0sInactivityEntry(i, &value)) texts.push_back(GetTimerValueStr(value));
    return texts;
}

std::vector<std::string> PCIEASPMGUIInterface::GetASPML1InactivityList(CASPMBase* entry) {
    std::vector<std::string> texts;
    unsigned int value = 0;
    const unsigned int entries = entry->GetL1NumberOfEntries();
    for (unsigned int i = 0; i < entries; ++i)
        if (entry->GetASPML1InactivityEntry(i, &value)) texts.push_back(GetTimerValueStr(value));
    return texts;
}

namespace {
json end_json(const ASPMEndState& s) {
    return json{{"SBDF", s.sbdf},
                {"L0sCapable", s.l0s_capable}, {"L1Capable", s.l1_capable},
                {"L11Capable", s.l11_capable}, {"L12Capable", s.l12_capable},
                {"L0sEnabled", s.l0s_enabled}, {"L1Enabled", s.l1_enabled},
                {"L11Enabled", s.l11_enabled}, {"L12Enabled", s.l12_enabled},
                {"L0sExitLatency", PCIEASPMGUIInterface::GetTimerValueStr(s.l0s_exit_latency_ns)},
                {"L1ExitLatency", PCIEASPMGUIInterface::GetTimerValueStr(s.l1_exit_latency_ns)}};
}

int selected_or_none(bool found, unsigned int index) { return found ? static_cast<int>(index) : -1; }
}  // namespace

json PCIEASPMGUIInterface::GetPCIEASPMInfo() {
    std::lock_guard<std::mutex> lock(_mutex);
    json entries = json::array();
    for (unsigned int i = 0; CASPMGeneric* e = _entry(static_cast<int>(i)); ++i) {
        const ASPMEndState port = e->port_state(), device = e->device_state();
        unsigned int l0 = 0, l1 = 0;
        const bool has_l0 = e->GetASPML0sInactivitySelected(&l0), has_l1 = e->GetASPML1InactivitySelected(&l1);
        entries.push_back({{"id", i},
                           {"Kind", e->kind()},
                           {"TimerEnd", e->timer_end()},
                           {"L0TimerValues", GetASPML0sInactivityList(e)},
                           {"L1TimerValues", GetASPML1InactivityList(e)},
                           {"L0TimerIndex", selected_or_none(has_l0, l0)},
                           {"L1TimerIndex", selected_or_none(has_l1, l1)},
                           {"L0sCapable", port.l0s_capable && device.l0s_capable},
                           {"L1Capable", port.l1_capable && device.l1_capable},
                           {"L11Capable", port.l11_capable && device.l11_capable},
                           {"L12Capable", port.l12_capable && device.l12_capable},
                           {"L0sEnabled", port.l0s_enabled && device.l0s_enabled},
                           {"L1Enabled", port.l1_enabled && device.l1_enabled},
                           {"L11Enabled", port.l11_enabled && device.l11_enabled},
                           {"L12Enabled", port.l12_enabled && device.l12_enabled},
                           {"Port", end_json(port)},
                           {"Device", end_json(device)}});
    }
    return entries;
}

bool PCIEASPMGUIInterface::OnL0sEnabledToggled(int index, bool value) {
    std::lock_guard<std::mutex> lock(_mutex);
    CASPMGeneric* e = _entry(index);
    return e && e->EnableASPML0s(value);
}
bool PCIEASPMGUIInterface::OnL1EnabledToggled(int index, bool value) {
    std::lock_guard<std::mutex> lock(_mutex);
    CASPMGeneric* e = _entry(index);
    return e && e->EnableASPML1(value);
}
bool PCIEASPMGUIInterface::OnL11EnabledToggled(int index, bool value) {
    std::lock_guard<std::mutex> lock(_mutex);
    CASPMGeneric* e = _entry(index);
    return e && e->EnableASPML1_1(value);
}
bool PCIEASPMGUIInterface::OnL12EnabledToggled(int index, bool value) {
    std::lock_guard<std::mutex> lock(_mutex);
    CASPMGeneric* e = _entry(index);
    return e && e->EnableASPML1_2(value);
}

bool PCIEASPMGUIInterface::_timer_changed(bool l1, int index, int timer_index, const std::string& value) {
    std::lock_guard<std::mutex> lock(_mutex);
    CASPMGeneric* e = _entry(index);
    if (!e || timer_index < 0) return false;
    const auto at = static_cast<unsigned int>(timer_index);
    unsigned int ns = 0;
    if (!(l1 ? e->GetASPML1InactivityEntry(at, &ns) : e->GetASPML0sInactivityEntry(at, &ns))) return false;
    if (GetTimerValueStr(ns) != value) return false;
    return l1 ? e->SetASPML1InactivityEntry(at) : e->SetASPML0sInactivityEntry(at);
}

bool PCIEASPMGUIInterface::OnL0TimerIndexChanged(int index, int timer_index, const std::string& value) {
    return _timer_changed(false, index, timer_index, value);
}
bool PCIEASPMGUIInterface::OnL1TimerIndexChanged(int index, int timer_index, const std::string& value) {
    return _timer_changed(true, index, timer_index, value);
}
