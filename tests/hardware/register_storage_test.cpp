#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <tuple>

#include "hardware/base_address_mapper.h"
#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/corvane_registers.h"
#include "hardware/chips/dellmar_registers.h"
#include "hardware/register_storage.h"
#include "support/thrown.h"

namespace {

using chips::RegisterRow;
using chips::RegisterTable;

using lw_test::thrown_text;

// A network of whole dwords that ignores the two low address bits.
class DwordNetwork : public CRNAccessor {
public:
    mutable std::map<unsigned int, unsigned int> words;
    unsigned int read32(unsigned int a) const override { return words[a & ~3u]; }
    void write32(unsigned int a, unsigned int v) const override { words[a & ~3u] = v; }
    unsigned int read16(unsigned int) const override { throw std::logic_error("narrow"); }
    void write16(unsigned int, unsigned int) const override { throw std::logic_error("narrow"); }
    unsigned int read8(unsigned int) const override { throw std::logic_error("narrow"); }
    void write8(unsigned int, unsigned int) const override { throw std::logic_error("narrow"); }
};

struct Chip {
    const char* name;
    const chips::server_io::ServerRegisterMap& map;
    std::span<const chips::PcieCore> cores;
};

std::vector<Chip> served_chips() {
    return {{"Corvane", chips::corvane_register_map(), chips::corvane::kPcieCores},
            {"Dellmar", chips::dellmar_register_map(), chips::dellmar::kPcieCores}};
}

const char* const kPortNames[] = {
    "PCIE_LC_STATE0", "PCIE_LC_STATE1", "PCIE_LC_STATE2", "PCIE_LC_STATE3", "PCIE_LC_STATE4",
    "PCIE_LC_STATE5", "PCIE_LC_STATE6", "PCIE_LC_STATE7", "PCIE_LC_STATE8", "PCIE_LC_STATE9",
    "PCIE_LC_STATE10", "PCIE_LC_STATE11", "SUB_BUS_NUMBER_LATENCY", "LINK_CAP", "PCIE_CCIX_ESM_CNTL",
    "PCIE_CCIX_ESM_STATUS", "PCIE_LC_EQ_CNTL_8GT", "PCIE_LC_EQ_CNTL_16GT", "PCIE_LC_EQ_CNTL_32GT",
    "PCIE_LC_DEBUG_CNTL", "PCIE_LC_CNTL5", "PCIE_LC_BEST_EQ_SETTINGS", "PCIEP_NAK_COUNTER",
    "PCIE_P_PORT_LANE_STATUS", "PCIE_LC_LINK_WIDTH_CNTL"};
const char* const kPortLaneNames[] = {"PCIE_LANE_EQUALIZATION_CNTL", "LANE_EQUALIZATION_CNTL_16GT",
                                      "LANE_EQUALIZATION_CNTL_32GT", "ESM_LANE_EQUALIZATION_CNTL_20GT",
                                      "ESM_LANE_EQUALIZATION_CNTL_25GT"};
const char* const kLaneNames[] = {"UPI2_DECODE_32_LANE_InjectionReadback", "UPI2_DECODE_32_LANE_InjectionParamCode",
                                  "KPMX_SERDES_LANE_LN_Controller", "TX_FFE_COEF0", "TX_FFE_COEF1",
                                  "PCS_LANEX_COEFF", "CMD_OVRD", "CMD_PARM0", "CMD_PARM1", "CMD_STATUS"};
const char* const kChipletNames[] = {"CMN_BMASK6", "CMN_BMASKA", "CMN_BMASKC", "CMN_BMASKE"};
const char* const kHvlPcsNames[] = {
    "PCS_HVL3X16_PCS_STATUS1", "PCS_HVL3X16_PCS_ERROR_CONTROL1", "PCS_HVL3X16_PCS_ERROR_MASK",
    "PCS_HVL3X16_PCS_ERROR_STATUS", "PCS_HVL3X16_PCS_ERROR_STATUS1", "PCS_HVL3X16_PCS_STATE_HIST1",
    "PCS_HVL3X16_PCS_PSTATE_SELECT", "PCS_HVL3X16_PCS_PSTATE_CONTEXT2",
    "PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS0", "PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS1",
    "PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS2"};
const char* const kTexlPcsNames[] = {"PCS_GOPX1_PCS_ERROR_CONTROL1", "PCS_GOPX1_PCS_ERROR_MASK",
                                     "PCS_GOPX1_PCS_ERROR_STATUS", "PCS_GOPX1_PCS_STATE_HIST1"};

TEST(ServerRegisterStores, AnswerEveryRegisterTheSystemUses) {
    for (const Chip& chip : served_chips()) {
        SCOPED_TRACE(chip.name);
        const auto store = make_register_store(chip.name, nullptr);
        for (const chips::PcieCore& core : chip.cores) {
            EXPECT_NO_THROW(store->get_pcie_core_register("NB_BUS_NUM_CNTL", core.name));
            for (unsigned int port = 0; port < core.ports; ++port) {
                for (const char* name : kPortNames)
                    EXPECT_NO_THROW(store->get_pcie_core_func_register(name, core.name, port)) << name;
                for (const char* name : kPortLaneNames)
                    for (unsigned int lane = 0; lane < 16; ++lane)
                        EXPECT_NO_THROW(store->get_pcie_core_func_lane_register(name, core.name, port, lane));
            }
        }
        for (const std::string link : {"G0", "G1", "G2", "G3", "P0", "P1", "P2", "P3", "P5", "TEXLPCS"}) {
            const bool texl = link == "P5" || link == "TEXLPCS";
            for (int lane = 0; lane < (texl ? 8 : 16); ++lane) {
                for (const char* name : kLaneNames) EXPECT_NO_THROW(store->get_lane_register(name, link, lane));
                for (const char* name : kChipletNames)
                    EXPECT_NO_THROW(store->get_chiplet_register(name, link, lane >> 2));
                for (const char* name : texl ? std::span<const char* const>(kTexlPcsNames)
                                             : std::span<const char* const>(kHvlPcsNames))
                    EXPECT_NO_THROW(store->get_link_pcs_register(name, link, lane)) << name << link;
            }
            if (!texl) {
                for (const char* name : kHvlPcsNames) EXPECT_NO_THROW(store->get_link_register(name, link));
            }
        }
        for (const char* name : {"MPIO_C2PMSG_21", "MPIO_C2PMSG_50", "MPIO_C2PMSG_51", "MPIO_C2PMSG_52"})
            EXPECT_NO_THROW(store->get_mpio_register(name));
    }
}

// Two rows may share an address only as the same register: the hVL PCS
// answers every lane of its link alike, the TEXL link has a second name,
// and an I/O hub lookup may reach a core register.
TEST(ServerRegisterMaps, RegistersDoNotOverlapUnlessTheyAreOne) {
    using Identity = std::tuple<std::string, std::string, unsigned int, unsigned int>;
    for (const Chip& chip : served_chips()) {
        SCOPED_TRACE(chip.name);
        std::vector<std::pair<const RegisterRow*, Identity>> rows;
        for (const RegisterRow& row : chip.map.all) {
            const bool per_link = row.name.rfind("PCS_HVL3X16_", 0) == 0;
            rows.push_back({&row, Identity{row.name, row.key == "TEXLPCS" ? "P5" : row.key,
                                           per_link ? 0 : row.instance, row.lane}});
        }
        std::sort(rows.begin(), rows.end(),
                  [](const auto& a, const auto& b) { return a.first->address < b.first->address; });
        for (std::size_t i = 1; i < rows.size(); ++i) {
            const auto& [previous, previous_identity] = rows[i - 1];
            const auto& [row, identity] = rows[i];
            if (row->address < previous->address + previous->size) {
                EXPECT_EQ(identity, previous_identity) << row->name << "-" << row->key << "-" << row->instance
                                                       << " overlaps " << previous->name << "-" << previous->key
                                                       << "-" << previous->instance;
            }
        }
    }
}

TEST(ServerRegisterMaps, PortRegistersLieInTheMappersPortBlock) {
    const pcieinterfacecl::CorvaneBaseaddressMapper mapper;
    for (const RegisterRow& row : chips::corvane_register_map().all) {
        if (row.table != RegisterTable::pcie_core_func && row.table != RegisterTable::pcie_core_func_lane) continue;
        const unsigned int block = mapper.get_port_base_address(row.key, row.instance);
        EXPECT_GE(row.address, block) << row.name;
        EXPECT_LT(row.address, block + 0x1000) << row.name;
    }
}

TEST(ServerRegisterMaps, PhyRegistersLieInTheirLanesChiplet) {
    const auto& lanes = chips::corvane_lanes();
    for (const RegisterRow& row : chips::corvane_register_map().all) {
        if (row.table != RegisterTable::lane || row.key == "TEXLPCS") continue;
        const chips::LinkLanes* link = lanes.find(row.key);
        ASSERT_NE(link, nullptr) << row.key;
        const unsigned int chiplet = link->chiplet_base.at(row.instance / 4);
        const bool in_phy = row.address >= chiplet && row.address < chiplet + 0x10000;
        const bool in_pcs = link->pcs_base && row.address >= *link->pcs_base && row.address < *link->pcs_base + 0x10000;
        EXPECT_TRUE(in_phy || in_pcs) << row.name << "-" << row.key << "-" << row.instance;
    }
}

TEST(RegisterStorage, LookupMissesNameTheListAndKeys) {
    const auto corvane = make_register_store("Corvane", nullptr);
    const auto dellmar = make_register_store("Dellmar", nullptr);
    struct Case {
        std::function<void()> lookup;
        std::string text;
    };
    const Case cases[] = {
        {[&] { corvane->get_pcie_core_func_register("PCIE_LC_STATE0", "PCIE4_nbio0", 9); },
         "Register not in the Corvane pcie core function list - PCIE_LC_STATE0-PCIE4_nbio0-9"},
        {[&] { corvane->get_pcie_core_func_register("PCIE_LC_STATE0", "PCIE4_nbio0", 4); },
         "Register not in the Corvane pcie core function list - PCIE_LC_STATE0-PCIE4_nbio0-4"},
        {[&] { corvane->get_lane_register("TX_FFE_COEF0", "P9", 0); },
         "Register not in the Corvane lane list - TX_FFE_COEF0-P9-0"},
        {[&] { corvane->get_cxl_register("CXL_RCRB_BASE_ADDR_LO", "PCIE0_nbio0", 12); },
         "Register not in the Corvane cxl list - CXL_RCRB_BASE_ADDR_LO-PCIE0_nbio0-12"},
        {[&] { corvane->get_pcie_core_func_lane_register("LINK_CAP", "PCIE0_nbio0", 0, 1); },
         "Register not in the Corvane get_pcie_core_func_lane_register list - LINK_CAP-PCIE0_nbio0-0-1"},
        {[&] { corvane->get_link_pcs_register("PCS_GOPX1_PCS_ERROR_MASK", "G0", 0); },
         "Register not in the Dellmar get_link_pcs_register list - PCS_GOPX1_PCS_ERROR_MASK-G0-0"},
        {[&] { dellmar->get_pcie_core_func_register("LINK_CAP", "PCIE4_nbio0", 0); },
         "Register not in the Dellmar pcie core function list - LINK_CAP-PCIE4_nbio0-0"},
        {[&] { corvane->get_usr_register("X", "G0", 0); }, "USR registers not there for Corvane"},
        {[&] { corvane->get_iohc_register("NB_BUS_NUM_CNTL", "PCIE0_nbio0"); },
         "IOHC registers not there for Corvane"},
        {[&] { corvane->get_register_list_with_address("NOPE"); }, "Not found register NOPE in size map"},
    };
    for (const Case& c : cases) EXPECT_EQ(thrown_text(c.lookup), c.text);
    EXPECT_NO_THROW(dellmar->get_iohc_register("NB_BUS_NUM_CNTL", "PCIE5_nbio0"));
}

// A store over hand-made tables, so a name can be missing from the size map.
class HandMadeStorage : public TableRegisterStorage {
public:
    explicit HandMadeStorage(std::shared_ptr<const RegisterTables> tables)
        : TableRegisterStorage(nullptr, std::move(tables), "Corvane") {}
};

TEST(RegisterStorage, NameWithoutSizeIsNotFound) {
    auto tables = std::make_shared<RegisterTables>();
    tables->add(RegisterRow{RegisterTable::pcie_core_func, "LINK_CAP", "PCIE0_nbio0", 1, 0, 0x1000, 4});
    tables->sizes.clear();
    const HandMadeStorage store(tables);
    EXPECT_EQ(thrown_text([&] { store.get_pcie_core_func_register("LINK_CAP", "PCIE0_nbio0", 1); }),
              "Register not in the Corvane pcie core function list - LINK_CAP-PCIE0_nbio0-1");
}

TEST(RegisterStorage, ContradictoryRowsAreRefused) {
    RegisterTables tables;
    tables.add(RegisterRow{RegisterTable::link, "A", "G0", 0, 0, 0x10, 4});
    EXPECT_THROW(tables.add(RegisterRow{RegisterTable::link, "A", "G0", 0, 0, 0x14, 4}), std::runtime_error);
    EXPECT_THROW(tables.add(RegisterRow{RegisterTable::link, "A", "G1", 0, 0, 0x20, 2}), std::runtime_error);
}

TEST(RegisterStorage, RegistersReadAndWriteTheirBytesOfTheDword) {
    auto network = std::make_shared<DwordNetwork>();
    const auto store = make_register_store("Corvane", std::make_shared<PhyAccessor>(network));
    const auto lane2 = store->get_pcie_core_func_lane_register("LANE_EQUALIZATION_CNTL_16GT", "PCIE0_nbio0", 1, 2);
    const auto lane3 = store->get_pcie_core_func_lane_register("LANE_EQUALIZATION_CNTL_16GT", "PCIE0_nbio0", 1, 3);
    EXPECT_EQ(lane2->get_size(), 1u);
    EXPECT_EQ(lane2->get_offset() & 3, 2u);
    network->words[lane2->get_offset() & ~3u] = 0x11AB2233;
    EXPECT_EQ(lane2->read(), 0xABu);
    lane3->write(0x5C);
    EXPECT_EQ(network->words[lane2->get_offset() & ~3u], 0x5CAB2233u);

    const auto halves = store->get_pcie_core_func_lane_register("PCIE_LANE_EQUALIZATION_CNTL", "PCIE0_nbio0", 0, 1);
    EXPECT_EQ(halves->get_size(), 2u);
    network->words[halves->get_offset() & ~3u] = 0xBEEF0000;
    EXPECT_EQ(halves->read(), 0xBEEFu);
    EXPECT_EQ(halves->get_name(), "PCIE_LANE_EQUALIZATION_CNTL");
}

TEST(RegisterStorage, WithoutAnAccessorAddressesAnswerAndAccessThrows) {
    const auto store = make_register_store("Corvane", nullptr);
    const auto reg = store->get_pcie_core_func_register("PCIE_LC_STATE0", "PCIE0_nbio0", 2);
    EXPECT_EQ(reg->get_offset(), 0x1A340000u + 2 * 0x1000 + 0xC40);
    EXPECT_THROW(reg->read(), std::runtime_error);
}

TEST(RegisterStorage, ListWithAddressesNamesEveryPlace) {
    const auto store = make_register_store("Corvane", nullptr);
    const auto lines = store->get_register_list_with_address("NB_BUS_NUM_CNTL");
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_EQ(lines[0], "Size of register is: 4");
    EXPECT_NE(std::find(lines.begin(), lines.end(), "PCIE0_nbio0 0 0x1a381c04"), lines.end());
}

}  // namespace
