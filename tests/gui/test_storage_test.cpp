#include <filesystem>

#include <gtest/gtest.h>

#include "gui/gui_resource_store.h"
#include "gui/test_storage.h"

namespace fs = std::filesystem;
using nlohmann::json;

TEST(TestStorageTest, IdsStartAtZeroAndOverwriteSentOnes) {
    TestStorage storage;
    json first = {{"Operation", "PCIe Margin"}, {"TestID", 41}};
    json second = {{"Operation", "EyeScan"}};
    UpdateTestStorage::add_test_to_queue_list(storage, first);
    UpdateTestStorage::add_test_to_queue_list(storage, second);
    ASSERT_EQ(storage.queued_list.size(), 2u);
    EXPECT_EQ(storage.queued_list[0]["TestID"], 0);
    EXPECT_EQ(storage.queued_list[1]["TestID"], 1);
    EXPECT_EQ(first["TestID"], 0) << "the caller's record carries its id too";
}

TEST(TestStorageTest, RemoveTakesTheRecordWithThatIdAndRefusesUnknownOnes) {
    TestStorage storage;
    json a = json::object(), b = json::object();
    UpdateTestStorage::add_test_to_queue_list(storage, a);
    UpdateTestStorage::add_test_to_queue_list(storage, b);
    UpdateTestStorage::remove_test_from_queue_list(storage, a);
    ASSERT_EQ(storage.queued_list.size(), 1u);
    EXPECT_EQ(storage.queued_list[0]["TestID"], 1);

    UpdateTestStorage::add_test_to_running_list(storage, b);
    EXPECT_THROW(UpdateTestStorage::remove_test_from_running_list(storage, a), std::runtime_error);
    UpdateTestStorage::remove_test_from_running_list(storage, b);
    EXPECT_TRUE(storage.running_list.empty());
    // The lock must have been released on the failing path as well.
    EXPECT_EQ(snapshot_test_lists(storage).queued.size(), 1u);
}

TEST(GUIResourceStoreTest, ListsAreRefusedUntilStored) {
    GUIResourceStore store("/nonexistent");
    EXPECT_THROW(store.get_pcie_device_list(), std::runtime_error);
    EXPECT_THROW(store.get_die_list(), std::runtime_error);
    std::vector<PCIDeviceDetails> devices(2);
    devices[1].bus = 3;
    store.store_pcie_device_list(devices);
    EXPECT_EQ(store.get_pcie_device_list().size(), 2u);
    EXPECT_TRUE(store.get_die_list().empty());
}

TEST(GUIResourceStoreTest, InstanceFolderIsMadeOnFirstAskOnlyAndKept) {
    const fs::path root = fs::temp_directory_path() / ("lanewright_store_" + std::to_string(::getpid()));
    fs::remove_all(root);
    GUIResourceStore store(root.string());
    EXPECT_EQ(store.get_directory_for_lanewright(), root.string());
    EXPECT_FALSE(fs::exists(root)) << "nothing is created before a test asks";
    const std::string folder = store.get_directory_for_this_instance();
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(fs::path(folder).parent_path(), root);
    EXPECT_EQ(store.get_directory_for_this_instance(), folder);
    fs::remove_all(root);
}
