#include <gtest/gtest.h>

#include "discovery/die_detection.h"
#include "discovery/read_fuse.h"
#include "discovery/secure_status.h"
#include "discovery/fake_die_machine.h"
#include "discovery/die_test_helpers.h"
#include "hardware/chips/chip_identity.h"
#include "hardware/fake_system_facts.h"
#include "hardware/gfx_accessor_maker.h"

using namespace die_test;

namespace {

class DieDetection : public ::testing::Test {
protected:
    ScopedFakeSystemFacts system;
    FakeMachine machine;

    void processor(unsigned family, unsigned model) { system.facts->identity = {family, model, 0}; }
    std::vector<VEX_DIE_INFO> detect() { return DetectVEXDies(machine.pci)(machine.devices, machine.pci); }
};

// Installs a graphics accessor maker for one test and records its calls.
class ScopedGfxMaker {
public:
    explicit ScopedGfxMaker(std::shared_ptr<FakeCRN> crn) {
        set_gfx_accessor_maker([this, crn](const PCIDeviceDetails& function, bool kx900_style, unsigned selector) {
            calls.push_back({function, kx900_style, selector});
            return crn;
        });
    }
    ~ScopedGfxMaker() { set_gfx_accessor_maker(nullptr); }
    struct Call {
        PCIDeviceDetails function;
        bool kx900_style;
        unsigned selector;
    };
    std::vector<Call> calls;
};

}  // namespace

TEST(FamilyModel, BothRangeEndsMatchAndOnlyTheFamilyGiven) {
    ScopedFakeSystemFacts system;
    const FamilyModelInfo info{0x1A, {{0x10, 0x1F}, {0x40, 0x40}}};
    const struct {
        unsigned family, model;
        bool matches;
    } cases[] = {{0x1A, 0x10, true}, {0x1A, 0x1F, true}, {0x1A, 0x40, true}, {0x1A, 0x20, false},
                 {0x1A, 0x0F, false}, {0x19, 0x10, false}};
    for (const auto& c : cases) {
        system.facts->identity = {c.family, c.model, 0};
        EXPECT_EQ(check_if_family_model_matches(info), c.matches) << std::hex << c.family << " " << c.model;
    }
}

TEST_F(DieDetection, SocketsNumberByDeviceAndRootFunctionsJoinTheDieTheyName) {
    using namespace chips::corvane;
    processor(kFamily, kModelFirst);
    machine.add_socket(0, kDataFabricDeviceId);
    machine.add_socket(1, kDataFabricDeviceId);
    // Bus order opposite to socket order; the identity register decides.
    auto socket1_root = machine.add_root(0, 0x40, kRootFunctionDeviceId, kIdentity.socket.place(1));
    auto socket0_root = machine.add_root(0, 0xC0, kRootFunctionDeviceId, kIdentity.socket.place(0));
    auto second_of_0 = machine.add_root(1, 0xE0, kRootFunctionDeviceId, kIdentity.socket.place(0));
    // Names die 1 of socket 0, which this single-die part doesn't have.
    machine.add_root(0, 0x60, kRootFunctionDeviceId, kIdentity.socket.place(0) | kIdentity.die.place(1));

    const auto dies = detect();

    ASSERT_EQ(dies.size(), 2u);
    EXPECT_TRUE(dies[0].is_cpu);
    EXPECT_EQ(dies[0].socket(), 0u);
    EXPECT_EQ(dies[1].socket(), 1u);
    EXPECT_EQ(dies[0].full_name(), "Corvane SBDF:0:0:18.0 Socket:0 Die:0");
    EXPECT_EQ(dies[1].full_name(), "Corvane SBDF:0:0:19.0 Socket:1 Die:0");
    EXPECT_EQ(dies[0].cpu.iohc_devices, (std::vector<PCIDeviceDetails>{socket0_root, second_of_0}));
    EXPECT_EQ(dies[1].cpu.iohc_devices, (std::vector<PCIDeviceDetails>{socket1_root}));
    EXPECT_EQ(dies[0].cpu.iohc_revisions,
              (std::vector<unsigned>{chips::kProcessorVendorId | (kRootFunctionDeviceId << 16),
                                     chips::kProcessorVendorId | (kRootFunctionDeviceId << 16)}));
    EXPECT_EQ(dies[0].pcie_segment_count(), 2u);
}

