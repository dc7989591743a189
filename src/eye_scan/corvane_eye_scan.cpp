#include "eye_scan/corvane_eye_scan.h"

#include <chrono>
#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "eye_scan/eye_json.h"
#include "hardware/atomic_file.h"
#include "hardware/chips/e32_phy_firmware.h"
#include "hardware/system_facts.h"

namespace e32 = chips::e32;

namespace {

constexpr int kMaxBits = 30;  // 2^7 repeats of the PHY's 23: far beyond any offered rate

std::vector<unsigned int> taps_of(unsigned int tap_mode) {
    switch (tap_mode) {
    case 0: return {0};
    case 2: return {0, 2, 4, 6};
    case 3:
    case 255: return {0, 1, 2, 3, 4, 5, 6, 7};
    default: return {};
    }
}

std::string in_folder(const std::string& folder, const std::string& name) {
    return folder.empty() || folder.back() == '/' ? folder + name : folder + "/" + name;
}

}  // namespace

CorvaneEyeScan::CorvaneEyeScan(VEX_DIE_INFO die, std::string link, uint32_t lane,
                               std::shared_ptr<CorvaneE32PCSCommands> commands,
                               std::shared_ptr<StoneRingBufferReader> reader,
                               std::shared_ptr<LaneGenericInformation> lanes, std::shared_ptr<GetE32LaneData> lane_data)
    : _die(std::move(die)), _link(std::move(link)), _lane(lane), _commands(std::move(commands)),
      _reader(std::move(reader)), _lanes(std::move(lanes)), _lane_data(std::move(lane_data)) {
    CorvaneVersionCheck check(_link, _die, _commands);
    _firmware = check();
    _full_version = check.full_version();
}

std::string CorvaneEyeScan::_where() const { return "lane " + std::to_string(_lane) + " of link " + _link; }

std::string CorvaneEyeScan::get_eye_png_name(const VEX_DIE_INFO& die, const std::string& link, uint32_t lane) {
    const std::string tail = "_" + link + "_" + std::to_string(lane);
    if (is_plain_pci_device(die)) {
        const PCIDeviceDetails& d = die.gpu.device;
        return "bus_" + std::to_string(d.bus) + "_device_" + std::to_string(d.device) + "_function_" +
               std::to_string(d.function) + tail;
    }
    return "socket_" + std::to_string(die.socket()) + "_die_" + std::to_string(die.die()) + tail;
}

bool CorvaneEyeScan::initate_eye_scan(const ScanParams& params, std::string& error_text) {
    if (_firmware == 2 || _firmware == 3) return initate_eye_scan_v2(params, error_text);
    if (_firmware == 1) return initate_eye_scan_v1(params, error_text);
    throw std::runtime_error("Unknown firmware version in Corvane initate eye scan");
}

bool CorvaneEyeScan::send_settings_to_phy_v2_new(const ScanParams& params, int nbits, std::string& error_text,
                                                 bool quiet, unsigned int& tap_mode) {
    return _settings(params, nbits, false, error_text, quiet, tap_mode);
}

