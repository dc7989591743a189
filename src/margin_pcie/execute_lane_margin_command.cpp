#include "margin_pcie/execute_lane_margin_command.h"

#include <sstream>

#include "discovery/pci_capability.h"
#include "hardware/os_specific.h"
#include "margin_pcie/margin_console.h"

namespace PCIE {

namespace {

constexpr unsigned int kHandshakeDelayMs = 10;
constexpr unsigned int kLaneRegistersStart = 8;

constexpr unsigned int kNoCommandPayload = 0x9C;

constexpr unsigned int kReportCapabilities = 0x88;
constexpr unsigned int kReportVoltageSteps = 0x89;
constexpr unsigned int kReportTimingSteps = 0x8A;
constexpr unsigned int kReportMaxTimingOffset = 0x8B;
constexpr unsigned int kReportMaxVoltageOffset = 0x8C;
constexpr unsigned int kReportMaxLanes = 0x90;

constexpr unsigned int kGoToNormalSettings = 0x0F;
constexpr unsigned int kClearErrorLog = 0x55;
constexpr unsigned int kSetErrorThreshold = 0xC0;
constexpr unsigned int kMaxErrorThreshold = 63;

constexpr unsigned int kMaxTimingSteps = 63;
constexpr unsigned int kMaxVoltageSteps = 127;

// Payload flag of each direction value of send_margin_cmd.
constexpr unsigned int kDirectionFlags[] = {0x40, 0x00, 0x00, 0x80, 0x00};

std::string hex(unsigned int value) {
    std::ostringstream out;
    out << std::hex << value;
    return out.str();
}

}  // namespace

ExecuteLaneMarginCmd::ExecuteLaneMarginCmd(Device_ID device, unsigned int lane, unsigned int receiver, ReadPCI& read,
                                           WritePCI& write)
    : _handshake_delay_ms(kHandshakeDelayMs),
      _device(device),
      _lane(lane),
      _receiver(receiver),
      _lane_register(0),
      _read(read),
      _write(write) {
    unsigned int capability = 0;
    std::string ignored;
    DetectThisPCIEExtendedCapability(_device, _read).detect(LANE_MARGINING_AT_RECEIVER, capability, ignored);
    _lane_register = capability + kLaneRegistersStart + 4 * _lane;
}

unsigned int ExecuteLaneMarginCmd::merge_data(const MarginLaneData& data) {
    const unsigned int word = (data._receiver_no & 0x7) | ((data._margin_type & 0x7) << 3) | ((data._um & 0x1) << 6) |
                              ((data._margin_payload & 0xFF) << 8);
    return word & 0xFFFF;
}

ExecuteLaneMarginCmd::MarginLaneData ExecuteLaneMarginCmd::split_data(unsigned int word) {
    MarginLaneData data;
    data._receiver_no = word & 0x7;
    data._margin_type = (word >> 3) & 0x7;
    data._um = (word >> 6) & 0x1;
    data._margin_payload = (word >> 8) & 0xFF;
    return data;
}

std::string ExecuteLaneMarginCmd::to_string(MarginExecutionStatus status) {
    switch (status) {
        case TOO_MANY_ERRORS: return "TOO_MANY_ERRORS";
        case SETUP_IN_PROGRESS: return "SETUP_IN_PROGRESS";
        case MARGIN_IN_PROGRESS: return "MARGIN_IN_PROGRESS";
        case NAK: return "NAK";
    }
    return "Error: Unknown margin execution status";
}

std::string ExecuteLaneMarginCmd::to_string(MarginCmds command) {
    switch (command) {
        case READ_REG: return "ReadReg";
        case MGMT_OPR: return "MgmtOpr";
        case STEP_TIMING: return "StepTiming";
        case STEP_VOLT: return "StepVolt";
        case HAND_SHAKE: return "HandShake";
    }
    return "Error: Unknown margin command";
}

bool ExecuteLaneMarginCmd::send_cmd_and_read_response(unsigned int type, unsigned int payload, MarginLaneData& out,
                                                      std::string& err) const {
    MarginLaneData command;
    command._margin_type = type;
    command._margin_payload = payload;
    command._um = 0;
    // "No command" is addressed to no receiver in particular.
    command._receiver_no = type == HAND_SHAKE ? 0 : _receiver;
    // The upper half is the read-only status; it is written as zero.
    _write.write32(_device.segment, _device.bus, _device.device, _device.function, _lane_register,
                   merge_data(command));
    OSSpecific().milli_secs_sleep(_handshake_delay_ms);
    read_cmd_response(out);
    if (out._margin_type == (type & 0x7)) return true;
    // The status can lag the control write by a moment; one more look is enough.
    read_cmd_response(out);
    if (out._margin_type == (type & 0x7)) return true;
    err = "Margin Type in response is not matching the one in command.";
    return false;
}

bool ExecuteLaneMarginCmd::read_cmd_response(MarginLaneData& out) const {
    unsigned int value = 0;
    _read.read32(_device.segment, _device.bus, _device.device, _device.function, _lane_register, value);
    out = split_data(value >> 16);
    return true;
}

bool ExecuteLaneMarginCmd::send_no_command(std::string& err) const {
    OSSpecific().milli_secs_sleep(_handshake_delay_ms);
    MarginLaneData response;
    if (!send_cmd_and_read_response(HAND_SHAKE, kNoCommandPayload, response, err)) {
        err = "Failed handshake (No command). " + err;
        return false;
    }
    if (response._margin_payload != kNoCommandPayload) {
        err = "Failed handshake (No command).";
        return false;
    }
    return true;
}

// A failed handshake after a good report is told by send_no_command's own
// text, without the report's words in front.
bool ExecuteLaneMarginCmd::_read_report(unsigned int payload, unsigned int& value, const char* failure,
                                        std::string& err) const {
    MarginLaneData response;
    if (!send_cmd_and_read_response(READ_REG, payload, response, err)) {
        err = failure + err;
        return false;
    }
    value = response._margin_payload;
    return send_no_command(err);
}

bool ExecuteLaneMarginCmd::read_margin_ctrl_capability(MarginCtrlCapability& capability, std::string& err) const {
    unsigned int bits = 0;
    if (!_read_report(kReportCapabilities, bits, "Read Margin Control Capabilities failed. ", err)) return false;
    capability.IndErrSampler = (bits >> 4) & 1;
    capability.SampleReportingMethod = (bits >> 3) & 1;
    capability.LeftRightTiming = (bits >> 2) & 1;
    capability.IndUpDownVolt = (bits >> 1) & 1;
    capability.VoltSupported = bits & 1;
    return true;
}

bool ExecuteLaneMarginCmd::read_number_of_voltage_steps(unsigned int& value, std::string& err) const {
    return _read_report(kReportVoltageSteps, value, "Read voltage steps failed. ", err);
}

bool ExecuteLaneMarginCmd::read_number_of_timing_steps(unsigned int& value, std::string& err) const {
    return _read_report(kReportTimingSteps, value, "Read timing steps failed. ", err);
}

bool ExecuteLaneMarginCmd::read_max_timing_offset(unsigned int& value, std::string& err) const {
    return _read_report(kReportMaxTimingOffset, value, "Read max timing offset failed. ", err);
}

bool ExecuteLaneMarginCmd::read_max_voltage_offset(unsigned int& value, std::string& err) const {
    return _read_report(kReportMaxVoltageOffset, value, "Read max voltage offset failed. ", err);
}

bool ExecuteLaneMarginCmd::read_max_lanes(unsigned int& value, std::string& err) const {
    return _read_report(kReportMaxLanes, value, "Read max lanes failed. ", err);
}

bool ExecuteLaneMarginCmd::_management(unsigned int payload, const char* failure,
                                       std::string (*mismatch)(unsigned int echo), std::string& err) const {
    MarginLaneData response;
    if (!send_cmd_and_read_response(MGMT_OPR, payload, response, err)) {
        err = failure + err;
        return false;
    }
    if (response._margin_payload != payload) {
        err = mismatch(response._margin_payload);
        return false;
    }
    return send_no_command(err);
}

bool ExecuteLaneMarginCmd::go_to_normal_settings(std::string& err) const {
    return _management(
        kGoToNormalSettings, "Failed go to Normal settings. ",
        [](unsigned int) -> std::string { return "Failed go to Normal settings as the payload did not match."; }, err);
}

bool ExecuteLaneMarginCmd::clear_error_log(std::string& err) const {
    return _management(
        kClearErrorLog, "Failed clear error. ",
        [](unsigned int) -> std::string { return "Failed clear error log as the payload did not match."; }, err);
}

bool ExecuteLaneMarginCmd::set_error_threshold(unsigned int count, std::string& err) const {
    if (count > kMaxErrorThreshold) {
        err = "Error threshold count is above max";
        return false;
    }
    // The "0x" before a decimal count is what readers of old logs know.
    return _management(
        kSetErrorThreshold | count, "Failed to set error threshold. ",
        [](unsigned int echo) -> std::string {
            return "Failed to set error threshold. Registered error count is: 0x" + std::to_string(echo & 0x3F);
        },
        err);
}

bool ExecuteLaneMarginCmd::send_time_margin_left_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                                     std::string& err) const {
    return send_margin_cmd(TIMING, static_cast<unsigned int>(steps), TIME_LEFT, status, errors, err);
}

