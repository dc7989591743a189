#include "hardware/register_storage.h"

#include <sstream>
#include <stdexcept>

#include "hardware/chips/corvane_registers.h"
#include "hardware/chips/dellmar_registers.h"
#include "hardware/crn_factory.h"

using chips::RegisterTable;

namespace {

std::string join(std::initializer_list<std::string> keys) {
    std::string text;
    for (const std::string& key : keys) text += "-" + key;
    return text;
}

std::string hex(unsigned int value) {
    std::ostringstream out;
    out << std::hex << value;
    return out.str();
}

std::shared_ptr<const RegisterTables> empty_tables() {
    static const auto tables = std::make_shared<const RegisterTables>();
    return tables;
}

std::shared_ptr<const RegisterTables> tables_from(const chips::RegisterRows& rows) {
    auto tables = std::make_shared<RegisterTables>();
    tables->add(rows);
    return tables;
}

}  // namespace

void RegisterTables::add(const chips::RegisterRow& row) {
    auto& instances = tables[static_cast<std::size_t>(row.table)][row.name][row.key];
    const auto [slot, inserted] = instances.emplace(std::make_pair(row.instance, row.lane), row.address);
    if (!inserted && slot->second != row.address)
        throw std::runtime_error("Register map row repeated with another address: " + row.name + "-" + row.key);
    const auto [size, fresh] = sizes.emplace(row.name, row.size);
    if (!fresh && size->second != row.size)
        throw std::runtime_error("Register map gives two sizes for " + row.name);
}

void RegisterTables::add(const chips::RegisterRows& rows) {
    for (const chips::RegisterRow& row : rows) add(row);
}

TableRegisterStorage::TableRegisterStorage(std::shared_ptr<PhyAccessor> phy,
                                           std::shared_ptr<const RegisterTables> tables, std::string chip)
    : _phy(std::move(phy)), _tables(std::move(tables)), _chip(std::move(chip)) {}

std::shared_ptr<Register> TableRegisterStorage::_make_register(unsigned int address, unsigned int size,
                                                               const std::string& name) const {
    return std::make_shared<CorvaneRegister>(_phy, address, size, name);
}

std::shared_ptr<Register> TableRegisterStorage::_lookup(RegisterTable table, const std::string& list,
                                                        const std::string& name, const std::string& key,
                                                        unsigned int instance, unsigned int lane,
                                                        const std::string& keys_text) const {
    const auto& names = _tables->tables[static_cast<std::size_t>(table)];
    if (auto by_name = names.find(name); by_name != names.end())
        if (auto by_key = by_name->second.find(key); by_key != by_name->second.end())
            if (auto found = by_key->second.find({instance, lane}); found != by_key->second.end())
                if (auto size = _tables->sizes.find(name); size != _tables->sizes.end())
                    return _make_register(found->second, size->second, name);
    throw std::runtime_error("Register not in the " + list + " list - " + name + keys_text);
}

void TableRegisterStorage::_not_implemented(const char* class_name, const char* function) {
    throw std::runtime_error(std::string("Not implemented ") + class_name + "::" + function + ".");
}

std::shared_ptr<Register> TableRegisterStorage::get_lane_register(const std::string& name, const std::string& link,
                                                                  int lane) const {
    return _lookup(RegisterTable::lane, _chip + " lane", name, link, static_cast<unsigned int>(lane), 0,
                   join({link, std::to_string(lane)}));
}

std::shared_ptr<Register> TableRegisterStorage::get_chiplet_register(const std::string& name,
                                                                     const std::string& link, int chiplet) const {
    return _lookup(RegisterTable::chiplet, _chip + " chiplet", name, link, static_cast<unsigned int>(chiplet), 0,
                   join({link, std::to_string(chiplet)}));
}

std::shared_ptr<Register> TableRegisterStorage::get_link_register(const std::string& name,
                                                                  const std::string& link) const {
    return _lookup(RegisterTable::link, _chip + " link", name, link, 0, 0, join({link}));
}

