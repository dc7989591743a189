#include "gui/test_archive.h"

#include <filesystem>
#include <system_error>

#include "gui/gui_resource_store.h"
#include "gui/test_storage.h"
#include "hardware/atomic_file.h"
#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/time_format.h"

using nlohmann::json;

json unmeasured_test_output(const std::string& status, const std::string& reason, const std::string& folder) {
    json output = {{"Status", status}, {"FailureReason", reason}};
    for (const char* figure : {"PhaseRight (UI)", "PhaseLeft (UI)", "VrefTop (mv)", "VrefBot (mv)"}) output[figure] = 0;
    const std::string stamp = time_stamp();
    output["Time"] = make_date_time_user_readable(stamp);
    output["TimeStamp"] = stamp;
    output["ResultsFolder"] = folder;
    return output;
}

json archivable_record(json record) {
    for (const char* key : {"Status", "Progress", "WaitingFor", "Cancelling", "ResultId"}) record.erase(key);
    return record;
}

std::string result_id_of_folder(const std::string& folder) {
    const std::filesystem::path path(folder);
    return path.parent_path().filename().string() + "/" + path.filename().string();
}

json finished_summary(const json& record) {
    json summary = {{"TestID", record.value("TestID", json())}, {"Operation", record.value("Operation", json())}};
    const auto info = record.find("PCIeInfo");
    if (info != record.end() && info->is_object() && info->contains("SBDF")) summary["SBDF"] = (*info)["SBDF"];
    const auto found = record.find("TestOutput");
    const json output = found != record.end() && found->is_object() ? *found : json::object();
    summary["Status"] = output.value("Status", json());
    if (output.contains("FailureReason")) summary["FailureReason"] = output["FailureReason"];
    const auto folder = output.find("ResultsFolder");
    summary["ResultId"] = folder != output.end() && folder->is_string() && !folder->get<std::string>().empty()
                              ? json(result_id_of_folder(folder->get<std::string>()))
                              : json();
    return summary;
}

bool archive_in_folder(const json& record, const json& output, const std::string& folder, std::string& err) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        err = "cannot create " + folder + ": " + error.message();
        return false;
    }
    const std::string path = folder + "/output.json";
    if (std::filesystem::exists(path, error)) return true;
    json archived = archivable_record(record);
    archived["TestOutput"] = output;
    return write_file_atomically(path, archived.dump(4) + "\n", err);
}

namespace {

// Archives a record from the storage's archiving list in this run's folder.
void archive_unstarted(TestStorage& storage, GUIResourceStore& store, json record, const std::string& status,
                       const std::string& reason) {
    const std::string id = record.contains("TestID") ? record["TestID"].dump() : std::string("?");
    const std::string folder = OSSpecific().append_to_path(store.get_directory_for_this_instance(), "test_" + id);
    record["TestOutput"] = unmeasured_test_output(status, reason, folder);
    std::string err;
    if (!archive_in_folder(record, record["TestOutput"], folder, err))
        Logger::get().log("Test " + id + " (" + reason + ") not archived: " + err);
    UpdateTestStorage::archived_without_running(storage, record);
}

}  // namespace

std::optional<std::string> cancel_test(TestStorage& storage, GUIResourceStore& store, uint64_t id) {
    json taken;
    switch (UpdateTestStorage::request_cancel(storage, id, taken)) {
        case UpdateTestStorage::CancelOutcome::Queued:
            archive_unstarted(storage, store, std::move(taken), "Cancelled", kCancelledQueued);
            return std::nullopt;
        case UpdateTestStorage::CancelOutcome::Running:
        case UpdateTestStorage::CancelOutcome::RunningNoHook:
            // Without a hook yet, the runner is between its start and its
            // registration; it stops as soon as it registers.
            return std::nullopt;
        case UpdateTestStorage::CancelOutcome::NotFound:
            break;
    }
    return "No queued or running test has TestID " + std::to_string(id) + ".";
}

std::size_t archive_queue_at_stop(TestStorage& storage, GUIResourceStore& store) {
    const std::vector<json> taken = UpdateTestStorage::take_all_queued(storage);
    for (const json& record : taken) archive_unstarted(storage, store, record, "Failed", kNotStartedAtStop);
    return taken.size();
}
