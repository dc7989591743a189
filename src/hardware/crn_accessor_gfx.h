// The register network of a graphics-mode die, reached through an
// index/data pair inside the graphics function's memory-mapped register
// aperture (found from its BARs). Only the hardware service builds these;
// the platform model answers through its own maker (gfx_accessor_maker.h).
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "hardware/crn_accessor.h"
#include "hardware/mmio_lin.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

class GFXMemAccessor {
public:
    virtual ~GFXMemAccessor() = default;
    // Always a 32-bit access, whatever size says (1, 2, 4 or 8 are meant).
    virtual bool ReadMMReg(unsigned int offset, unsigned int& value, unsigned int size, std::string& error) = 0;
    virtual bool WriteMMReg(unsigned int offset, unsigned int value, unsigned int size, std::string& error) = 0;
};

class GFXAccessor : public CRNAccessor, public GFXMemAccessor {};

// Maps physical memory for an accessor; tests hand in a fake.
using MMIOMaker = std::function<std::unique_ptr<MMIO>()>;

// What both graphics accessors share: the aperture, its mapping and the
// network pair inside it.
class GFXApertureAccessor : public GFXAccessor {
public:
    static constexpr unsigned int kApertureSize = 0x80000;
    static constexpr unsigned int kCrnIndexOffset = 80;
    static constexpr unsigned int kCrnDataOffset = 84;
    static constexpr unsigned int kIdentityTestAddress = 0x10140000;
    static constexpr unsigned int kApertureIndexOffset = 0;
    static constexpr unsigned int kApertureDataOffset = 4;

    ~GFXApertureAccessor() override;
    GFXApertureAccessor(const GFXApertureAccessor&) = delete;
    GFXApertureAccessor& operator=(const GFXApertureAccessor&) = delete;

    // The narrow forms throw: the pair inside the aperture is 32 bits wide.
    unsigned int read16(unsigned int address) const override;
    void write16(unsigned int address, unsigned int value) const override;
    unsigned int read8(unsigned int address) const override;
    void write8(unsigned int address, unsigned int value) const override;

    // Offsets below the aperture size are reached directly; higher ones
    // through the aperture's own index/data pair at 0 and 4. Without a
    // mapping both go through MMIO on physical addresses.
    bool ReadMMReg(unsigned int offset, unsigned int& value, unsigned int size, std::string& error) override;
    bool WriteMMReg(unsigned int offset, unsigned int value, unsigned int size, std::string& error) override;

    // One network access through the pair at 80/84. A read stores the value
    // even when the index read back differs from address; then "CRN Index
    // Register value changed in-between read" is appended to error and the
    // answer is false.
    virtual bool ReadCRNReg(unsigned int address, unsigned int& value, unsigned int size, std::string& error) = 0;
    virtual bool WriteCRNReg(unsigned int address, unsigned int value, unsigned int size, std::string& error) = 0;
    // Whether the network answers.
    virtual bool TestRegAperture() = 0;

    bool is_aperture_mapped() const { return _mapped; }
    unsigned long get_mmreg_base() const { return _mmreg_base; }
    unsigned long get_frame_buffer_base() const { return _frame_buffer_base; }
    unsigned long get_io_base() const { return _io_base; }
    // "B<bus>D<device>F<function>" in decimal.
    const std::string& get_lock_name() const { return _lock_name; }

protected:
    GFXApertureAccessor(const PCIDeviceDetails& function, unsigned long mmreg_base, unsigned long frame_buffer_base,
                        unsigned long io_base, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write,
                        std::unique_ptr<MMIO> mmio);

    friend class GetKX800CRNAccessor;
    friend class GetKX900GPUCRNAccessor;

    // Turns on memory decoding if needed, maps the aperture and puts the
    // command register back (memory space left on). Throws "MMReg Aperture
    // failed" when the mapping step fails.
    void _initalize();
    bool MapMMRegAperture();
    void MapAndTranslatePhysicalAddress(unsigned long physical, unsigned int size, unsigned long* virtual_address);

