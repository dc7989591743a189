// Per-chip databases from register name (and core, link, port, lane...) to
// a Register on the die's network. Chips share register names, not
// addresses, so chip differences stay table data (src/hardware/chips/).
//
// Lookups never return null: a register the chip's tables don't hold throws
// std::runtime_error "Register not in the <chip> <list> list - " followed
// by the name and the further keys joined by "-" (for example "Register not
// in the Corvane pcie core function list - PCIE_LC_STATE0-PCIE0_nbio0-9").
// Lookups a chip doesn't offer throw their fixed texts.
//
// Without hardware (the platform model, tests): make_register_store(name,
// nullptr) builds a store whose registers answer get_offset(), get_size()
// and get_name() and throw on read()/write(). The rows themselves are in
// chips/corvane_registers.h and chips/dellmar_registers.h.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hardware/chips/register_rows.h"
#include "hardware/phy_accessor.h"
#include "hardware/register.h"
#include "hardware/usb4_port.h"
#include "hardware/vex_die_info.h"

class RegisterStorage {
public:
    virtual std::shared_ptr<Register> get_lane_register(const std::string& name, const std::string& link,
                                                        int lane) const = 0;
    virtual std::shared_ptr<Register> get_chiplet_register(const std::string& name, const std::string& link,
                                                           int chiplet) const = 0;
    virtual std::shared_ptr<Register> get_link_register(const std::string& name, const std::string& link) const = 0;
    virtual std::shared_ptr<Register> get_link_pcs_register(const std::string& name, const std::string& link,
                                                            unsigned int lane) const = 0;
    virtual std::shared_ptr<Register> get_pcie_core_register(const std::string& name,
                                                             const std::string& core) const = 0;
    virtual std::shared_ptr<Register> get_pcie_core_func_register(const std::string& name, const std::string& core,
                                                                  unsigned int port) const = 0;
    virtual std::shared_ptr<Register> get_pcie_core_func_lane_register(const std::string& name,
                                                                       const std::string& core, unsigned int port,
                                                                       unsigned int lane) const = 0;
    virtual std::shared_ptr<Register> get_cxl_register(const std::string& name, const std::string& core,
                                                       unsigned int port) const = 0;
    virtual std::shared_ptr<Register> get_iohc_register(const std::string& name, const std::string& core) const = 0;
    virtual std::shared_ptr<Register> get_sata_register(const std::string& name, unsigned int index) const = 0;
    virtual std::shared_ptr<Register> get_mpio_register(const std::string& name) const = 0;
    virtual std::shared_ptr<Register> get_usr_register(const std::string& name, const std::string& link,
                                                       int instance) const = 0;
    // "Size of register is: <size>", then one line per place the register
    // stands: "<core or link> <instance>[ <lane>] 0x<address>". Throws
    // "Not found register <name> in size map" for an unknown name.
    virtual std::vector<std::string> get_register_list_with_address(const std::string& name) const = 0;
    virtual std::shared_ptr<Register> get_usb4_port_register(const std::string& name,
                                                             USB::USB4Port port) const = 0;
    virtual ~RegisterStorage() = default;
};

// The three-level maps of one chip (name, then core or link, then instance
// and lane) and the size of each name, built once from its rows and shared
// by every store of that chip.
struct RegisterTables {
    using Instances = std::map<std::pair<unsigned int, unsigned int>, unsigned int>;  // (instance, lane) -> address
    using Keys = std::map<std::string, Instances>;
    static constexpr std::size_t kTableCount = static_cast<std::size_t>(chips::RegisterTable::usb4_port) + 1;

    std::array<std::map<std::string, Keys>, kTableCount> tables;
    std::map<std::string, unsigned int> sizes;

    // Throws std::runtime_error for a row that repeats another's keys with
    // another address, or a name given two sizes: both are table mistakes.
    void add(const chips::RegisterRow& row);
    void add(const chips::RegisterRows& rows);
};

