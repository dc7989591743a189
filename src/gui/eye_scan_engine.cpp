// The runner's two uses of the eye scan library: one E32 lane's scan and the
// merge of the plots' summaries.
#include "gui/gui_eye_scan_handle_test.h"

#include "discovery/e32_phy.h"
#include "discovery/lane_generic_information.h"
#include "eye_scan/corvane_eye_scan.h"
#include "eye_scan/merge_eye_scan_csv_files.h"
#include "hardware/crn_factory.h"
#include "hardware/file_logger.h"
#include "hardware/phy_accessor.h"
#include "hardware/register_storage.h"

EyeLaneScanner e32_lane_scanner() {
    return [](const EyeLaneScan& job) -> std::optional<std::string> {
        const auto store = get_register_store(job.die);
        auto commands = std::make_shared<CorvaneE32PCSCommands>(job.link, job.lane, store);
        commands->set_abandon_check(job.abandoned);
        if (!commands->check_if_override_is_working()) return std::string("PCS override not working.");

        const auto lanes = get_lane_generic_info(job.die);
        auto phy = std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(job.die));
        // The override goes back whatever the scan did, exceptions included.
        struct Release {
            std::shared_ptr<CorvaneE32PCSCommands> commands;
            ~Release() { commands->disable_override(); }
        } release{commands};
        CorvaneEyeScan scan(job.die, job.link, job.lane, commands, std::make_shared<StoneRingBufferReader>(phy), lanes,
                            std::make_shared<GetCorvaneE32LaneData>(job.link, job.lane, phy, lanes));
        ScanParams params;
        params.folder = job.folder;
        params.id = job.id;
        params.nbits = job.nbits;
        params.phase_start = job.window.phase_start;
        params.phase_end = job.window.phase_end;
        params.phase_step = job.window.phase_step;
        params.voltage_start = job.window.voltage_start;
        params.voltage_end = job.window.voltage_end;
        params.voltage_step = job.window.voltage_step;
        params.rate_gbps = job.rate_gbps;
        std::string error;
        if (!scan.initate_eye_scan(params, error))
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