TEST_F(DieDetection, FourDiesPerSocketTakeTheirRootsByDieField) {
    using namespace chips::kx900c;
    processor(kFamily, kModelLast);
    machine.add_socket(0, 0x2B91);
    for (unsigned die = 0; die < 4; ++die)
        machine.add_root(0, 0x20 * (4 - die), kRootFunctionDeviceId, kIdentity.die.place(die));

    const auto dies = detect();

    ASSERT_EQ(dies.size(), 4u);
    for (unsigned die = 0; die < 4; ++die) {
        EXPECT_EQ(dies[die].die(), die);
        ASSERT_EQ(dies[die].cpu.iohc_devices.size(), 1u);
        EXPECT_EQ(dies[die].cpu.iohc_devices[0].bus, 0x20 * (4 - die));
    }
}

TEST_F(DieDetection, TwoMatchingProcessorRowsThrow) {
    processor(chips::ferrow::kId.family, chips::ferrow::kId.model_first);
    machine.add_socket(0, 0x2B11);
    machine.add_root(0, 0, chips::ferrow::kId.root_function_device_id, 0);
    machine.add_root(0, 1, chips::ferrow2::kId.root_function_device_id, 0);
    EXPECT_EQ(thrown_text([&] { detect(); }), "Error: Found multiple CPU programs on same platform.");
}

TEST_F(DieDetection, NoMatchingRowGivesNoDies) {
    processor(0x10, 0x01);
    machine.add_socket(0, chips::corvane::kDataFabricDeviceId);
    machine.add_root(0, 0, chips::corvane::kRootFunctionDeviceId, 0);
    EXPECT_TRUE(detect().empty());
}

TEST_F(DieDetection, ApuRootsShareOutOverDiesAndNoProcessorDiesFollow) {
    using namespace chips::kx900a;
    processor(kFamily, kModelFirst);
    machine.add_socket(0, 0x2BA1);
    std::vector<PCIDeviceDetails> roots;
    for (unsigned i = 0; i < 4; ++i) roots.push_back(machine.add_root(0, 0x10 * i, kRootFunctionDeviceId, 0));
    auto gfx = machine.add(0, 0x90, 0, 0, chips::kGraphicsVendorId, kGraphicsDeviceIdFirst, 18);

    const auto dies = detect();

    ASSERT_EQ(dies.size(), 4u);
    for (unsigned die = 0; die < 4; ++die) {
        ASSERT_TRUE(dies[die].is_apu);
        EXPECT_EQ(dies[die].die(), die);
        EXPECT_EQ(dies[die].apu.iohc_devices, roots);
        EXPECT_EQ(dies[die].apu.gfx_device, gfx);
        EXPECT_TRUE(dies[die].apu.cpu_access);
    }
    EXPECT_EQ(dies[2].full_name(), "KX900A SBDF:0:20:0.0 Socket:0 Die:2");
}

TEST_F(DieDetection, ApuRootCountThatDoesNotFitTheDiesThrows) {
    using namespace chips::kx900a;
    processor(kFamily, kModelFirst);
    for (unsigned i = 0; i < 3; ++i) machine.add_root(0, i, kRootFunctionDeviceId, 0);
    machine.add(0, 0x90, 0, 0, chips::kGraphicsVendorId, kGraphicsDeviceIdLast, 3);
    EXPECT_EQ(thrown_text([&] { detect(); }), "IOHC list not matching die size for APU");
}