bool CorvaneEyeScan::_settings(const ScanParams& params, int nbits, bool v1, std::string& error_text, bool quiet,
                               unsigned int& tap_mode) {
    _params = params;
    if (const auto refused = check_scan_window(params)) {
        error_text = *refused;
        return false;
    }
    _commands->setup_bmask();
    if (!_commands->enable_override()) {
        error_text = _commands->abandoned() ? "Eye scan of " + _where() + " was cancelled"
                                            : "Unable to enable override for lane: " + std::to_string(_lane) +
                                                  " of link: " + _link;
        return false;
    }
    const bool sent =
        _commands->do_debug_config(params.debug_a, params.debug_b, params.debug_c, params.debug_d, params.debug_e,
                                   error_text) &&
        _commands->do_rx_eye_phase(params.phase_start, params.phase_end, params.phase_step, error_text) &&
        (v1 ? _commands->do_rx_eye_voltage_v1(params.voltage_start, params.voltage_end, params.voltage_step, error_text)
            : _commands->do_rx_eye_voltage_v2(params.voltage_start, params.voltage_end, params.voltage_step, true,
                                              error_text));
    if (!sent) return false;
    const CorvaneE32LANEDATA data = (*_lane_data)(_firmware, _full_version);
    tap_mode = data.tap_mode;
    if (!data.active_cache_valid()) {
        error_text = "Active Cache not valid for Lane: " + std::to_string(_lane) + " of link: " + _link;
        return false;
    }
    if (!quiet) {
        std::cout << "Link:          " << _link << "\nLane:          " << _lane
                  << "\nPhase start:   " << params.phase_start << "\nPhase end:     " << params.phase_end
                  << "\nPhase step:    " << params.phase_step << "\nVoltage start: " << params.voltage_start
                  << "\nVoltage end:   " << params.voltage_end << "\nVoltage step:  " << params.voltage_step
                  << "\nnbits:         " << nbits << std::endl;
    }
    if (v1) return true;
    switch (tap_mode) {
    case 0: return _commands->do_ext_config1(e32::kTapModeWord0, 1, error_text);
    case 2: return _commands->do_ext_config1(e32::kTapModeWord2, 1, error_text);
    case 3: return _commands->do_ext_config1(e32::kTapModeWord3, 1, error_text);
    default:
        error_text = "Unknown tap mode " + std::to_string(tap_mode) + " in the training record of " + _where();
        return false;
    }
}

bool CorvaneEyeScan::do_eyescan(std::string& error_text, std::vector<uint8_t>& bytes, unsigned int tap_mode,
                                int nbits) {
    const std::vector<unsigned int> taps = taps_of(tap_mode);
    if (taps.empty()) {
        error_text = "Unknown tap mode " + std::to_string(tap_mode) + " for the eye scan of " + _where();
        return false;
    }
    for (unsigned int tap : taps) {
        if (!_commands->do_ext_config0(tap, tap, tap * 4, error_text)) return false;
        if (!_collect_tap(nbits, bytes, error_text)) return false;
    }
    if (!_commands->enable_override()) {
        std::cerr << "Data collection failed" << std::endl;
        error_text = "Data collection failed";
        return false;
    }
    return true;
}

bool CorvaneEyeScan::_collect_tap(int nbits, std::vector<uint8_t>& bytes, std::string& error_text) {
    if (!_commands->do_rx_eye_scan(static_cast<unsigned int>(nbits), error_text)) return false;
    unsigned int head = 0, length = 0, offset = 0, position = 0;
    get_data_buffer_tail_length(head, length, offset);
    if (length == 0 || (length & (length - 1)) != 0) {
        error_text = "Eye scan ring of " + _where() + " has an invalid length " + std::to_string(length);
        return false;
    }
    // The poll's bound in model time: the PHY's own sampling time, four
    // times over, and 100 ms.
    ScanParams run = _params;
    run.nbits = nbits;
    const auto bound = std::chrono::nanoseconds(static_cast<int64_t>(4e9 * eye_scan_tap_seconds(run, _params.rate_gbps))) +
                       std::chrono::milliseconds(100);
    const auto start = system_facts().now();
    while (_commands->wait_for_injection_progress_to_complete(false) == 0) {
        get_data(offset, length, position, bytes);
        if (_commands->abandoned()) {
            error_text = "Eye scan of " + _where() + " was cancelled";
            return false;
        }
        if (system_facts().now() - start > bound) {
            error_text = "Eye scan of " + _where() + " did not end within " +
                         std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(bound).count()) + " ms";
            return false;
        }
    }
    get_data(offset, length, position, bytes);  // the last counts
    unsigned int lost = 0;
    if (_reader->overrun(get_lane_base_address(*_lanes, _link, _lane), offset, lost)) {
        error_text = "Eye scan data lost on " + _where() + ": the ring buffer overran (" + std::to_string(lost) +
                     " bytes)";
        return false;
    }
    return true;
}

void CorvaneEyeScan::get_data_buffer_tail_length(unsigned int& head, unsigned int& tail, unsigned int& offset) {
    offset = (*_lane_data)(_firmware, _full_version).ring_offset;
    _reader->read_config(get_lane_base_address(*_lanes, _link, _lane), offset, head, tail);
}

