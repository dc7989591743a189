#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "gui/gui_resource_store.h"
#include "gui/test_journal.h"
#include "gui/test_storage.h"

namespace fs = std::filesystem;
using nlohmann::json;

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
    // Ids restart in every run, so a second run never shares the folder.
    GUIResourceStore next_run(root.string());
    EXPECT_NE(next_run.get_directory_for_this_instance(), folder);
    fs::remove_all(root);
}

// The journal as a killed service leaves it, read back at the next start.
TEST(TestJournalTest, RecoveryArchivesEveryJournalledTestOnceInItsOwnRun) {
    const fs::path root = fs::temp_directory_path() / ("lanewright_journal_" + std::to_string(::getpid()));
    fs::remove_all(root);
    const fs::path journal = root / TestJournal::kFileName;
    GUIResourceStore store(root.string());
    {
        TestStorage storage;
        storage.journal = std::make_shared<TestJournal>(journal.string(),
                                                        [&store] { return store.get_directory_for_this_instance(); });
        std::vector<json> tests(4, json{{"Operation", "PCIe Margin"}, {"TestParams", {{"BER", "12"}}}});
        for (json& test : tests) UpdateTestStorage::add_test_to_queue_list(storage, test);
        ASSERT_TRUE(UpdateTestStorage::move_to_running(storage, tests[0]));  // ran, left raw data
        ASSERT_TRUE(UpdateTestStorage::move_to_running(storage, tests[1]));  // ended, archive not yet journalled
        UpdateTestStorage::set_test_progress(storage, 0, {{"Percent", 50}});
        const fs::path run = store.get_directory_for_this_instance();
        fs::create_directories(run / "test_0");
        std::ofstream(run / "test_0" / "raw_data.json") << "[]";
        fs::create_directories(run / "test_1");
        std::ofstream(run / "test_1" / "output.json") << R"({"TestOutput":{"Status":"complete"}})";
        json gone = tests[3];
        UpdateTestStorage::remove_test_from_queue_list(storage, gone);  // left the journal
    }
    const fs::path run = store.get_directory_for_this_instance();
    const JournalRecovery recovery = recover_test_journal(root.string());
    EXPECT_TRUE(recovery.problems.empty());
    ASSERT_EQ(recovery.archived.size(), 2u);
    EXPECT_FALSE(fs::exists(journal));
    auto read = [](const fs::path& path) { std::ifstream in(path); return json::parse(in); };
    const json interrupted = read(run / "test_0" / "output.json");
    EXPECT_EQ(interrupted["TestOutput"]["FailureReason"], "Interrupted: the service ended while this test ran");
    EXPECT_FALSE(interrupted.contains("Progress"));
    EXPECT_TRUE(fs::exists(run / "test_0" / "raw_data.json")) << "partial data is kept";
    EXPECT_EQ(read(run / "test_1" / "output.json")["TestOutput"]["Status"], "complete") << "archived once only";
    const json queued = read(run / "test_2" / "output.json");
    EXPECT_EQ(queued["TestOutput"]["FailureReason"], "Not started: the service ended before this test ran");
    EXPECT_EQ(queued["TestParams"]["BER"], "12");
    EXPECT_FALSE(fs::exists(run / "test_3"));

    // A journal naming a folder outside the root writes nothing and is kept aside.
    for (const char* document : {R"({"RunFolder":"..","Queued":[{"TestID":5}]})", "{"}) {
        std::ofstream(journal) << document;
        const JournalRecovery refused = recover_test_journal(root.string());
        EXPECT_TRUE(refused.archived.empty());
        EXPECT_FALSE(refused.problems.empty());
        EXPECT_FALSE(fs::exists(journal));
        EXPECT_FALSE(fs::exists(root.parent_path() / "test_5"));
    }
    fs::remove_all(root);
}
