#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <tuple>

#include "discovery/esm_handler.h"
#include "discovery/ltssm_state.h"

namespace {

class ValueRegister : public Register {
public:
    explicit ValueRegister(unsigned int value) : _value(value) {}
    unsigned int read() const override { return _value; }
    void write(unsigned int) const override {}
    unsigned int get_offset() const override { return 0; }
    unsigned int get_size() const override { return 4; }
    std::string get_name() const override { return ""; }

private:
    unsigned int _value;
};

// Core function registers by (name, core, port); every other lookup throws, as a store does.
class FakeStore : public RegisterStorage {
public:
    std::map<std::tuple<std::string, std::string, unsigned>, unsigned> values;

    std::shared_ptr<Register> get_pcie_core_func_register(const std::string& name, const std::string& core,
                                                          unsigned int port) const override {
        const auto found = values.find({name, core, port});
        if (found == values.end()) throw std::runtime_error("Register not in the list - " + name);
        return std::make_shared<ValueRegister>(found->second);
    }
    std::shared_ptr<Register> get_lane_register(const std::string&, const std::string&, int) const override { none(); }
    std::shared_ptr<Register> get_chiplet_register(const std::string&, const std::string&, int) const override { none(); }
    std::shared_ptr<Register> get_link_register(const std::string&, const std::string&) const override { none(); }
    std::shared_ptr<Register> get_link_pcs_register(const std::string&, const std::string&, unsigned) const override { none(); }
    std::shared_ptr<Register> get_pcie_core_register(const std::string&, const std::string&) const override { none(); }
    std::shared_ptr<Register> get_pcie_core_func_lane_register(const std::string&, const std::string&, unsigned,
                                                               unsigned) const override { none(); }
    std::shared_ptr<Register> get_cxl_register(const std::string&, const std::string&, unsigned) const override { none(); }
    std::shared_ptr<Register> get_iohc_register(const std::string&, const std::string&) const override { none(); }
    std::shared_ptr<Register> get_sata_register(const std::string&, unsigned) const override { none(); }
    std::shared_ptr<Register> get_mpio_register(const std::string&) const override { none(); }
    std::shared_ptr<Register> get_usr_register(const std::string&, const std::string&, int) const override { none(); }
    std::vector<std::string> get_register_list_with_address(const std::string&) const override { none(); }
    std::shared_ptr<Register> get_usb4_port_register(const std::string&, USB::USB4Port) const override { none(); }

private:
    [[noreturn]] static void none() { throw std::runtime_error("not in this store"); }
};

TEST(GetCurrentLTSSMState, CurrentStateAndHistory) {
    FakeStore store;
    store.values[{"PCIE_LC_STATE0", "PCIE1_nbio0", 2}] = 0x2A3D'C010;  // low 6 bits of 0x10: L0
    for (unsigned i = 1; i < 12; ++i) store.values[{"PCIE_LC_STATE" + std::to_string(i), "PCIE1_nbio0", 2}] = 0x3F3E'0102 + i;
    const GetCurrentLTSSMState ltssm;
    EXPECT_EQ(ltssm.get_current_lc_state_val(store, "PCIE1_nbio0", 2), "L0(0x10)");
    EXPECT_EQ(ltssm.get_current_lc_state_val(store, "PCIE1_nbio0", 9), "");  // no such register: no exception

    store.values[{"PCIE_LC_STATE0", "PCIE1_nbio0", 3}] = 0xFD;  // 61: no name
    EXPECT_EQ(ltssm.get_current_lc_state_val(store, "PCIE1_nbio0", 3), "(0x3d)");

    const auto history = ltssm.get_full_lc_state_list(store, "PCIE1_nbio0", 2);
    ASSERT_EQ(history.size(), 48u);
    EXPECT_EQ(history[0], "State 0: L0 (0x10)");
    EXPECT_EQ(history[1], "State 1: Detect (0x0)");  // only six bits of 0xC0
    EXPECT_EQ(history[2], "State 2:  (0x3d)");
    EXPECT_EQ(history[3], "State 3: Detect (0x2a)");
    EXPECT_EQ(history[4], "State 4: Detect (0x3)");
    EXPECT_EQ(history[5], "State 5: Detect (0x1)");
    EXPECT_EQ(history[47], "State 47: N/A (0x3f)");
    EXPECT_THROW(ltssm.get_full_lc_state_list(store, "PCIE1_nbio0", 3), std::runtime_error);
}

TEST(ESMHandler, ActiveNeedsTheDieTheEnableAndTheStatus) {
    FakeStore store;
    const auto set = [&store](unsigned port, unsigned control, unsigned status) {
        store.values[{"PCIE_CCIX_ESM_CNTL", "PCIE0_nbio0", port}] = control;
        store.values[{"PCIE_CCIX_ESM_STATUS", "PCIE0_nbio0", port}] = status;
    };
    set(0, 0x8000, 0x80);
    set(1, 0x8000, 0x7F);
    set(2, 0x7FFF, 0x80);
    const ESMHandler esm;
    EXPECT_TRUE(esm.is_esm_active("Corvane", store, "PCIE0_nbio0", 0));
    EXPECT_TRUE(esm.is_esm_active("KX900C", store, "PCIE0_nbio0", 0));
    EXPECT_FALSE(esm.is_esm_active("KX800", store, "PCIE0_nbio0", 0));
    EXPECT_FALSE(esm.is_esm_active("Corvane", store, "PCIE0_nbio0", 1));
    EXPECT_FALSE(esm.is_esm_active("Corvane", store, "PCIE0_nbio0", 2));
}

TEST(ESMHandler, DataRatesFromTheControlFields) {
    struct Case {
        unsigned control;
        unsigned rate0, rate1;
    };
    FakeStore store;
    const ESMHandler esm;
    for (const Case& c : {Case{0x0F06, 16, 25}, Case{0x8A03, 8, 20}, Case{0x0686, 16, 16}, Case{0x8F86, 16, 25}, Case{0x0046, 0, 0},
                          Case{0x0B07, 0, 0}}) {
        store.values[{"PCIE_CCIX_ESM_CNTL", "PCIE2_nbio1", 4}] = c.control;
        EXPECT_EQ(esm.get_esm_data_rate0(store, "PCIE2_nbio1", 4), c.rate0) << std::hex << c.control;
        EXPECT_EQ(esm.get_esm_data_rate1(store, "PCIE2_nbio1", 4), c.rate1) << std::hex << c.control;
    }
}

}  // namespace