// A store answering every lookup from its chip's tables.
class TableRegisterStorage : public RegisterStorage {
public:
    std::shared_ptr<Register> get_lane_register(const std::string& name, const std::string& link,
                                                int lane) const override;
    std::shared_ptr<Register> get_chiplet_register(const std::string& name, const std::string& link,
                                                   int chiplet) const override;
    std::shared_ptr<Register> get_link_register(const std::string& name, const std::string& link) const override;
    std::shared_ptr<Register> get_link_pcs_register(const std::string& name, const std::string& link,
                                                    unsigned int lane) const override;
    std::shared_ptr<Register> get_pcie_core_register(const std::string& name, const std::string& core) const override;
    std::shared_ptr<Register> get_pcie_core_func_register(const std::string& name, const std::string& core,
                                                          unsigned int port) const override;
    std::shared_ptr<Register> get_pcie_core_func_lane_register(const std::string& name, const std::string& core,
                                                               unsigned int port, unsigned int lane) const override;
    std::shared_ptr<Register> get_cxl_register(const std::string& name, const std::string& core,
                                               unsigned int port) const override;
    std::shared_ptr<Register> get_iohc_register(const std::string& name, const std::string& core) const override;
    std::shared_ptr<Register> get_sata_register(const std::string& name, unsigned int index) const override;
    std::shared_ptr<Register> get_mpio_register(const std::string& name) const override;
    std::shared_ptr<Register> get_usr_register(const std::string& name, const std::string& link,
                                               int instance) const override;
    std::vector<std::string> get_register_list_with_address(const std::string& name) const override;
    std::shared_ptr<Register> get_usb4_port_register(const std::string& name, USB::USB4Port port) const override;

    const std::shared_ptr<PhyAccessor>& get_phy_accessor() const { return _phy; }

protected:
    // chip names the store in lookup errors ("Corvane", "KX800"...).
    TableRegisterStorage(std::shared_ptr<PhyAccessor> phy, std::shared_ptr<const RegisterTables> tables,
                         std::string chip);

    // The chip's register class.
    virtual std::shared_ptr<Register> _make_register(unsigned int address, unsigned int size,
                                                     const std::string& name) const;
    // Finds (name, key, instance, lane) in one table, or throws "Register not
    // in the <chip> <list> list - " + name and keys.
    std::shared_ptr<Register> _lookup(chips::RegisterTable table, const std::string& list, const std::string& name,
                                      const std::string& key, unsigned int instance, unsigned int lane,
                                      const std::string& keys_text) const;
    [[noreturn]] static void _not_implemented(const char* class_name, const char* function);

    std::shared_ptr<PhyAccessor> _phy;
    std::shared_ptr<const RegisterTables> _tables;
    std::string _chip;
};

// Corvane: lane, chiplet, link, link PCS, core, core function, TX
// equalisation, CXL, SATA and MPIO tables. No USR, I/O hub or USB4 lookups.
class CorvaneRegisterStorage : public TableRegisterStorage {
public:
    explicit CorvaneRegisterStorage(std::shared_ptr<PhyAccessor> phy);

    std::shared_ptr<Register> get_link_pcs_register(const std::string& name, const std::string& link,
                                                    unsigned int lane) const override;
    std::shared_ptr<Register> get_usr_register(const std::string& name, const std::string& link,
                                               int instance) const override;
    std::shared_ptr<Register> get_iohc_register(const std::string& name, const std::string& core) const override;
    std::shared_ptr<Register> get_usb4_port_register(const std::string& name, USB::USB4Port port) const override;

    // The links the store answers: "G0".."G3", "P0".."P5" and "TEXLPCS".
    const std::vector<std::string>& get_link_names() const { return _link_names; }

protected:
    CorvaneRegisterStorage(std::shared_ptr<PhyAccessor> phy, std::shared_ptr<const RegisterTables> tables,
                           std::string chip, std::vector<std::string> link_names);

private:
    static std::shared_ptr<const RegisterTables> populate_register_map();

    std::vector<std::string> _link_names;
};

// Dellmar: as Corvane on its own cores, plus I/O hub registers.
class DellmarRegisterStorage : public CorvaneRegisterStorage {
public:
    explicit DellmarRegisterStorage(std::shared_ptr<PhyAccessor> phy);

    std::shared_ptr<Register> get_usr_register(const std::string& name, const std::string& link,
                                               int instance) const override;
    std::shared_ptr<Register> get_iohc_register(const std::string& name, const std::string& core) const override;
    std::shared_ptr<Register> get_usb4_port_register(const std::string& name, USB::USB4Port port) const override;

private:
    static std::shared_ptr<const RegisterTables> populate_register_map();
};

