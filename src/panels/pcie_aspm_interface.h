// ASPM of PCI Express links: L0s and L1 through the PCI Express capability
// of both ends, L1.1 and L1.2 through their L1 PM Substates capabilities,
// and on the platform's own ends the ASPM entry timers of their link
// controllers (hardware/chips/aspm_timers.h). One entry is one link: the
// downstream-facing port and every function of the device on its far end.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "hardware/register.h"
#include "panels/pci_device.h"
#include "panels/pcie_link.h"

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
// device first.
//
// The standard capabilities hold no entry timers, so a plain link offers no
// timer entries and refuses a selection. Entry n of a timer list is code n of
// the chip's timer field (entry 0: the timer off).
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
    bool GetASPML1InactivityEntry(unsigned int index, unsigned int* value) override;
    bool GetASPML0sInactivityEntry(unsigned int index, unsigned int* value) override;
    unsigned int GetL1NumberOfEntries() override;
    unsigned int GetL0sNumberOfEntries() override;

    // The entry the end's timer holds now; false without timers.
    bool GetASPML0sInactivitySelected(unsigned int* index) const { return _selected(false, index); }
    bool GetASPML1InactivitySelected(unsigned int* index) const { return _selected(true, index); }
    // Writes the entry into the end's timer and reads it back.
    bool SetASPML0sInactivityEntry(unsigned int index) { return _select(false, index); }
    bool SetASPML1InactivityEntry(unsigned int index) { return _select(true, index); }

    // What kind of link this is, for the panel's rows.
    virtual std::string kind() const { return "PCI Express"; }
    // "Port" or "Device": whose link controller the timers belong to; empty without timers.
    virtual std::string timer_end() const { return ""; }

    ASPMEndState port_state() const { return _state(_port); }
    ASPMEndState device_state() const { return _state(_functions.front()); }

protected:
    // The timer end's control word; false where it has none or can't be reached.
    virtual bool _read_timer_control(unsigned int&) const { return false; }
    virtual void _write_timer_control(unsigned int) {}

    CPCIDevice _port;
    std::vector<CPCIDevice> _functions;  // function 0 first

private:
    ASPMEndState _state(const CPCIDevice& function) const;
    // The ends in the order a change goes: device functions first, or port first.
    std::vector<const CPCIDevice*> _ends(bool device_first) const;
    bool _set_link_control(unsigned int bit, bool enable);
    bool _set_substate(unsigned int bit, bool enable);
    bool _selected(bool l1, unsigned int* index) const;
    bool _select(bool l1, unsigned int index);
};

// A link below one of the platform's root ports: the timers are the port's,
// in its link controller on the die (found by its core and port number).
class CASPM_OPL_RC_LANTERN : public CASPMGeneric {
public:
    CASPM_OPL_RC_LANTERN(CPCIDevice port, std::vector<CPCIDevice> device_functions, std::shared_ptr<Register> timers);
    std::string kind() const override { return "Platform root port"; }
    std::string timer_end() const override { return "Port"; }

protected:
    bool _read_timer_control(unsigned int& control) const override;
    void _write_timer_control(unsigned int control) override;

private:
    std::shared_ptr<Register> _timers;
};

// A link to one of the platform's graphics or accelerator endpoints: the
// timers are the endpoint's, in its vendor-specific capability. The endpoint
// is the end that asks for L1, so its timer decides when the link goes there.
class CASPM_OPL_INTERNAL_EP : public CASPMGeneric {
public:
    CASPM_OPL_INTERNAL_EP(CPCIDevice port, std::vector<CPCIDevice> device_functions, unsigned int capability);
    std::string kind() const override { return "Platform endpoint"; }
    std::string timer_end() const override { return "Device"; }

protected:
    bool _read_timer_control(unsigned int& control) const override;
    void _write_timer_control(unsigned int control) override;

private:
    unsigned int _capability;
};

// The class for a link below a platform root port: with the port's timers
// where the die's register tables have them, plain otherwise.
class CASPMRCFactory {
public:
    std::unique_ptr<CASPMGeneric> make(const LinkPort& where, CPCIDevice port,
                                       std::vector<CPCIDevice> device_functions) const;
};

// The class for a link to a platform graphics endpoint: with its timers
// where it carries the timer capability, plain otherwise.
class CASPMGfxFactory {
public:
    std::unique_ptr<CASPMGeneric> make(CPCIDevice port, std::vector<CPCIDevice> device_functions) const;
};

// Every link with a device on its far end, in this order: the platform's
// root ports, links to the platform's graphics endpoints, then the other
// root ports and switch downstream ports. A link is listed once.
class CASPMDeviceList {
public:
    CASPMDeviceList() = default;
    // Runs the three detections over the machine.
    explicit CASPMDeviceList(const PanelMachine& machine);
    void DetectOPLRC();
    void DetectOPLGfx();
    void DetectNonOPLRC();

    unsigned int GetListSize() const { return static_cast<unsigned int>(_entries.size()); }
    bool GetListEntry(unsigned int index, CASPMGeneric** entry) const;

private:
    // The functions of the device on the port's secondary bus, function 0
    // first; empty when there is no device 0 function 0.
    std::vector<CPCIDevice> _below(const LinkPort& port) const;
    bool _listed(const LinkPort& port) const;
    bool _to_platform_endpoint(const LinkPort& port) const;

    PanelMachine _machine;
    std::vector<LinkPort> _ports;
    std::vector<PCIE::Device_ID> _listed_ports;
    std::vector<std::unique_ptr<CASPMGeneric>> _entries;
};
