#include "gui/test_lifecycle.h"

#include "gui/scheduler.h"
#include "gui/test_archive.h"
#include "gui/test_storage.h"
#include "hardware/atomic_file.h"
#include "hardware/file_logger.h"
#include "hardware/time_format.h"

#include <algorithm>
#include <stdexcept>

PCIE::MarginStopFlag own_stop_flag(TestStorage& storage, unsigned long test_id, const PCIE::MarginStopFlag& service) {
    PCIE::MarginStopFlag own = service.linked();
    UpdateTestStorage::set_cancel_hook(storage, test_id,
                                       [own] { own.request_stop("Margin stopped: cancelled by the user"); });
    return own;
}

void write_result_file(const std::string& folder, const std::string& name, const std::string& content) {
    std::string error;
    if (!write_file_atomically(folder + "/" + name, content, error))
        throw std::runtime_error("Unable to write " + name + ": " + error);
}

nlohmann::json complete_margin_output(const nlohmann::json& report, const std::string& folder) {
    // The four figures of "TestOutput" and the report keys they come from.
    static constexpr std::pair<const char*, const char*> kFigures[] = {{"PhaseRight (UI)", "PhaseRightMargin"},
                                                                       {"PhaseLeft (UI)", "PhaseLeftMargin"},
                                                                       {"VrefTop (mv)", "VoltTopMargin"},
                                                                       {"VrefBot (mv)", "VoltBotomMargin"}};
    nlohmann::json output = {{"Status", "complete"}};
    for (const auto& [output_key, report_key] : kFigures) {
        double worst = report.at(0).value(report_key, 0.0);
        for (const nlohmann::json& lane : report) worst = std::min(worst, lane.value(report_key, 0.0));
        output[output_key] = worst;
    }
    const std::string stamp = time_stamp();
    output["Time"] = make_date_time_user_readable(stamp);
    output["TimeStamp"] = stamp;
    output["ResultsFolder"] = folder;
    output["FullMarginData"] = report;
    return output;
}

void finish_test(TestStorage& storage, Scheduler& scheduler, nlohmann::json& test, std::string folder,
                 const std::string& kind) {
    const unsigned long id = test.at("TestID").get<unsigned long>();
    const std::string name = kind + " test " + std::to_string(id) + ": ";
    if (folder.empty()) {
        // The failure came before the folder was made; the record still
        // belongs in the archive.
        try {
            folder = scheduler.create_dir_and_give_path(id);
            test["TestOutput"]["ResultsFolder"] = folder;
        } catch (const std::exception& error) {
            Logger::get().log(name + "no folder: " + error.what());
        }
    }
    // A test that ran to its end before the cancel reached it keeps its
    // result; one the cancel cut short says so (raw_data.json holds the part done).
    if (test["TestOutput"].value("Status", std::string()) != "complete" &&
        UpdateTestStorage::cancel_requested(storage, id))
        test["TestOutput"] = unmeasured_test_output("Cancelled", kCancelledRunning, folder);
    if (!folder.empty()) {
        std::string error;
        if (!write_file_atomically(folder + "/output.json", test.dump(4) + "\n", error))
            Logger::get().log(name + error);
    }
    scheduler.remove_test(id);
    try {
        UpdateTestStorage::remove_test_from_running_list(storage, test);
    } catch (const std::exception& error) {
        Logger::get().log(name + error.what());
    }
}
