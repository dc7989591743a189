// One E32 lane's receiver eye, taken by the PHY's own eye sampler while the
// link runs: the collector sets the window, runs one sampling pass per tap,
// reads the counts from the ring as they stream, and writes the density
// table ("<id>_data.csv") and its description ("<id>_metadata.csv") into the
// folder, or with the older firmware "<id>_data.json".
//
// The override is taken at the start and held; the caller releases it with
// disable_override() whatever the result.
//
// Where we do better than the firmware's own tools: a window of more than
// 50 values on an axis is refused before anything is sent; a scan whose
// busy bit does not clear within 4 times its sampling time + 100 ms of
// model time, a ring that overran, a stream short of its counts and a
// cancelled wait (the commands' abandon check) each fail the lane with a
// text instead of hanging or reading past the tables.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "discovery/e32_phy.h"
#include "discovery/lane_generic_information.h"
#include "eye_scan/eye_tables.h"
#include "eye_scan/scan_params.h"
#include "eye_scan/stone_ring_buffer_reader.h"
#include "hardware/vex_die_info.h"

class CorvaneEyeScan {
public:
    // Runs the firmware version check (which throws when the override does
    // not work or the version is unknown) and keeps its results.
    CorvaneEyeScan(VEX_DIE_INFO die, std::string link, uint32_t lane, std::shared_ptr<CorvaneE32PCSCommands> commands,
                   std::shared_ptr<StoneRingBufferReader> reader, std::shared_ptr<LaneGenericInformation> lanes,
                   std::shared_ptr<GetE32LaneData> lane_data);

    // Firmware 2 or 3: the newer path; 1: the older; anything else throws
    // "Unknown firmware version in Corvane initate eye scan".
    bool initate_eye_scan(const ScanParams& params, std::string& error_text);
    bool initate_eye_scan_v2(const ScanParams& params, std::string& error_text);
    bool initate_eye_scan_v1(const ScanParams& params, std::string& error_text);

    // Override, debug config, windows; tap_mode from the training record.
    bool send_settings_to_phy_v2_new(const ScanParams& params, int nbits, std::string& error_text, bool quiet,
                                     unsigned int& tap_mode);
    // One sampling pass over the taps of tap_mode (255: all eight, the older
    // firmware); the bytes of every tap appended in order.
    bool do_eyescan(std::string& error_text, std::vector<uint8_t>& bytes, unsigned int tap_mode, int nbits);

    // The ring offset from the training record, and the ring's config words.
    void get_data_buffer_tail_length(unsigned int& head, unsigned int& tail, unsigned int& offset);
    void get_data(unsigned int offset, unsigned int length, unsigned int& position, std::vector<uint8_t>& bytes);
    void disable_override() { _commands->disable_override(); }

    // The lane's base name for its files: "socket_<s>_die_<d>_<link>_<lane>",
    // or "bus_<b>_device_<d>_function_<f>_<link>_<lane>" for a plain PCI
    // device (a graphics die other than "KX900X").
    static std::string get_eye_png_name(const VEX_DIE_INFO& die, const std::string& link, uint32_t lane);

    unsigned int firmware() const { return _firmware; }
    const std::string& full_version() const { return _full_version; }

private:
    bool _settings(const ScanParams& params, int nbits, bool v1, std::string& error_text, bool quiet,
                   unsigned int& tap_mode);
    // One scan command of the selected tap, its ring read until it ends.
    bool _collect_tap(int nbits, std::vector<uint8_t>& bytes, std::string& error_text);
    std::string _where() const;

    VEX_DIE_INFO _die;
    std::string _link;
    uint32_t _lane;
    uint32_t _firmware = 0;
    std::string _full_version;
    std::shared_ptr<CorvaneE32PCSCommands> _commands;
    std::shared_ptr<StoneRingBufferReader> _reader;
    std::shared_ptr<LaneGenericInformation> _lanes;
    std::shared_ptr<GetE32LaneData> _lane_data;
    ScanParams _params;  // of the scan under way (windows, rate for the poll bound)
};