void CorvaneEyeScan::get_data(unsigned int offset, unsigned int length, unsigned int& position,
                              std::vector<uint8_t>& bytes) {
    _reader->read_buffer(get_lane_base_address(*_lanes, _link, _lane), offset, length, position, bytes);
}

bool CorvaneEyeScan::initate_eye_scan_v2(const ScanParams& params, std::string& error_text) {
    if (params.nbits < static_cast<int>(e32::kMinScanBits) || params.nbits > kMaxBits) {
        error_text = "Eye scan nbits " + std::to_string(params.nbits) + " is outside " +
                     std::to_string(e32::kMinScanBits) + ".." + std::to_string(kMaxBits);
        return false;
    }
    // The PHY compares at most 2^23 bits a run; more are run again and added.
    const int run_bits = std::min(params.nbits, static_cast<int>(e32::kMaxScanBits));
    const unsigned int runs = params.nbits > run_bits ? 1u << (params.nbits - run_bits) : 1u;
    unsigned int tap_mode = 0;
    if (!send_settings_to_phy_v2_new(params, params.nbits, error_text, false, tap_mode)) return false;
    std::vector<int32_t> counts;
    for (unsigned int run = 0; run < runs; ++run) {
        std::vector<uint8_t> bytes;
        if (!do_eyescan(error_text, bytes, tap_mode, run_bits)) return false;
        const std::vector<int32_t> more = counts_from_bytes(bytes);
        if (run == 0) counts.assign(more.size(), 0);
        if (more.size() > counts.size()) counts.resize(more.size(), 0);
        for (size_t i = 0; i < more.size(); ++i) counts[i] += more[i];
    }
    const unsigned int P = axis_values(params.phase_start, params.phase_end, params.phase_step);
    const unsigned int V = axis_values(params.voltage_start, params.voltage_end, params.voltage_step);
    const unsigned int taps = 1u << tap_mode;
    auto tables = std::make_unique<EyeTables>();
    if (!fill_eye_tables(counts, taps, P, V, *tables, error_text)) {
        error_text += " on " + _where();
        return false;
    }
    const std::string id = std::to_string(params.id);
    std::ofstream csv(in_folder(params.folder, id + "_data.csv"), std::ios::app);
    csv << eye_csv(*tables, P, V);
    csv.close();
    if (!csv) {
        error_text = "Unable to write " + in_folder(params.folder, id + "_data.csv");
        return false;
    }
    const auto metadata = eye_metadata(_die, _link, _lane, get_eye_png_name(_die, _link, _lane), params, taps);
    return write_file_atomically(in_folder(params.folder, id + "_metadata.csv"), metadata.dump(4), error_text);
}

bool CorvaneEyeScan::initate_eye_scan_v1(const ScanParams& params, std::string& error_text) {
    if (params.nbits < static_cast<int>(e32::kMinScanBits) || params.nbits > static_cast<int>(e32::kMaxScanBits)) {
        error_text = "Eye scan nbits " + std::to_string(params.nbits) + " is outside " +
                     std::to_string(e32::kMinScanBits) + ".." + std::to_string(e32::kMaxScanBits) +
                     " on this firmware";
        return false;
    }
    unsigned int tap_mode = 0;
    if (!_settings(params, params.nbits, true, error_text, false, tap_mode)) return false;
    std::vector<uint8_t> bytes;
    if (!do_eyescan(error_text, bytes, 255, params.nbits)) return false;
    const unsigned int P = axis_values(params.phase_start, params.phase_end, params.phase_step);
    const unsigned int V = axis_values(params.voltage_start, params.voltage_end, params.voltage_step);
    auto tables = std::make_unique<EyeTables>();
    if (!fill_eye_tables(counts_from_bytes(bytes), kEyeTableTaps, P, V, *tables, error_text)) {
        error_text += " on " + _where();
        return false;
    }
    const CorvaneE32LANEDATA data = (*_lane_data)(_firmware, _full_version);
    nlohmann::json document;
    generate_json(_die, !is_plain_pci_device(_die), _link, _lane, data, *tables, P, V, params, document);
    return write_file_atomically(in_folder(params.folder, std::to_string(params.id) + "_data.json"), document.dump(),
                                 error_text);
}
