// ASPM of PCI Express links: L0s and L1 through the PCI Express capability
// of both ends, L1.1 and L1.2 through their L1 PM Substates capabilities.
// One entry is one link: the downstream-facing port and every function of
// the device on its far end.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "panels/pci_device.h"

class CASPMBase {
public:
    virtual ~CASPMBase() = default;
    virtual bool IsASPML0sCapable() = 0;
    virtual bool IsASPML1Capable() = 0;
    virtual bool IsASPML1_1Capable() = 0;
    virtual bool IsASPML1_2Capable() = 0;
    virtual bool EnableASPML0s(bool enable) = 0;
    virtual bool EnableASPML1(bool enable) = 0;
    virtual bool EnableASPML1_1(bool enable) = 0;
    virtual bool EnableASPML1_2(bool enable) = 0;
    virtual bool IsASPML1Enabled() = 0;
    virtual bool IsASPML0sEnabled() = 0;
    virtual bool IsASPML1_1Enabled() = 0;
    virtual bool IsASPML1_2Enabled() = 0;
    virtual bool GetASPML1InactivityEntry(unsigned int index, unsigned int* value) = 0;
    virtual bool GetASPML0sInactivityEntry(unsigned int index, unsigned int* value) = 0;
    virtual unsigned int GetL1NumberOfEntries() = 0;
    virtual unsigned int GetL0sNumberOfEntries() = 0;
};

// What one end of a link offers and has enabled.
struct ASPMEndState {
    std::string sbdf;
    bool l0s_capable = false, l1_capable = false, l11_capable = false, l12_capable = false;
    bool l0s_enabled = false, l1_enabled = false, l11_enabled = false, l12_enabled = false;
    unsigned int l0s_exit_latency_ns = 0, l1_exit_latency_ns = 0;
};

// A link seen through the standard capabilities of both ends. A state is
// capable when both ends offer it and enabled when both ends have it on.
// Order of changes, so a link never has an end using a state the other
// doesn't expect: L0s/L1 are enabled on the device first and disabled on the
// port first; L1.1/L1.2 are enabled on the port first and disabled on the
// device first. The standard capabilities hold no inactivity timers (those
// are chip registers of a port), so the timer lists are empty here.
class CASPMGeneric : public CASPMBase {
public:
    CASPMGeneric(CPCIDevice port, std::vector<CPCIDevice> device_functions);

    bool IsASPML0sCapable() override;
    bool IsASPML1Capable() override;
    bool IsASPML1_1Capable() override;
    bool IsASPML1_2Capable() override;
    bool EnableASPML0s(bool enable) override;
    bool EnableASPML1(bool enable) override;
    bool EnableASPML1_1(bool enable) override;
    bool EnableASPML1_2(bool enable) override;
    bool IsASPML1Enabled() override;
    bool IsASPML0sEnabled() override;
    bool IsASPML1_1Enabled() override;
    bool IsASPML1_2Enabled() override;
    bool GetASPML1InactivityEntry(unsigned int, unsigned int*) override { return false; }
    bool GetASPML0sInactivityEntry(unsigned int, unsigned int*) override { return false; }
    unsigned int GetL1NumberOfEntries() override { return 0; }
    unsigned int GetL0sNumberOfEntries() override { return 0; }

    ASPMEndState port_state() const { return _state(_port); }
    ASPMEndState device_state() const { return _state(_functions.front()); }

private:
    ASPMEndState _state(const CPCIDevice& function) const;
    // The ends in the order a change goes: device functions first, or port first.
    std::vector<const CPCIDevice*> _ends(bool device_first) const;
    bool _set_link_control(unsigned int bit, bool enable);
    bool _set_substate(unsigned int bit, bool enable);

    CPCIDevice _port;
    std::vector<CPCIDevice> _functions;  // function 0 first
};

class CASPMDeviceList {
public:
    // Every downstream-facing port of the list with a device below it.
    CASPMDeviceList(const std::vector<PCIDeviceDetails>& devices, std::shared_ptr<ReadPCI> read,
                    std::shared_ptr<WritePCI> write);
    unsigned int GetListSize() const { return static_cast<unsigned int>(_entries.size()); }
    bool GetListEntry(unsigned int index, CASPMGeneric** entry) const;

private:
    std::vector<std::unique_ptr<CASPMGeneric>> _entries;
};