std::shared_ptr<Register> TableRegisterStorage::get_link_pcs_register(const std::string& name,
                                                                      const std::string& link,
                                                                      unsigned int lane) const {
    return _lookup(RegisterTable::link_pcs, _chip + " get_link_pcs_register", name, link, lane, 0,
                   join({link, std::to_string(lane)}));
}

std::shared_ptr<Register> TableRegisterStorage::get_pcie_core_register(const std::string& name,
                                                                       const std::string& core) const {
    return _lookup(RegisterTable::pcie_core, _chip + " pcie core", name, core, 0, 0, join({core}));
}

std::shared_ptr<Register> TableRegisterStorage::get_pcie_core_func_register(const std::string& name,
                                                                            const std::string& core,
                                                                            unsigned int port) const {
    return _lookup(RegisterTable::pcie_core_func, _chip + " pcie core function", name, core, port, 0,
                   join({core, std::to_string(port)}));
}

std::shared_ptr<Register> TableRegisterStorage::get_pcie_core_func_lane_register(const std::string& name,
                                                                                 const std::string& core,
                                                                                 unsigned int port,
                                                                                 unsigned int lane) const {
    return _lookup(RegisterTable::pcie_core_func_lane, _chip + " get_pcie_core_func_lane_register", name, core,
                   port, lane, join({core, std::to_string(port), std::to_string(lane)}));
}

std::shared_ptr<Register> TableRegisterStorage::get_cxl_register(const std::string& name, const std::string& core,
                                                                 unsigned int port) const {
    return _lookup(RegisterTable::cxl, _chip + " cxl", name, core, port, 0, join({core, std::to_string(port)}));
}

std::shared_ptr<Register> TableRegisterStorage::get_iohc_register(const std::string& name,
                                                                  const std::string& core) const {
    return _lookup(RegisterTable::iohc, _chip + " iohc", name, core, 0, 0, join({core}));
}

std::shared_ptr<Register> TableRegisterStorage::get_sata_register(const std::string& name,
                                                                  unsigned int index) const {
    return _lookup(RegisterTable::sata, _chip + " sata", name, chips::kSataKey, index, 0,
                   join({std::to_string(index)}));
}

std::shared_ptr<Register> TableRegisterStorage::get_mpio_register(const std::string& name) const {
    return _lookup(RegisterTable::mpio, _chip + " mpio", name, chips::kMpioKey, 0, 0, "");
}

std::shared_ptr<Register> TableRegisterStorage::get_usr_register(const std::string& name, const std::string& link,
                                                                 int instance) const {
    return _lookup(RegisterTable::usr, _chip + " usr", name, link, static_cast<unsigned int>(instance), 0,
                   join({link, std::to_string(instance)}));
}

std::shared_ptr<Register> TableRegisterStorage::get_usb4_port_register(const std::string& name,
                                                                       USB::USB4Port port) const {
    const std::string router = std::to_string(port.router);
    return _lookup(RegisterTable::usb4_port, _chip + " usb4 port", name, router, port.port, 0,
                   join({router, std::to_string(port.port)}));
}

std::vector<std::string> TableRegisterStorage::get_register_list_with_address(const std::string& name) const {
    const auto size = _tables->sizes.find(name);
    if (size == _tables->sizes.end()) throw std::runtime_error("Not found register " + name + " in size map");
    std::vector<std::string> lines{"Size of register is: " + std::to_string(size->second)};
    for (std::size_t table = 0; table < RegisterTables::kTableCount; ++table) {
        const auto by_name = _tables->tables[table].find(name);
        if (by_name == _tables->tables[table].end()) continue;
        const bool with_lane = table == static_cast<std::size_t>(RegisterTable::pcie_core_func_lane);
        for (const auto& [key, instances] : by_name->second)
            for (const auto& [instance_lane, address] : instances)
                lines.push_back(key + " " + std::to_string(instance_lane.first) +
                                (with_lane ? " " + std::to_string(instance_lane.second) : "") + " 0x" +
                                hex(address));
    }
    return lines;
}

// Corvane

CorvaneRegisterStorage::CorvaneRegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : CorvaneRegisterStorage(std::move(phy), populate_register_map(), "Corvane",
                             chips::corvane_register_map().link_names) {}