bool ExecuteLaneMarginCmd::send_time_margin_right_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                                      std::string& err) const {
    return send_margin_cmd(TIMING, static_cast<unsigned int>(steps), TIME_RIGHT, status, errors, err);
}

bool ExecuteLaneMarginCmd::send_time_margin_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                                std::string& err) const {
    return send_margin_cmd(TIMING, static_cast<unsigned int>(steps), NO_DIRECTION, status, errors, err);
}

bool ExecuteLaneMarginCmd::send_volt_margin_up_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                                   std::string& err) const {
    return send_margin_cmd(VOLTAGE, static_cast<unsigned int>(steps), VOLT_UP, status, errors, err);
}

bool ExecuteLaneMarginCmd::send_volt_margin_down_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                                     std::string& err) const {
    return send_margin_cmd(VOLTAGE, static_cast<unsigned int>(steps), VOLT_DOWN, status, errors, err);
}

bool ExecuteLaneMarginCmd::send_volt_margin_cmd(int steps, MarginExecutionStatus& status, unsigned int& errors,
                                                std::string& err) const {
    return send_margin_cmd(VOLTAGE, static_cast<unsigned int>(steps), NO_DIRECTION, status, errors, err);
}

bool ExecuteLaneMarginCmd::send_margin_cmd(TimeOrVoltMargin kind, unsigned int steps, unsigned int direction,
                                           MarginExecutionStatus& status, unsigned int& errors,
                                           std::string& err) const {
    if (direction > NO_DIRECTION) return false;
    if (steps > (kind == VOLTAGE ? kMaxVoltageSteps : kMaxTimingSteps)) return false;
    const unsigned int payload = kDirectionFlags[direction] | steps;
    MarginLaneData response;
    if (!send_cmd_and_read_response(kind == VOLTAGE ? STEP_VOLT : STEP_TIMING, payload, response, err)) {
        err = std::string("Step margin command failed for ") + (kind == VOLTAGE ? "Voltage. " : "Timing. ") + err;
        return false;
    }
    errors = response._margin_payload & 0x3F;
    status = static_cast<MarginExecutionStatus>((response._margin_payload >> 6) & 0x3);
    return true;
}

bool ExecuteLaneMarginCmd::read_margin_response(MarginExecutionStatus& status, unsigned int& errors,
                                                std::string&) const {
    MarginLaneData response;
    read_cmd_response(response);
    errors = response._margin_payload & 0x3F;
    status = static_cast<MarginExecutionStatus>((response._margin_payload >> 6) & 0x3);
    return true;
}

void ExecuteLaneMarginCmd::print_margin_lane_data(const MarginLaneData& data, const std::string& title) const {
    print_console_lines({" Margin Lane Data(" + title + ")",
                         "   _margin_type: 0x" + hex(data._margin_type) + " (" +
                             to_string(static_cast<MarginCmds>(data._margin_type)) + ")",
                         "   _margin_payload: 0x" + hex(data._margin_payload),
                         "   _receiver_no: 0x" + hex(data._receiver_no), "   _um: 0x" + hex(data._um)});
}

}  // namespace PCIE
