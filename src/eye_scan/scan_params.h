// What one lane's eye scan is asked to do. Windows are in PHY units: phase
// 1/64 UI, voltage 0.5 mV (the older firmware takes whole mV: even values).
#pragma once

#include <optional>
#include <string>

struct ScanParams {
    int mode = 2;  // not read by the collector
    std::string folder;
    int id = 0;
    int debug_a = 0;
    int debug_b = 1, debug_c = 1;
    int debug_d = 4;
    int debug_e = 0;
    int phase_start = -32, phase_end = 32, phase_step = 4;
    int voltage_start = -200, voltage_end = 200, voltage_step = 10;
    int nbits = 23;
    // The lane's bit rate in Gb/s, for the bound on a scan's poll: four
    // times the sampling time at this rate plus 100 ms. 0: the slowest rate
    // an E32 lane runs (2.5), so the bound is only ever too generous.
    double rate_gbps = 0;
};

// Values of a window axis, start to end inclusive by step; 0 when the step
// is not positive or the end lies before the start.
int axis_values(int start, int end, int step);

// The PHY's own sampling time of one tap and run of the window, in seconds
// of model time: points x (2 us + 2^min(nbits, 23) bits at rate_gbps; 0: 2.5).
double eye_scan_tap_seconds(const ScanParams& params, double rate_gbps);
// The whole lane: runs (2^(nbits - 23) above 23) x taps x one tap's time.
double eye_scan_lane_seconds(const ScanParams& params, unsigned int taps, double rate_gbps);

// Why the window can't be scanned: an empty axis, or more than 50 values on
// one (the tables hold 50). nullopt when it can.
std::optional<std::string> check_scan_window(const ScanParams& params);