CorvaneRegisterStorage::CorvaneRegisterStorage(std::shared_ptr<PhyAccessor> phy,
                                               std::shared_ptr<const RegisterTables> tables, std::string chip,
                                               std::vector<std::string> link_names)
    : TableRegisterStorage(std::move(phy), std::move(tables), std::move(chip)), _link_names(std::move(link_names)) {}

// The chip's rows go in group by group (links, chiplets, lanes, core
// functions, cores, TX equalisation, CXL, SATA, MPIO, link PCS) once per
// process; every store of the chip shares the result.
std::shared_ptr<const RegisterTables> CorvaneRegisterStorage::populate_register_map() {
    static const std::shared_ptr<const RegisterTables> tables = tables_from(chips::corvane_register_map().all);
    return tables;
}

// Whatever the chip, link PCS misses name Dellmar: the tools that parse
// these messages expect that text.
std::shared_ptr<Register> CorvaneRegisterStorage::get_link_pcs_register(const std::string& name,
                                                                        const std::string& link,
                                                                        unsigned int lane) const {
    return _lookup(RegisterTable::link_pcs, "Dellmar get_link_pcs_register", name, link, lane, 0,
                   "-" + link + "-" + std::to_string(lane));
}

std::shared_ptr<Register> CorvaneRegisterStorage::get_usr_register(const std::string&, const std::string&,
                                                                   int) const {
    throw std::runtime_error("USR registers not there for Corvane");
}

std::shared_ptr<Register> CorvaneRegisterStorage::get_iohc_register(const std::string&, const std::string&) const {
    throw std::runtime_error("IOHC registers not there for Corvane");
}

std::shared_ptr<Register> CorvaneRegisterStorage::get_usb4_port_register(const std::string&,
                                                                         USB::USB4Port) const {
    throw std::runtime_error("USB4 registers not there for Corvane");
}

// Dellmar

DellmarRegisterStorage::DellmarRegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : CorvaneRegisterStorage(std::move(phy), populate_register_map(), "Dellmar",
                             chips::dellmar_register_map().link_names) {}

std::shared_ptr<const RegisterTables> DellmarRegisterStorage::populate_register_map() {
    static const std::shared_ptr<const RegisterTables> tables = tables_from(chips::dellmar_register_map().all);
    return tables;
}

std::shared_ptr<Register> DellmarRegisterStorage::get_usr_register(const std::string&, const std::string&,
                                                                   int) const {
    throw std::runtime_error("USR registers not there for Dellmar");
}

std::shared_ptr<Register> DellmarRegisterStorage::get_iohc_register(const std::string& name,
                                                                    const std::string& core) const {
    return TableRegisterStorage::get_iohc_register(name, core);
}

std::shared_ptr<Register> DellmarRegisterStorage::get_usb4_port_register(const std::string&,
                                                                         USB::USB4Port) const {
    throw std::runtime_error("USB4 registers not there for Dellmar");
}

// Chips without register maps yet

OBLRegisterStorage::OBLRegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : TableRegisterStorage(std::move(phy), empty_tables(), "OBL") {}
std::shared_ptr<Register> OBLRegisterStorage::get_link_pcs_register(const std::string&, const std::string&,
                                                                    unsigned int) const {
    _not_implemented("OBLRegisterStorage", "get_link_pcs_register");
}
std::shared_ptr<Register> OBLRegisterStorage::get_pcie_core_func_lane_register(const std::string&,
                                                                               const std::string&, unsigned int,
                                                                               unsigned int) const {
    _not_implemented("OBLRegisterStorage", "get_pcie_lane_register");
}
std::shared_ptr<Register> OBLRegisterStorage::get_cxl_register(const std::string&, const std::string&,
                                                               unsigned int) const {
    _not_implemented("OBLRegisterStorage", "get_cxl_register");
}
std::shared_ptr<Register> OBLRegisterStorage::get_sata_register(const std::string&, unsigned int) const {
    _not_implemented("KX800RegisterStorage", "get_sata_register");
}
std::shared_ptr<Register> OBLRegisterStorage::get_mpio_register(const std::string&) const {
    _not_implemented("OBLRegisterStorage", "get_mpio_register");
}

