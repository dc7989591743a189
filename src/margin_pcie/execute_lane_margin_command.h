// One lane of one receiver, driven through the Lane Margining at the
// Receiver extended capability: build the 16-bit command, write it to the
// lane's control register, wait, read the lane's status and decode it.
// Nothing else in the product touches the capability's registers.
//
// Operations return true on success; on failure the reason is put into the
// caller's string, with each layer prepending its own words so the text
// reads from the outermost operation to the innermost cause.
#pragma once

#include <string>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

namespace PCIE {

class ExecuteLaneMarginCmd {
public:
    // The 16-bit field of lane control and lane status.
    struct MarginLaneData {
        unsigned int _receiver_no = 0;     // bits 2:0
        unsigned int _margin_type = 0;     // bits 5:3
        unsigned int _um = 0;              // bit 6, usage model; 0 is lane margining
        unsigned int _margin_payload = 0;  // bits 15:8
    };

    enum MarginCmds : unsigned int {
        READ_REG = 1,
        MGMT_OPR = 2,
        STEP_TIMING = 3,
        STEP_VOLT = 4,
        HAND_SHAKE = 7,  // "no command"
    };

    // Bits 7:6 of a step command's response payload.
    enum MarginExecutionStatus : unsigned int {
        TOO_MANY_ERRORS = 0,
        SETUP_IN_PROGRESS = 1,
        MARGIN_IN_PROGRESS = 2,
        NAK = 3,
    };

    enum TimeOrVoltMargin : unsigned int { TIMING = 0, VOLTAGE = 1 };

    // Direction values of send_margin_cmd.
    enum MarginDirection : unsigned int {
        TIME_LEFT = 0,
        TIME_RIGHT = 1,
        VOLT_UP = 2,
        VOLT_DOWN = 3,
        NO_DIRECTION = 4,
    };

    struct MarginCtrlCapability {
        bool IndErrSampler = false;          // payload bit 4
        bool SampleReportingMethod = false;  // payload bit 3
        bool LeftRightTiming = false;        // payload bit 2
        bool IndUpDownVolt = false;          // payload bit 1
        bool VoltSupported = false;          // payload bit 0
    };

    // The capability is searched once here, and its absence isn't refused:
    // the lane register is then 8 + 4 * lane. Callers check the capability
    // before they build one of these.
    ExecuteLaneMarginCmd(Device_ID device, unsigned int lane, unsigned int receiver, ReadPCI& read,
                         WritePCI& write);

    static unsigned int merge_data(const MarginLaneData& data);
    static MarginLaneData split_data(unsigned int word);
    static std::string to_string(MarginExecutionStatus status);
    static std::string to_string(MarginCmds command);

    // Writes the command, sleeps the handshake delay and reads the response;
    // a response of another margin type is read once more at once.
    bool send_cmd_and_read_response(unsigned int type, unsigned int payload, MarginLaneData& out,
                                    std::string& err) const;
    // The lane status as it stands, without a command. Always true.
    bool read_cmd_response(MarginLaneData& out) const;
    // Ends a step or report: sleep, then "no command" to receiver 0.
    bool send_no_command(std::string& err) const;

    bool read_margin_ctrl_capability(MarginCtrlCapability& capability, std::string& err) const;
    bool read_number_of_voltage_steps(unsigned int& value, std::string& err) const;
    bool read_number_of_timing_steps(unsigned int& value, std::string& err) const;
    bool read_max_timing_offset(unsigned int& value, std::string& err) const;
    bool read_max_voltage_offset(unsigned int& value, std::string& err) const;
    bool read_max_lanes(unsigned int& value, std::string& err) const;

    bool go_to_normal_settings(std::string& err) const;
    bool clear_error_log(std::string& err) const;
    // Counts of 64 or more are refused without sending anything.
    bool set_error_threshold(unsigned int count, std::string& err) const;

    // Each returns after the first response; judging the status is the caller's.
    bool send_time_margin_left_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                   std::string& err) const;
    bool send_time_margin_right_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                    std::string& err) const;
    bool send_time_margin_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                              std::string& err) const;
    bool send_volt_margin_up_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                 std::string& err) const;
    bool send_volt_margin_down_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                   std::string& err) const;
    bool send_volt_margin_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                              std::string& err) const;
    // A direction of 5 or more, or more steps than the kind allows (63 for
    // timing, 127 for voltage), is refused with err left alone.
    bool send_margin_cmd(TimeOrVoltMargin kind, unsigned int steps, unsigned int direction,
                         MarginExecutionStatus& status, unsigned int& errors, std::string& err) const;
    // Polls a running step. Always true.
    bool read_margin_response(MarginExecutionStatus& status, unsigned int& errors, std::string& err) const;

    // Tracing: the four fields under a title, on standard output.
    void print_margin_lane_data(const MarginLaneData& data, const std::string& title) const;

    unsigned int lane() const { return _lane; }
    unsigned int receiver() const { return _receiver; }
    const Device_ID& device() const { return _device; }
    unsigned int lane_register() const { return _lane_register; }

private:
    bool _read_report(unsigned int payload, unsigned int& value, const char* failure, std::string& err) const;
    // mismatch makes the failure text from the echoed payload.
    bool _management(unsigned int payload, const char* failure, std::string (*mismatch)(unsigned int echo),
                     std::string& err) const;

    unsigned int _handshake_delay_ms;
    Device_ID _device;
    unsigned int _lane;
    unsigned int _receiver;
    unsigned int _lane_register;
    ReadPCI& _read;
    WritePCI& _write;
};

}  // namespace PCIE
