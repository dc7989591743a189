// What the PCIe margin engines share: the dwell time for a target bit error
// rate, reading and checking a receiver's parameters, finding the lanes a
// link uses, and the dwell ladder (a single-thread margin of one device that
// walks each lane at growing dwells, starting each walk near where the
// shorter dwell failed).
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "margin_pcie/execute_lane_margin_command.h"
#include "margin_pcie/margin_console.h"
#include "margin_pcie/margin_pcie_lane.h"
#include "margin_pcie/margin_stop_flag.h"

namespace PCIE {

// Seconds to observe for a bit error rate of 1 in 10^ber_exponent with up
// to errors errors allowed, at data_rate bits per second. Error counts
// above 10 take the factor for 0.
double getDwellTime(unsigned int errors, unsigned int ber_exponent, double data_rate);

// A dwell in seconds as whole milliseconds. Throws std::runtime_error when it
// doesn't fit an unsigned 32-bit number (a BER of 10^-30 asks for ~10^20 s),
// rather than letting the conversion overflow.
unsigned int dwell_milliseconds(double seconds);

class ComputeDwellTime {
public:
    double operator()(unsigned int errors, unsigned int ber_exponent, double data_rate) const;
};

// The last passing offset of one lane at each dwell time (ms), by side.
struct MarginDwellData {
    std::map<unsigned int, unsigned int> timing_left;
    std::map<unsigned int, unsigned int> timing_right;
    std::map<unsigned int, unsigned int> voltage_negative;
    std::map<unsigned int, unsigned int> voltage_positive;
};

// Reads timing steps, max timing offset, voltage steps, max voltage offset
// and the capability, in that order, printing each failure. Failed voltage
// reads are only printed; a receiver without independent left and right
// timing is refused; one without independent up and down voltage is printed
// yet accepted.
bool get_margin_params(ExecuteLaneMarginCmd& cmd, unsigned int& timing_steps, unsigned int& voltage_steps,
                       unsigned int& max_voltage_offset, unsigned int& max_timing_offset,
                       ExecuteLaneMarginCmd::MarginCtrlCapability& capability, std::string& err);

// Warns (console and one line each in warnings) about values out of their
// usual ranges; refuses nothing.
void checks_on_the_values(unsigned int timing_steps, unsigned int voltage_steps, unsigned int max_voltage_offset,
                          unsigned int max_timing_offset, const ExecuteLaneMarginCmd::MarginCtrlCapability& capability,
                          std::string& warnings);

// The lane numbers a link of width lanes occupies, by asking each lane's
// receiver 1 for its capability: 0 with lanes 0 up, 1 with lanes 15 down
// (reversed), 2 with an empty list when neither fits. The reversed form
// exists only below 16 lanes; a width of 0 or less has no answer.
int is_lane_reversed(Device_ID device, int width, std::vector<unsigned int>& lanes, ReadPCI& read, WritePCI& write);

// 50, 500, 5000, ... up to final_dwell, then final_dwell unless already last.
// 50 always comes first, even for a smaller final dwell.
std::vector<int> populate_dwell_list(int final_dwell);

// The walk's range from what shorter dwells found: (0, steps + 1) when
// nothing was found, else start back_off below the smallest non-zero offset.
std::pair<unsigned int, unsigned int> find_start_end_offset(MarginDwellData& dwell_data, bool timing, bool negative,
                                                            unsigned int steps, unsigned int back_off);

// One one-side walk, its output kept in outputs under key. 1 when the walk
// could not run (err says why, also on the console), 0 when it ran with
// passed offsets, 2 otherwise.
template <class Lane, class Input, class Output, class OutputMap>
int margin_unit(const Lane& lane, const Input& in, Output& out, const std::string& name,
                const typename OutputMap::key_type& key, OutputMap& outputs, std::string& err) {
    std::string cause;
    const int result = lane.margin_one_side(in, out, cause);
    if (result == WALK_NOT_BEGUN) {
        err = "Margin " + name + " command failed. Reason: " + cause;
        print_console_line(err);
        return 1;
    }
    outputs[key] = out;
    return result == WALK_ANSWERED && !out.passed_offsets.empty() ? 0 : 2;
}

// Ladder words for a walk's status; count is the error count where it has one.
std::string margin_status_text(int status, unsigned int count);

// A margin of one device (segment 0) in one thread over the dwell ladder:
// voltage first where the receiver steps up and down independently, then
// timing; each dwell of the ladder for each side and lane. A dwell_time of 0
// takes the dwell for ber_exponent at the link's speed (16 or 32 GT/s only).
// The error threshold of every lane is set to 63 first. results gets each
// lane's last passing offsets by dwell. False with err when the speed, the
// receiver's parameters or a raised stop flag end it.
bool place_holder_function(ReadPCI& read, WritePCI& write, unsigned int bus, unsigned int device,
                           unsigned int function, unsigned int ber_exponent, unsigned int dwell_time,
                           unsigned int error_threshold, unsigned int receiver, const std::vector<unsigned int>& lanes,
                           std::map<unsigned int, MarginDwellData>& results, std::string& err,
                           MarginStopFlag stop = MarginStopFlag());

// Local time as "YYYY_MM_DD-HH_MM_SS".
std::string time_stamp();

}  // namespace PCIE