KX800RegisterStorage::KX800RegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : TableRegisterStorage(std::move(phy), empty_tables(), "KX800") {}
std::shared_ptr<Register> KX800RegisterStorage::get_usr_register(const std::string&, const std::string&,
                                                                 int) const {
    _not_implemented("KX800RegisterStorage", "get_usr_register");
}
std::shared_ptr<Register> KX800RegisterStorage::get_iohc_register(const std::string&, const std::string&) const {
    _not_implemented("KX800RegisterStorage", "get_iohc_register");
}
std::shared_ptr<Register> KX800RegisterStorage::get_pcie_core_func_lane_register(const std::string&,
                                                                                 const std::string&, unsigned int,
                                                                                 unsigned int) const {
    _not_implemented("KX800RegisterStorage", "get_pcie_lane_register");
}
std::shared_ptr<Register> KX800RegisterStorage::get_cxl_register(const std::string&, const std::string&,
                                                                 unsigned int) const {
    _not_implemented("KX800RegisterStorage", "get_cxl_register");
}
std::shared_ptr<Register> KX800RegisterStorage::get_sata_register(const std::string&, unsigned int) const {
    _not_implemented("KX800RegisterStorage", "get_sata_register");
}
std::shared_ptr<Register> KX800RegisterStorage::get_mpio_register(const std::string&) const {
    _not_implemented("KX800RegisterStorage", "get_mpio_register");
}
std::shared_ptr<Register> KX800RegisterStorage::get_link_pcs_register(const std::string&, const std::string&,
                                                                      unsigned int) const {
    _not_implemented("KX800RegisterStorage", "get_link_pcs_register");
}
std::vector<std::string> KX800RegisterStorage::get_register_list_with_address(const std::string&) const {
    _not_implemented("KX800RegisterStorage", "get_register_list_with_address");
}

KX900ARegisterStorage::KX900ARegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : TableRegisterStorage(std::move(phy), empty_tables(), "KX900A") {}
std::shared_ptr<Register> KX900ARegisterStorage::get_cxl_register(const std::string&, const std::string&,
                                                                  unsigned int) const {
    _not_implemented("KX900ARegisterStorage", "get_cxl_register");
}
std::shared_ptr<Register> KX900ARegisterStorage::get_iohc_register(const std::string&, const std::string&) const {
    _not_implemented("KX900ARegisterStorage", "get_iohc_register");
}
std::shared_ptr<Register> KX900ARegisterStorage::get_sata_register(const std::string&, unsigned int) const {
    _not_implemented("KX900RegisterStorage", "get_sata_register");
}
std::shared_ptr<Register> KX900ARegisterStorage::get_mpio_register(const std::string&) const {
    _not_implemented("KX900RegisterStorage", "get_mpio_register");
}

FerrowRegisterStorage::FerrowRegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : TableRegisterStorage(std::move(phy), empty_tables(), "Ferrow") {}
std::shared_ptr<Register> FerrowRegisterStorage::get_mpio_register(const std::string&) const {
    _not_implemented("FerrowRegisterStorage", "get_mpio_register");
}
std::shared_ptr<Register> FerrowRegisterStorage::get_iohc_register(const std::string&, const std::string&) const {
    _not_implemented("FerrowRegisterStorage", "get_iohc_register");
}
std::shared_ptr<Register> FerrowRegisterStorage::_make_register(unsigned int address, unsigned int size,
                                                                const std::string& name) const {
    return std::make_shared<FerrowRegister>(_phy, address, size, name);
}

SabrelRegisterStorage::SabrelRegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : TableRegisterStorage(std::move(phy), empty_tables(), "Sabrel") {}
std::shared_ptr<Register> SabrelRegisterStorage::get_iohc_register(const std::string&, const std::string&) const {
    _not_implemented("SabrelRegisterStorage", "get_iohc_register");
}
std::shared_ptr<Register> SabrelRegisterStorage::get_mpio_register(const std::string&) const {
    _not_implemented("SabrelRegisterStorage", "get_mpio_register");
}
std::shared_ptr<Register> SabrelRegisterStorage::_make_register(unsigned int address, unsigned int size,
                                                                const std::string& name) const {
    return std::make_shared<SabrelRegister>(_phy, address, size, name);
}

