#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "hardware/crn_accessor_corvane.h"
#include "hardware/crn_accessor_dummy.h"
#include "hardware/crn_factory.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/fake_pci.h"
#include "support/thrown.h"

namespace {

VEX_DIE_INFO cpu_die(unsigned int socket, std::vector<PCIDeviceDetails> roots) {
    VEX_DIE_INFO die;
    die.is_cpu = true;
    die.cpu.name = "Corvane";
    die.cpu.socket = socket;
    die.cpu.iohc_devices = std::move(roots);
    return die;
}

VEX_DIE_INFO gpu_die(unsigned int die_number, bool kx900_style) {
    VEX_DIE_INFO die;
    die.is_gpu = true;
    die.gpu.name = kx900_style ? "KX900X" : "KX800";
    die.gpu.die = die_number;
    die.gpu.kx900_style = kx900_style;
    die.gpu.device = PCIDeviceDetails(0, 0xC3, 0, 0);
    return die;
}

VEX_DIE_INFO apu_die(unsigned int die_number, bool cpu_access) {
    VEX_DIE_INFO die;
    die.is_apu = true;
    die.apu.name = "KX900A";
    die.apu.die = die_number;
    die.apu.cpu_access = cpu_access;
    for (unsigned int bus : {0x00u, 0x40u, 0x80u, 0xC0u}) die.apu.iohc_devices.emplace_back(0, bus, 0, 0);
    die.apu.gfx_device = PCIDeviceDetails(0, 0x05, 0, 0);
    return die;
}

using lw_test::thrown_text;

struct MakerCall {
    PCIDeviceDetails function;
    bool kx900_style;
    unsigned int selector;
};

struct FactoryFixture : ::testing::Test {
    std::shared_ptr<FakePCI> pci = std::make_shared<FakePCI>();
    CRNFactory factory{pci, pci};
    std::vector<MakerCall> maker_calls;

    void SetUp() override {
        set_gfx_accessor_maker([this](const PCIDeviceDetails& f, bool kx900_style, unsigned int selector) {
            maker_calls.push_back({f, kx900_style, selector});
            return std::make_shared<CRNAccessorDummy>();
        });
    }
    void TearDown() override { set_gfx_accessor_maker({}); }
};

TEST_F(FactoryFixture, SameDieAndInstanceGiveTheSameAccessor) {
    const VEX_DIE_INFO die = cpu_die(1, {PCIDeviceDetails(0, 0x80, 0, 0), PCIDeviceDetails(0, 0xA0, 0, 0)});
    const auto first = factory.get_crn_accessor(die);
    EXPECT_EQ(factory.get_crn_accessor(die), first);
    EXPECT_EQ(factory.get_crn_accessor(die, CRNFactory::CPU_BASED, 0u), first);
    const auto second_root = factory.get_crn_accessor(die, 1u);
    EXPECT_NE(second_root, first);
    EXPECT_EQ(std::dynamic_pointer_cast<CRNAccessorCorvane>(second_root)->get_lock_name(), "S0B160D0F0I224");
    // Another die with the same roots is another cache entry.
    EXPECT_NE(factory.get_crn_accessor(cpu_die(0, die.cpu.iohc_devices)), first);
}

TEST_F(FactoryFixture, RootFunctionIndexOutsideTheListThrows) {
    const VEX_DIE_INFO die = cpu_die(0, {PCIDeviceDetails(0, 0, 0, 0)});
    EXPECT_THROW(factory.get_crn_accessor(die, 1u), std::runtime_error);
}

TEST_F(FactoryFixture, ApuTakesTheRootOfItsDieNumberOrItsGraphicsFunction) {
    const auto cpu_way = factory.get_crn_accessor(apu_die(2, true));
    EXPECT_EQ(std::dynamic_pointer_cast<CRNAccessorCorvane>(cpu_way)->get_lock_name(), "S0B128D0F0I224");
    EXPECT_TRUE(maker_calls.empty());

    factory.get_crn_accessor(apu_die(3, false));
    ASSERT_EQ(maker_calls.size(), 1u);
    EXPECT_EQ(maker_calls[0].function, PCIDeviceDetails(0, 0x05, 0, 0));
    EXPECT_TRUE(maker_calls[0].kx900_style);
    EXPECT_EQ(maker_calls[0].selector, 3u);
}

TEST_F(FactoryFixture, GpuDiesGoThroughTheMakerOncePerDie) {
    const auto kx800 = factory.get_gfx_based_crn_acessor(gpu_die(0, false));
    EXPECT_EQ(factory.get_crn_accessor(gpu_die(0, false)), kx800);
    factory.get_crn_accessor(gpu_die(2, true));
    ASSERT_EQ(maker_calls.size(), 2u);
    EXPECT_FALSE(maker_calls[0].kx900_style);
    EXPECT_TRUE(maker_calls[1].kx900_style);
    EXPECT_EQ(maker_calls[1].selector, 2u);
}

TEST_F(FactoryFixture, WrongDieTypesThrow) {
    VEX_DIE_INFO none;
    struct Case {
        std::function<void()> call;
        std::string text;
    };
    const Case cases[] = {
        {[&] { factory.get_crn_accessor(cpu_die(0, {{}}), CRNFactory::GFX_BASED); },
         "GFX based SMM accessor requested for a die which is neither apu or dgpu"},
        {[&] { factory.get_crn_accessor(gpu_die(0, true), CRNFactory::CPU_BASED); },
         "CPU based SMM accessor requested for a die which is neither apu or cpu"},
        {[&] { factory.get_crn_accessor(none); }, "Unknown die tyoe in CRNFactory::get_crn_accessor"},
        {[&] { factory.get_gfx_based_crn_acessor(cpu_die(0, {{}})); }, "Error: GFX Acccessor call on CPU die."},
    };
    for (const Case& c : cases) EXPECT_EQ(thrown_text(c.call), c.text);
}

TEST(CRNFactoryInstance, NotInitializedThenFirstInitializeWins) {
    CRNFactory::reset();
    EXPECT_EQ(thrown_text([] { CRNFactory::instance(); }), "CRN Factory not initzlied");
    auto first = std::make_shared<FakePCI>();
    auto second = std::make_shared<FakePCI>();
    CRNFactory::initalize(first, first);
    const auto instance = CRNFactory::instance();
    CRNFactory::initalize(second, second);
    EXPECT_EQ(CRNFactory::instance(), instance);

    first->set(0, 0, 0, 0, 228, 0x77);
    EXPECT_EQ(instance->get_crn_accessor(cpu_die(0, {{}}))->read32(0x10), 0x77u);
    CRNFactory::reset();
}

}  // namespace