TEST_F(DieDetection, GraphicsFunctionIsADieOnlyWithDisplayOrAcceleratorClass) {
    processor(0x10, 0x01);
    for (unsigned class_code : {0u, 2u, 3u, 4u, 18u, 19u}) {
        machine = FakeMachine();
        machine.add(0, 0x10, 0, 0, chips::kGraphicsVendorId, chips::kx800::kIds.first, class_code);
        const auto dies = detect();
        EXPECT_EQ(dies.size(), (class_code == 3 || class_code == 18) ? 1u : 0u) << "class " << class_code;
    }
}

TEST_F(DieDetection, FourDieAcceleratorGivesFourDiesWithSocketFromItsRegister) {
    processor(0x10, 0x01);
    auto crn = std::make_shared<FakeCRN>();
    crn->registers[chips::kDieIdentityRegister] = chips::kx900x::kSocketField.place(1) | 0xFFFF0000;
    ScopedGfxMaker maker(crn);
    auto accelerator = machine.add(0, 0xC3, 0, 0, chips::kGraphicsVendorId, chips::kx900x::kDeviceIdFirst + 1, 18);
    machine.add(0, 0x10, 0, 0, chips::kGraphicsVendorId, chips::kx800::kIds.first, 3);

    const auto dies = detect();

    ASSERT_EQ(dies.size(), 5u);
    EXPECT_EQ(dies[0].full_name(), "KX800 SBDF:0:10:0.0 Die:0");
    EXPECT_FALSE(dies[0].gpu.has_socket_register);
    for (unsigned die = 0; die < 4; ++die) {
        const GPUDieInfo& gpu = dies[1 + die].gpu;
        EXPECT_EQ(gpu.die, die);
        EXPECT_EQ(gpu.socket, 1u);
        EXPECT_EQ(gpu.device, accelerator);
        EXPECT_EQ(gpu.primary, die == 0);
        EXPECT_TRUE(gpu.kx900_style);
    }
    EXPECT_EQ(dies[3].full_name(), "KX900X SBDF:0:c3:0.0 Socket:1 Die:2");
    ASSERT_FALSE(maker.calls.empty());
    EXPECT_EQ(maker.calls[0].function, accelerator);
    EXPECT_FALSE(maker.calls[0].kx900_style);
    EXPECT_EQ(maker.calls[0].selector, 0u);
}

TEST(SecureStatus, OnlyKX900DiesReadBit19) {
    const struct {
        const char* name;
        unsigned value;
        int status;
    } cases[] = {{"KX900X", 1u << 19, 0}, {"KX900A", 0xFFF7FFFF, 1}, {"KX900C", 1u << 19, 0},
                 {"Corvane", 1u << 19, 2}, {"KX800", 1u << 19, 2}};
    for (const auto& c : cases) {
        auto crn = std::make_shared<FakeCRN>();
        crn->registers[chips::kSecureStatusRegister] = c.value;
        EXPECT_EQ(GetSecureStatus(named_die(c.name), crn).get_status(), c.status) << c.name;
        const bool reads = c.status != 2;
        EXPECT_EQ(crn->reads, reads ? std::vector<unsigned>{chips::kSecureStatusRegister} : std::vector<unsigned>{})
            << c.name;
    }
}

TEST(ReadFuse, ChipIdJoinsTheThreeFuseWords) {
    auto crn = std::make_shared<FakeCRN>();
    crn->registers[chips::kAsicIdFuseRegisters[0]] = 0xFFC00000;  // top ten bits are the low end of the ID
    crn->registers[chips::kAsicIdFuseRegisters[1]] = 0x00000003;
    crn->registers[chips::kAsicIdFuseRegisters[2]] = 0x00000005;
    EXPECT_EQ(ReadFuse::get_asic_id(named_die("KX900X"), crn), (5ull << 42) | (3ull << 10) | 0x3FF);

    auto untouched = std::make_shared<FakeCRN>();
    EXPECT_EQ(ReadFuse::get_asic_id(named_die("Corvane"), untouched), 0u);
    EXPECT_TRUE(untouched->reads.empty());
    EXPECT_FALSE(ReadFuse::supports_asic_id_extraction(named_die("Corvane")));
}
