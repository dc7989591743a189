#include "hardware/os_specific.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "hardware/cpu_mask.h"
#include "hardware/fake_system_facts.h"
#include "hardware/resource_lock.h"
#include "hardware/test_temp_folder.h"

namespace fs = std::filesystem;

TEST(OSSpecific, ListsFolderContentsAsSortedFullPaths) {
    TestTempFolder temp;
    const std::string root = temp.path().string();
    for (const char* folder : {"2024_05_02-09_06_30", "2023_01_01-00_00_00", "b"})
        fs::create_directories(temp.path() / folder);
    for (const char* file : {"z.json", "a.csv"}) std::ofstream(temp.path() / file) << "x";

    EXPECT_EQ(OSSpecific().get_all_subfolders(root),
              (std::vector<std::string>{root + "/2023_01_01-00_00_00", root + "/2024_05_02-09_06_30",
                                        root + "/b"}));
    EXPECT_EQ(OSSpecific().get_all_files(root),
              (std::vector<std::string>{root + "/a.csv", root + "/z.json"}));
    EXPECT_TRUE(OSSpecific().get_all_subfolders(root + "/missing").empty());
    EXPECT_TRUE(OSSpecific().get_all_files(root + "/missing").empty());
}

TEST(OSSpecific, PathTextWork) {
    OSSpecific os;
    EXPECT_EQ(os.append_to_path("/lanewright_gui", "test_3"), "/lanewright_gui/test_3");
    EXPECT_EQ(os.append_to_path("/lanewright_gui/", "test_3"), "/lanewright_gui/test_3");
    EXPECT_EQ(os.append_to_path("", "UI"), "UI");
    EXPECT_EQ(os.get_file_name_from_path("/a/b/raw_data.json"), "raw_data.json");
    EXPECT_EQ(os.get_file_name_from_path("raw_data.json"), "raw_data.json");
    EXPECT_EQ(os.remove_file_name_from_path("/a/b/raw_data.json"), "/a/b");
    EXPECT_EQ(os.remove_file_name_from_path("/raw_data.json"), "/");
    EXPECT_EQ(os.remove_file_name_from_path("raw_data.json"), "");
}

TEST(OSSpecific, MovesAndDeletesFolders) {
    TestTempFolder temp;
    fs::create_directories(temp.path() / "from" / "inner");
    std::ofstream(temp.path() / "from" / "inner" / "f.txt") << "x";

    OSSpecific os;
    EXPECT_TRUE(os.move_file((temp.path() / "from").string(), (temp.path() / "to").string()));
    EXPECT_FALSE(fs::exists(temp.path() / "from"));
    EXPECT_TRUE(fs::exists(temp.path() / "to" / "inner" / "f.txt"));
    EXPECT_FALSE(os.move_file((temp.path() / "from").string(), (temp.path() / "again").string()));

    EXPECT_TRUE(os.delete_dir((temp.path() / "to").string()));
    EXPECT_FALSE(fs::exists(temp.path() / "to"));
}

TEST(OSSpecific, TimeAndMachineFactsComeFromProvider) {
    ScopedFakeSystemFacts fake;
    fake.facts->identity = {25, 0x21, 1};
    OSSpecific os;

    os.sleep(2);
    os.milli_secs_sleep(30);
    EXPECT_EQ(fake.facts->sleeps(),
              (std::vector<std::chrono::microseconds>{std::chrono::seconds(2),
                                                      std::chrono::milliseconds(30)}));
    EXPECT_EQ(os.get_family_model_stepping(), std::make_tuple(25u, 0x21u, 1u));
    EXPECT_EQ(os.get_bios_version(), "fake-bios");
    EXPECT_EQ(os.get_product_name(), "fake-product");
    EXPECT_EQ(os.get_system_name(), "fake-host");
    EXPECT_EQ(os.get_numa_mode(), "4");

    // The queries must leave their locks free.
    ResourceLock& locks = *ResourceLock::get_instance();
    for (const char* name : {"DMIDECODEBIOSVERSION", "GetSystemName"}) {
        EXPECT_EQ(locks.lock(name), 0) << name;
        locks.unlock(name);
    }
}

TEST(CPUMask, BindsCallingThreadOnly) {
    const CPUMask before = getAffinity();
    std::thread([] {
        const CPUMask original = getAffinity();
        unsigned first = 0;
        while (first < CPUMask::max_cpus && !original.isCPUSet(first)) ++first;
        ASSERT_LT(first, CPUMask::max_cpus) << "thread may run nowhere";

        ASSERT_TRUE(setAffinity(CPUMask(first)));
        EXPECT_EQ(getAffinity(), CPUMask(CPU(first)));
        EXPECT_TRUE(setAffinity(original));
    }).join();
    EXPECT_EQ(getAffinity(), before);

    CPUMask mask;
    EXPECT_FALSE(mask.isCPUSet(CPUMask::max_cpus));
    EXPECT_THROW(mask.setCPU(CPUMask::max_cpus), std::out_of_range);
}
