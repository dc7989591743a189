#include <gtest/gtest.h>

#include "model_fixture.h"
#include "result_data/static_data.h"
#include "support/case_name.h"

namespace {

using StaticData = ResultDataOnModel;

// The default machine: two Corvane sockets of revision 1, not secure, two
// NUMA nodes, no graphics dies.
TEST_F(StaticData, FieldsOfTheDefaultMachine) {
    StaticDataUtility(model->dies).update_static_data();
    const auto fields = StaticDataHandler::get().get_static_fields_map();
    const std::map<std::string, std::string> expected = {
        {"NPS", "NPS2"},
        {"SystemName", "lw-sim-2s"},
        {"CPU SiliconRev", "0x00000001_0x00000001"},
        {"GPU SiliconRev", "Not Available"},
        {"CPU SecureStatus", "Unsecure"},
        {"GPU SecureStatus", "Not Available"},
        {"CPUName", "Corvane"},
        {"CPUSocketCount", "2"},
    };
    for (const auto& [name, value] : expected) EXPECT_EQ(fields.at(name), value) << name;
    EXPECT_EQ(fields.count("GPUName"), 0u);
    EXPECT_EQ(fields.count("GPUSocketCount"), 0u);
}

struct SocketCase {
    const char* name;
    unsigned revision0, revision1;
    bool secure0, secure1;
    const char* revisions;
    const char* secure;
};
LW_PRINT_BY_NAME(SocketCase)

class StaticDataSockets : public ResultDataOnModel, public ::testing::WithParamInterface<SocketCase> {};

// Words follow (socket, die) whatever order the die list has; one unsecure
// socket makes the machine unsecure.
TEST_P(StaticDataSockets, RevisionAndSecureState) {
    const SocketCase& c = GetParam();
    boot(lw_test::Profile()
             .socket(0, {{"revision", c.revision0}, {"secure", c.secure0}})
             .socket(1, {{"revision", c.revision1}, {"secure", c.secure1}}));
    StaticDataUtility(std::vector<VEX_DIE_INFO>(model->dies.rbegin(), model->dies.rend())).update_static_data();
    const auto fields = StaticDataHandler::get().get_static_fields_map();
    EXPECT_EQ(fields.at("CPU SiliconRev"), c.revisions);
    EXPECT_EQ(fields.at("CPU SecureStatus"), c.secure);
}

INSTANTIATE_TEST_SUITE_P(Machines, StaticDataSockets,
                         ::testing::Values(SocketCase{"NeitherSecure", 1, 2, false, false, "0x00000001_0x00000002", "Unsecure"},
                                           SocketCase{"OneSecure", 0x12, 0x11, true, false, "0x00000012_0x00000011", "Unsecure"},
                                           SocketCase{"BothSecure", 1, 1, true, true, "0x00000001_0x00000001", "Secure"}),
                         lw_test::by_name);

TEST_F(StaticData, NoDiesGiveNotAvailable) {
    StaticDataUtility(std::vector<VEX_DIE_INFO>{}).update_static_data();
    const auto fields = StaticDataHandler::get().get_static_fields_map();
    EXPECT_EQ(fields.at("CPU SiliconRev"), "Not Available");
    EXPECT_EQ(fields.at("CPU SecureStatus"), "Not Available");
}

TEST_F(StaticData, SpareKeyReplacesAStaticField) {
    StaticDataUtility utility(model->dies);
    utility.update_static_data();
    utility.update_spare_data({{"SystemName", "bench-7"}, {"Board", "rev B"}});
    const auto fields = StaticDataHandler::get().get_static_fields_map();
    EXPECT_EQ(fields.at("SystemName"), "bench-7");
    EXPECT_EQ(fields.at("Board"), "rev B");
}

}  // namespace