    // Index, optional die selection, data, index read-back.
    bool _crn_access(unsigned int address, unsigned int* read_value, unsigned int write_value,
                     std::string& error, const unsigned int* extension) const;
    bool _mm_read(unsigned int offset, unsigned int& value) const;
    bool _mm_write(unsigned int offset, unsigned int value) const;

    PCIDeviceDetails _function;
    unsigned long _mmreg_base;
    unsigned long _frame_buffer_base;
    unsigned long _io_base;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;
    bool _mapped = false;
    unsigned long _virtual = 0;
    std::unique_ptr<MMIO> _mmio;
    std::string _lock_name;
};

// The KX800 way: no die selector, and 32-bit network accesses take no lock.
class CRNAccessorKX800 final : public GFXApertureAccessor {
public:
    // Use GetKX800CRNAccessor, which also maps the aperture.
    CRNAccessorKX800(const PCIDeviceDetails& function, unsigned long mmreg_base, unsigned long frame_buffer_base,
                     unsigned long io_base, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write,
                     std::unique_ptr<MMIO> mmio);

    // The reported error is dropped: the interface has no channel for it.
    unsigned int read32(unsigned int address) const override;
    void write32(unsigned int address, unsigned int value) const override;

    bool ReadCRNReg(unsigned int address, unsigned int& value, unsigned int size, std::string& error) override;
    bool WriteCRNReg(unsigned int address, unsigned int value, unsigned int size, std::string& error) override;
    // The identity test address mirrors the function's identity dword.
    bool TestRegAperture() override;
};

// The KX900 way, used for every graphics-mode die that isn't a KX800: an
// extension index at 88 selects the die on the device, and 32-bit network
// accesses hold the aperture's lock.
class CRNAccessorKX900GPU final : public GFXApertureAccessor {
public:
    static constexpr unsigned int kCrnExtensionIndexOffset = 88;

    CRNAccessorKX900GPU(const PCIDeviceDetails& function, unsigned long mmreg_base, unsigned long frame_buffer_base,
                        unsigned long io_base, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write,
                        std::unique_ptr<MMIO> mmio, unsigned int die_selector);

    unsigned int read32(unsigned int address) const override;
    void write32(unsigned int address, unsigned int value) const override;

    // Selector 0 writes 0 to the extension index; another writes selector | 4.
    bool ReadCRNReg(unsigned int address, unsigned int& value, unsigned int size, std::string& error) override;
    bool WriteCRNReg(unsigned int address, unsigned int value, unsigned int size, std::string& error) override;
    // Always true.
    bool TestRegAperture() override;

    unsigned int get_die_selector() const { return _die_selector; }

private:
    unsigned int _die_selector;
};

// Builders: read the function's class code and BARs, construct and map.
// Throw "Unknown base code in GPU detection." for a function that isn't a
// display or processing accelerator, "Unexpected bar6 value." for an empty
// register BAR. Without an MMIO maker they open physical memory (MMIO_lin).
class GetKX800CRNAccessor {
public:
    GetKX800CRNAccessor(PCIDeviceDetails function, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write,
                        MMIOMaker make_mmio = {});
    std::shared_ptr<CRNAccessorKX800> operator()();

private:
    PCIDeviceDetails _function;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;
    MMIOMaker _make_mmio;
};

class GetKX900GPUCRNAccessor {
public:
    GetKX900GPUCRNAccessor(PCIDeviceDetails function, std::shared_ptr<ReadPCI> read,
                           std::shared_ptr<WritePCI> write, unsigned int die_selector, MMIOMaker make_mmio = {});
    std::shared_ptr<CRNAccessorKX900GPU> operator()();

private:
    PCIDeviceDetails _function;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;
    unsigned int _die_selector;
    MMIOMaker _make_mmio;
};
