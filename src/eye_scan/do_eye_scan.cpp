#include "eye_scan/do_eye_scan.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <thread>

#include "discovery/secure_status.h"
#include "eye_scan/corvane_eye_scan.h"
#include "eye_scan/merge_eye_scan_csv_files.h"
#include "hardware/crn_factory.h"
#include "hardware/os_specific.h"
#include "hardware/register_storage.h"
#include "hardware/time_format.h"

namespace {

constexpr int kFirstId = 1000;

}  // namespace

DoEyeScan::DoEyeScan(VEX_DIE_INFO die, CmdLineEyeScanParam params, EyeScanHooks hooks)
    : _die(std::move(die)), _params(std::move(params)), _hooks(std::move(hooks)) {
    if (_params.sampler_method != 0 && _params.sampler_method != 1) _params.sampler_method = 0;
}

std::ostream& DoEyeScan::_out() const { return _hooks.console ? *_hooks.console : std::cout; }

int DoEyeScan::initate_eye_scan() {
    if (GetSecureStatus(_die).get_status() == 0) {
        std::cerr << "Silicon is in secure state. Cannot do eye scan." << std::endl;
        return -1;
    }
    int result = 1;
    E32EyeScanParam e32;
    e32.nbits = _params.nbits;
    e32.dac_step = _params.dac_step;
    e32.dac_start = _params.dac_start;
    e32.dac_end = _params.dac_end;
    e32.phase_step = _params.phase_step;
    e32.phase_start = _params.phase_start;
    e32.phase_end = _params.phase_end;
    std::vector<std::string> other_groups;  // C10, C20, CDNS: no collector in this program
    const auto lanes = get_lane_generic_info(_die);
    for (const SerdesLaneSectionParam& section : _params.lanes) {
        std::string phy;
        try {
            phy = lanes->get_phy_name(section.link);
        } catch (const std::exception&) {
            phy.clear();
        }
        if (phy == "E32") e32.sections.push_back(section);
        else if (phy == "C10" || phy == "C20" || phy == "CDNS") other_groups.push_back(phy);
        else {
            std::cerr << "Error! Link: " << section.link << " not identified" << std::endl;
            result = -1;
        }
    }
    if (!e32.sections.empty()) {
        const int e32_result = do_eyescan(e32);
        if (e32_result != 1) return e32_result;
    }
    for (const char* phy : {"C10", "C20", "CDNS"})
        if (std::find(other_groups.begin(), other_groups.end(), phy) != other_groups.end())
            std::cerr << "Error! m_p" << phy << "EyeScan nullptr" << std::endl;
    return result == -1 ? -1 : 1;
}

int DoEyeScan::do_eyescan(const E32EyeScanParam& params) {
    if (_hooks.prepare) {
        std::string error;
        if (!_hooks.prepare(error)) {
            std::cerr << error << std::endl;
            for (const auto& section : params.sections)
                for (unsigned int lane : section.lanes) _outcomes.push_back({section.link, lane, 0, false, error});
            return -1;
        }
    }
    return do_eyescan_corvane(params);
}

int DoEyeScan::do_eyescan_corvane(const E32EyeScanParam& params) {
    _folder = _hooks.folder.empty() ? time_stamp() : _hooks.folder;
    std::error_code ec;
    std::filesystem::create_directories(_folder, ec);
    _out() << "Going to start eye scan" << std::endl;
    // Outcomes are sized first: each thread writes its own entry only.
    std::vector<std::pair<size_t, size_t>> slots;  // outcome index, section index
    int id = kFirstId;
    const size_t first = _outcomes.size();
    for (size_t s = 0; s < params.sections.size(); ++s)
        for (unsigned int lane : params.sections[s].lanes)
            _outcomes.push_back({params.sections[s].link, lane, id++, false, {}});
    std::vector<std::thread> threads;
    for (size_t i = first; i < _outcomes.size(); ++i)
        threads.emplace_back([this, i, &params] { _lane_thread(_outcomes[i], params); });
    for (std::thread& thread : threads) thread.join();

    std::vector<std::string> metadata;
    for (const std::string& file : OSSpecific().get_all_files(_folder))
        if (OSSpecific().get_file_name_from_path(file).find("metadata") != std::string::npos) metadata.push_back(file);
    if (_hooks.plot && !metadata.empty()) _hooks.plot(metadata);
    MergeEyeScanCSVFiles(_folder).merge(OSSpecific().append_to_path(_folder, "analysis.csv"));
    _out() << "Results and images are available in folder: " << _folder << std::endl;
    return 1;
}

void DoEyeScan::_lane_thread(EyeScanLaneOutcome& outcome, const E32EyeScanParam& params) {
    ScanParams scan_params;
    scan_params.folder = _folder;
    scan_params.id = outcome.id;
    scan_params.nbits = params.nbits;
    scan_params.phase_start = params.phase_start;
    scan_params.phase_end = params.phase_end;
    scan_params.phase_step = params.phase_step;
    scan_params.voltage_start = params.dac_start;
    scan_params.voltage_end = params.dac_end;
    scan_params.voltage_step = params.dac_step;
    scan_params.rate_gbps = _hooks.rate_gbps;
    outcome.done = scan_e32_lane(_die, outcome.link, outcome.lane, scan_params, _hooks.abandoned, outcome.error);
}

bool scan_e32_lane(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane, const ScanParams& params,
                   const WaitAbandoned& abandoned, std::string& error_text) {
    std::shared_ptr<CorvaneE32PCSCommands> commands;
    try {
        // One access path per die on this platform: the die's own accessor.
        auto phy = std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die));
        const auto lanes = get_lane_generic_info(die);
        commands = std::make_shared<CorvaneE32PCSCommands>(link, lane, get_register_store(die));
        commands->set_abandon_check(abandoned);
        CorvaneEyeScan scan(die, link, lane, commands, std::make_shared<StoneRingBufferReader>(phy), lanes,
                            std::make_shared<GetCorvaneE32LaneData>(link, lane, phy, lanes));
        const bool done = scan.initate_eye_scan(params, error_text);
        scan.disable_override();
        return done;
    } catch (const std::exception& failure) {
        error_text = failure.what();
        try {
            if (commands) commands->disable_override();
        } catch (const std::exception&) {
            // The register network itself failed; the text above says why.
        }
        return false;
    }
}
