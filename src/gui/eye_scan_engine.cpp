// The runner's two uses of the eye scan library: one E32 lane's scan and the
// merge of the plots' summaries.
#include "gui/gui_eye_scan_handle_test.h"

#include "discovery/e32_phy.h"
#include "eye_scan/do_eye_scan.h"
#include "eye_scan/merge_eye_scan_csv_files.h"
#include "hardware/file_logger.h"
#include "hardware/register_storage.h"

EyeLaneScanner e32_lane_scanner() {
    return [](const EyeLaneScan& job) -> std::optional<std::string> {
        // A lane whose override is never granted says so before any command.
        CorvaneE32PCSCommands commands(job.link, job.lane, get_register_store(job.die));
        commands.set_abandon_check(job.abandoned);
        if (!commands.check_if_override_is_working()) return std::string("PCS override not working.");

        ScanParams params = scan_params_of(job.window, job.nbits);
        params.folder = job.folder;
        params.id = job.id;
        params.rate_gbps = job.rate_gbps;
        std::string error;
        if (!scan_e32_lane(job.die, job.link, job.lane, params, job.abandoned, error))
            return error.empty() ? std::string("the eye scan collected no data") : error;
        return std::nullopt;
    };
}

EyeSummaryMerger eye_summary_merger() {
    return [](const std::string& folder, const std::string& path) {
        std::string error;
        // A merge that fails leaves no analysis: the test then fails on it.
        if (!MergeEyeScanCSVFiles(folder).merge(path, error)) Logger::get().log("Eye scan: " + error);
    };
}