TamblinRegisterStorage::TamblinRegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : TableRegisterStorage(std::move(phy), empty_tables(), "Tamblin") {}
std::shared_ptr<Register> TamblinRegisterStorage::get_iohc_register(const std::string&,
                                                                    const std::string&) const {
    _not_implemented("TamblinRegisterStorage", "get_iohc_register");
}
std::shared_ptr<Register> TamblinRegisterStorage::get_mpio_register(const std::string&) const {
    _not_implemented("TamblinRegisterStorage", "get_mpio_register");
}
std::shared_ptr<Register> TamblinRegisterStorage::_make_register(unsigned int address, unsigned int size,
                                                                 const std::string& name) const {
    return std::make_shared<TamblinRegister>(_phy, address, size, name);
}

Hesk31RegisterStorage::Hesk31RegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : TableRegisterStorage(std::move(phy), empty_tables(), "Hesk31") {}
std::shared_ptr<Register> Hesk31RegisterStorage::get_mpio_register(const std::string&) const {
    _not_implemented("Hesk31RegisterStorage", "get_mpio_register");
}
std::shared_ptr<Register> Hesk31RegisterStorage::_make_register(unsigned int address, unsigned int size,
                                                                const std::string& name) const {
    return std::make_shared<Hesk31Register>(_phy, address, size, name);
}

Hesk48RegisterStorage::Hesk48RegisterStorage(std::shared_ptr<PhyAccessor> phy)
    : TableRegisterStorage(std::move(phy), empty_tables(), "Hesk48") {}
std::shared_ptr<Register> Hesk48RegisterStorage::get_iohc_register(const std::string&, const std::string&) const {
    _not_implemented("Hesk48RegisterStorage", "get_iohc_register");
}
std::shared_ptr<Register> Hesk48RegisterStorage::get_mpio_register(const std::string&) const {
    _not_implemented("Hesk48RegisterStorage", "get_mpio_register");
}
std::shared_ptr<Register> Hesk48RegisterStorage::_make_register(unsigned int address, unsigned int size,
                                                                const std::string& name) const {
    return std::make_shared<Hesk48Register>(_phy, address, size, name);
}

// Choosing the store

std::shared_ptr<RegisterStorage> make_register_store(const std::string& name, std::shared_ptr<PhyAccessor> phy) {
    if (name == "Dellmar") return std::make_shared<DellmarRegisterStorage>(std::move(phy));
    if (name == "Corvane") return std::make_shared<CorvaneRegisterStorage>(std::move(phy));
    if (name == "Ombrel" || name == "Cobalt Bay") return std::make_shared<OBLRegisterStorage>(std::move(phy));
    if (name == "KX900A" || name == "KX900X" || name == "KX900C")
        return std::make_shared<KX900ARegisterStorage>(std::move(phy));
    if (name == "KX800") return std::make_shared<KX800RegisterStorage>(std::move(phy));
    if (name == "Ferrow" || name == "Ferrow2") return std::make_shared<FerrowRegisterStorage>(std::move(phy));
    if (name == "Sabrel1" || name == "Sabrel2" || name == "Sabrel Crown")
        return std::make_shared<SabrelRegisterStorage>(std::move(phy));
    if (name == "Tamblin1" || name == "Rusk") return std::make_shared<TamblinRegisterStorage>(std::move(phy));
    if (name == "Hesk31" || name == "Hesk32") return std::make_shared<Hesk31RegisterStorage>(std::move(phy));
    if (name == "Hesk48" || name == "Hesk44") return std::make_shared<Hesk48RegisterStorage>(std::move(phy));
    throw std::runtime_error("Error: get_register_store cannot handle " + name);
}

std::shared_ptr<RegisterStorage> get_register_store(const VEX_DIE_INFO& die) {
    auto accessor = CRNFactory::instance()->get_crn_accessor(die);
    return make_register_store(die.name(), std::make_shared<PhyAccessor>(accessor));
}