// Stores of chips whose register maps aren't filled in yet: every lookup
// misses ("Register not in the ..."), and the lookups the chip doesn't offer
// throw their "Not implemented <class>::<function>." texts. Several name a
// class other than their own; the texts are kept as the tools expect them.
class OBLRegisterStorage : public TableRegisterStorage {
public:
    explicit OBLRegisterStorage(std::shared_ptr<PhyAccessor> phy);
    std::shared_ptr<Register> get_link_pcs_register(const std::string&, const std::string&,
                                                    unsigned int) const override;
    std::shared_ptr<Register> get_pcie_core_func_lane_register(const std::string&, const std::string&, unsigned int,
                                                               unsigned int) const override;
    std::shared_ptr<Register> get_cxl_register(const std::string&, const std::string&, unsigned int) const override;
    std::shared_ptr<Register> get_sata_register(const std::string&, unsigned int) const override;
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override;
};

class KX800RegisterStorage : public TableRegisterStorage {
public:
    explicit KX800RegisterStorage(std::shared_ptr<PhyAccessor> phy);
    std::shared_ptr<Register> get_usr_register(const std::string&, const std::string&, int) const override;
    std::shared_ptr<Register> get_iohc_register(const std::string&, const std::string&) const override;
    std::shared_ptr<Register> get_pcie_core_func_lane_register(const std::string&, const std::string&, unsigned int,
                                                               unsigned int) const override;
    std::shared_ptr<Register> get_cxl_register(const std::string&, const std::string&, unsigned int) const override;
    std::shared_ptr<Register> get_sata_register(const std::string&, unsigned int) const override;
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override;
    std::shared_ptr<Register> get_link_pcs_register(const std::string&, const std::string&,
                                                    unsigned int) const override;
    std::vector<std::string> get_register_list_with_address(const std::string&) const override;
};

class KX900ARegisterStorage : public TableRegisterStorage {
public:
    explicit KX900ARegisterStorage(std::shared_ptr<PhyAccessor> phy);
    std::shared_ptr<Register> get_cxl_register(const std::string&, const std::string&, unsigned int) const override;
    std::shared_ptr<Register> get_iohc_register(const std::string&, const std::string&) const override;
    std::shared_ptr<Register> get_sata_register(const std::string&, unsigned int) const override;
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override;
};

class FerrowRegisterStorage : public TableRegisterStorage {
public:
    explicit FerrowRegisterStorage(std::shared_ptr<PhyAccessor> phy);
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override;
    std::shared_ptr<Register> get_iohc_register(const std::string&, const std::string&) const override;

protected:
    std::shared_ptr<Register> _make_register(unsigned int address, unsigned int size,
                                             const std::string& name) const override;
};

class SabrelRegisterStorage : public TableRegisterStorage {
public:
    explicit SabrelRegisterStorage(std::shared_ptr<PhyAccessor> phy);
    std::shared_ptr<Register> get_iohc_register(const std::string&, const std::string&) const override;
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override;

protected:
    std::shared_ptr<Register> _make_register(unsigned int address, unsigned int size,
                                             const std::string& name) const override;
};

class TamblinRegisterStorage : public TableRegisterStorage {
public:
    explicit TamblinRegisterStorage(std::shared_ptr<PhyAccessor> phy);
    std::shared_ptr<Register> get_iohc_register(const std::string&, const std::string&) const override;
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override;

protected:
    std::shared_ptr<Register> _make_register(unsigned int address, unsigned int size,
                                             const std::string& name) const override;
};

class Hesk31RegisterStorage : public TableRegisterStorage {
public:
    explicit Hesk31RegisterStorage(std::shared_ptr<PhyAccessor> phy);
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override;

protected:
    std::shared_ptr<Register> _make_register(unsigned int address, unsigned int size,
                                             const std::string& name) const override;
};

class Hesk48RegisterStorage : public TableRegisterStorage {
public:
    explicit Hesk48RegisterStorage(std::shared_ptr<PhyAccessor> phy);
    std::shared_ptr<Register> get_iohc_register(const std::string&, const std::string&) const override;
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override;

protected:
    std::shared_ptr<Register> _make_register(unsigned int address, unsigned int size,
                                             const std::string& name) const override;
};

// The store class for a die name over the given accessor (which may be
// null). Throws "Error: get_register_store cannot handle <name>" for a name
// no store serves.
std::shared_ptr<RegisterStorage> make_register_store(const std::string& die_name, std::shared_ptr<PhyAccessor> phy);

// A fresh store for the die over its accessor from CRNFactory::instance().
// Building one costs little after the chip's first; callers in a loop still
// keep theirs.
std::shared_ptr<RegisterStorage> get_register_store(const VEX_DIE_INFO& die);
