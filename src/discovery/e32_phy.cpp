#include "discovery/e32_phy.h"

#include <iostream>
#include <stdexcept>
#include <utility>

#include "hardware/chips/e32_phy_firmware.h"
#include "hardware/chips/server_registers.h"
#include "hardware/crn_factory.h"
#include "hardware/os_specific.h"

namespace e32 = chips::e32;

namespace {

constexpr unsigned int kGrant = 1u << e32::kOverrideGrantBit, kRequest = 1u << e32::kOverrideRequestBit,
                       kBusy = 1u << e32::kBusyBit;
constexpr unsigned int kShortWaitRounds = 20;
// The PHY's own channel finishes within this many 1 ms polls.
constexpr unsigned int kPhyStatusRounds = 100;

}  // namespace

unsigned int convert_int_to_unsigned_int(int value) { return static_cast<unsigned int>(value) & 0xFF; }

int convert_unsigned_int_to_int(unsigned int value, unsigned int size) {
    switch (size) {
    case 1: return value >= 0x80 ? static_cast<int>(value) - 0x100 : static_cast<int>(value);
    case 2: return value >= 0x8000 ? static_cast<int>(value) - 0x10000 : static_cast<int>(value);
    default: return static_cast<int>(value);
    }
}

CorvaneE32PCSCommands::CorvaneE32PCSCommands(std::string link, unsigned int lane, std::shared_ptr<RegisterStorage> store,
                                             TypeOfAccess access)
    : _link(std::move(link)), _lane(lane), _store(std::move(store)), _access(access) {}

std::shared_ptr<Register> CorvaneE32PCSCommands::_readback() const {
    return _store->get_lane_register("UPI2_DECODE_32_LANE_InjectionReadback", _link, static_cast<int>(_lane));
}

bool CorvaneE32PCSCommands::do_rx_margin(int phase, int voltage, unsigned int field_a, unsigned int field_b, bool wait,
                                         std::string& error_text) {
    const unsigned int parameter = convert_int_to_unsigned_int(phase) | convert_int_to_unsigned_int(voltage) << 8 |
                                   (field_a & 0xF) << 16 | (field_b & 1) << 20;
    return send_cmd(e32::kCmdRxMargin, parameter, wait, error_text) == 1;
}

bool CorvaneE32PCSCommands::do_rx_cdr(unsigned int mode, bool wait, std::string& error_text) {
    return send_cmd(e32::kCmdCdr, mode & 7, wait, error_text) == 1;
}

bool CorvaneE32PCSCommands::do_txrx_cap(unsigned int index, std::string& error_text) {
    return send_cmd(e32::kCmdTxRxCap, index & 255, true, error_text) == 1;
}

namespace {

bool fits(int value, int low, int high, const char* what, std::string& error_text) {
    if (value >= low && value <= high) return true;
    error_text = std::string("Eye scan ") + what + " " + std::to_string(value) + " is outside " + std::to_string(low) +
                 ".." + std::to_string(high);
    return false;
}

}  // namespace

bool CorvaneE32PCSCommands::do_debug_config(unsigned int a, unsigned int b, unsigned int c, unsigned int d,
                                            unsigned int e, std::string& error_text) {
    for (unsigned int field : {a, b, c, d, e})
        if (!fits(static_cast<int>(field), 0, 15, "debug field", error_text)) return false;
    return send_cmd(e32::kCmdDebugConfig, e32::debug_config_parameter(a, b, c, d, e), true, error_text) == 1;
}

bool CorvaneE32PCSCommands::do_rx_eye_phase(int start, int end, int step, std::string& error_text) {
    if (!fits(start, -128, 127, "phase start", error_text) || !fits(end, -128, 127, "phase end", error_text) ||
        !fits(step, 1, 255, "phase step", error_text))
        return false;
    return send_cmd(e32::kCmdRxEyePhase, e32::eye_phase_parameter(start, end, static_cast<unsigned>(step)), true,
                    error_text) == 1;
}

bool CorvaneE32PCSCommands::do_rx_eye_voltage_v1(int start, int end, int step, std::string& error_text) {
    for (int value : {start, end, step})
        if (value % 2 != 0) {
            error_text = "Eye scan voltage " + std::to_string(value) + " is odd: this firmware takes 1 mV steps";
            return false;
        }
    if (!fits(start / 2, -128, 127, "voltage start (mV)", error_text) ||
        !fits(end / 2, -128, 127, "voltage end (mV)", error_text) ||
        !fits(step / 2, 1, 63, "voltage step (mV)", error_text))
        return false;
    return send_cmd(e32::kCmdRxEyeVoltage, e32::eye_voltage_v1_parameter(start / 2, end / 2, step / 2), true,
                    error_text) == 1;
}

bool CorvaneE32PCSCommands::do_rx_eye_voltage_v2(int start, int end, int step, bool wait, std::string& error_text) {
    if (!fits(start, -32768, 32767, "voltage start", error_text) || !fits(end, -32768, 32767, "voltage end", error_text) ||
        !fits(step, 1, 32767, "voltage step", error_text))
        return false;
    for (auto [field, value] : {std::pair{e32::kEyeVoltageStart, start}, std::pair{e32::kEyeVoltageEnd, end},
                                std::pair{e32::kEyeVoltageStep, step}})
        if (send_cmd(e32::kCmdRxEyeVoltage, e32::eye_voltage_v2_parameter(field, value), wait, error_text) != 1)
            return false;
    return true;
}

bool CorvaneE32PCSCommands::do_ext_config0(unsigned int a, unsigned int b, unsigned int c, std::string& error_text) {
    if (!fits(static_cast<int>(a), 0, 15, "tap", error_text) || !fits(static_cast<int>(b), 0, 15, "tap", error_text) ||
        !fits(static_cast<int>(c), 0, 255, "tap field", error_text))
        return false;
    return send_cmd(e32::kCmdExtConfig, e32::ext_config0_parameter(a, b, c), true, error_text) == 1;
}

bool CorvaneE32PCSCommands::do_ext_config1(unsigned int value, unsigned int flag, std::string& error_text) {
    if (!fits(static_cast<int>(value), 0, 511, "tap mode word", error_text) ||
        !fits(static_cast<int>(flag), 0, 1, "tap mode flag", error_text))
        return false;
    return send_cmd(e32::kCmdExtConfig, e32::ext_config1_parameter(value, flag), true, error_text) == 1;
}

bool CorvaneE32PCSCommands::do_rx_eye_scan(unsigned int nbits, std::string& error_text) {
    return send_cmd(e32::kCmdRxEyeScan, nbits & 0xFF, false, error_text) == 1;
}

unsigned int CorvaneE32PCSCommands::read_response() {
    wait_for_injection_progress_to_complete(true);
    return _readback()->read() & 0xFF;
}

void CorvaneE32PCSCommands::setup_bmask() {
    const int quad = static_cast<int>(_lane >> 2);
    const char* names[] = {"CMN_BMASK6", "CMN_BMASKA", "CMN_BMASKC", "CMN_BMASKE"};
    unsigned int mask = 1;
    for (const char* name : names) {
        _store->get_chiplet_register(name, _link, quad)->write(mask);
        mask <<= 1;
    }
}

bool CorvaneE32PCSCommands::enable_override() {
    const auto reg = _readback();
    reg->write(reg->read() | kRequest);
    return wait_for_overridde_grant();
}

void CorvaneE32PCSCommands::disable_override() {
    const auto reg = _readback();
    const unsigned int value = reg->read();
    // Clears bit 12 through the second byte, bit 4 of mask 239.
    reg->write((value & 0xFFFF00FFu) | (((value >> 8) & 239u) << 8));
}

bool CorvaneE32PCSCommands::enable_override_phy() {
    const auto reg = _store->get_lane_register("CMD_OVRD", _link, static_cast<int>(_lane));
    reg->write(reg->read() | kRequest);
    for (unsigned int round = 0; round < kShortWaitRounds; ++round) {
        if (reg->read() & kGrant) return true;
        OSSpecific().milli_secs_sleep(1);
    }
    return false;
}

bool CorvaneE32PCSCommands::wait_for_overridde_grant() {
    const auto reg = _readback();
    const unsigned int limit = 99;
    unsigned int count = limit;  // tested each round, never changed: the grant is waited for
    while (count <= limit) {
        if (reg->read() & kGrant) return true;
        if (_abandoned && _abandoned()) return false;
        OSSpecific().milli_secs_sleep(1);
    }
    return false;
}

unsigned int CorvaneE32PCSCommands::wait_for_injection_progress_to_complete(bool wait) {
    const auto reg = _readback();
    while (true) {
        OSSpecific().milli_secs_sleep(1);
        const unsigned int value = reg->read();
        if (!(value & kBusy)) return value;
        if (!wait) return 0;
        if (_abandoned && _abandoned()) return value;
    }
}

unsigned int CorvaneE32PCSCommands::send_cmd(unsigned int code, unsigned int parameter, bool wait,
                                             std::string& error_text) {
    if (_access == PHY_ACCESS) return send_cmd_phy(code, parameter, wait, error_text);
    wait_for_injection_progress_to_complete(true);
    _store->get_lane_register("UPI2_DECODE_32_LANE_InjectionParamCode", _link, static_cast<int>(_lane))
        ->write((code & 255) | (parameter << 8));
    if (wait) wait_for_injection_progress_to_complete(true);
    return 1;
}

unsigned int CorvaneE32PCSCommands::send_cmd_phy(unsigned int code, unsigned int parameter, bool wait,
                                                 std::string& error_text) {
    const int lane = static_cast<int>(_lane);
    _store->get_lane_register("CMD_PARM0", _link, lane)->write(parameter);
    _store->get_lane_register("CMD_PARM1", _link, lane)->write(code & 0xFF);
    const auto ovrd = _store->get_lane_register("CMD_OVRD", _link, lane);
    ovrd->write(ovrd->read() | 1u << e32::kPhyRunBit);
    if (!wait) return 1;
    const auto status = _store->get_lane_register("CMD_STATUS", _link, lane);
    for (unsigned int round = 0; round < kPhyStatusRounds; ++round) {
        if (!(status->read() & 1u << e32::kPhyBusyBit)) return 1;
        OSSpecific().milli_secs_sleep(1);
    }
    error_text = "PHY command " + std::to_string(code) + " did not end on lane " + std::to_string(_lane);
    return 0;
}

bool CorvaneE32PCSCommands::check_if_override_is_working() {
    const auto reg = _readback();
    reg->write(reg->read() | kRequest);
    bool granted = false;
    for (unsigned int round = 0; round < kShortWaitRounds && !granted; ++round) {
        granted = reg->read() & kGrant;
        if (!granted) OSSpecific().milli_secs_sleep(1);
    }
    bool idle = false;
    for (unsigned int round = 0; granted && round < kShortWaitRounds && !idle; ++round) {
        idle = !(reg->read() & kBusy);
        if (!idle) OSSpecific().milli_secs_sleep(1);
    }
    disable_override();
    return granted && idle;
}

CorvaneCheckControllerType::CorvaneCheckControllerType(std::string link, unsigned int lane,
                                                       std::shared_ptr<RegisterStorage> store,
                                                       std::shared_ptr<LaneGenericInformation> lanes)
    : _link(std::move(link)), _lane(lane), _store(std::move(store)), _lanes(std::move(lanes)) {}

LaneProtocol CorvaneCheckControllerType::operator()() const {
    const unsigned int protocol = _lanes->which_protocol(_link);
    if (protocol != chips::kProtocolNone && protocol != chips::kProtocolHVL && protocol != chips::kProtocolPCIe &&
        protocol != chips::kProtocolTEXL)
        return protocol == chips::kProtocolSATA ? SATA : UNKNOWN;
    const unsigned int value =
        _store->get_lane_register(chips::server_io::kLaneControllerRegister, _link, static_cast<int>(_lane))->read();
    if (!(value & 1)) return NOT_ACTIVE;
    switch ((value >> 1) & 7) {
    case 1: return PCIe;
    case 0: return hVL_TEXL;
    case 2: return SATA;
    default: return UNKNOWN;
    }
}

std::string CorvaneCheckControllerType::protocol_as_string(LaneProtocol protocol) {
    switch (protocol) {
    case PCIe: return "PCIe";
    case hVL_TEXL: return "hVL_TEXL";
    case SATA: return "SATA";
    case NOT_ACTIVE: return "Not Active";
    case UNKNOWN: return "UNKNOWN";
    default: return "";
    }
}

CorvaneVersionCheck::CorvaneVersionCheck(std::string link, VEX_DIE_INFO die,
                                         std::shared_ptr<CorvaneE32PCSCommands> commands)
    : _link(std::move(link)), _die(std::move(die)), _commands(std::move(commands)) {}

unsigned int CorvaneVersionCheck::operator()() {
    if (!_commands->check_if_override_is_working()) {
        std::cerr << "Error: CorvaneVersionCheck::operator(). Override not working." << std::endl;
        throw std::runtime_error("Error: CorvaneVersionCheck::operator(). Override not working.");
    }
    std::string error;
    _commands->do_txrx_cap(e32::kCapVersion, error);
    const unsigned int version = _commands->read_response();
    if (version >= 1 && version <= 3) return version;
    std::cerr << "Error: CorvaneVersionCheck::operator(). Unknown version number." << std::endl;
    throw std::runtime_error("Error: CorvaneVersionCheck::operator(). Unknown version number");
}

std::string CorvaneVersionCheck::full_version() {
    const auto lanes = get_lane_generic_info(_die);
    const unsigned int base = e32::firmware_base(lanes->get_base_address(_link, 0));
    PhyAccessor phy(CRNFactory::instance()->get_crn_accessor(_die));
    const unsigned int first = phy.read(base, 0, 4), second = phy.read(base, 4, 4);
    return std::to_string((first >> 24) & 207) + "." + std::to_string((second >> 8) & 207) + "." +
           std::to_string((second >> 16) & 207);
}

bool CorvaneE32LANEDATA::active_cache_valid() const {
    return active_cache <= 3 && active_cache < clock_train.size() && clock_train[active_cache].valid != 0;
}

GetCorvaneE32LaneData::GetCorvaneE32LaneData(std::string link, unsigned int lane, std::shared_ptr<PhyAccessor> phy,
                                             std::shared_ptr<LaneGenericInformation> lanes)
    : _link(std::move(link)), _lane(lane), _phy(std::move(phy)), _lanes(std::move(lanes)) {}

CorvaneE32LANEDATA GetCorvaneE32LaneData::operator()(unsigned int version, const std::string& full_version) {
    unsigned int number = 0;
    const auto dot = full_version.find('.');
    try {
        if (dot != std::string::npos && dot + 1 < full_version.size())
            number = static_cast<unsigned int>(std::stoul(full_version.substr(0, dot))) * 10 +
                     static_cast<unsigned int>(full_version[dot + 1] - '0');
    } catch (const std::exception&) {
        number = 0;
    }
    CorvaneE32LANEDATA data;
    if (number > 16 || version == 3) data.layout = 3;
    else if (version == 1 || version == 2) data.layout = version;
    else {
        std::cerr << "Error: Unable to get lane data for E32 phy." << std::endl;
        throw std::runtime_error("Error: Unable to get lane data for E32 phy.");
    }
    const unsigned int base = e32::record_address(get_lane_base_address(*_lanes, _link, _lane), data.layout, _lane);
    data.bytes.resize(e32::kRecordBytes);
    for (unsigned int i = 0; i < e32::kRecordBytes; ++i) data.bytes[i] = static_cast<uint8_t>(_phy->read(0, base + i, 1));
    const auto& b = data.bytes;
    auto u16 = [&](unsigned int at) { return static_cast<unsigned int>(b[at] | b[at + 1] << 8); };
    data.active_cache = b[e32::kActiveCacheByte];
    for (unsigned int cache = 0; cache < e32::kCaches; ++cache) {
        const unsigned int at = e32::kRxAdaptFirst + cache * e32::kRxAdaptStride;
        auto& adapt = data.rxadapt[cache];
        adapt.ctleidx = b[at];
        adapt.vga = b[at + 1];
        adapt.iq = convert_unsigned_int_to_int(b[at + 2], 1);
        for (unsigned int tap = 0; tap < e32::kRxAdaptTaps; ++tap)
            adapt.taps[tap] = {convert_unsigned_int_to_int(u16(at + 4 + 4 * tap), 2),
                               convert_unsigned_int_to_int(u16(at + 6 + 4 * tap), 2)};
        data.clock_train[cache].valid =
            b[e32::kClockTrainFirst + e32::clock_train_stride(data.layout) * cache + e32::kClockTrainValidByte];
    }
    auto& eye = data.eye;
    for (unsigned int tap = 0; tap < e32::kEyeTaps; ++tap) {
        eye.es_dfetaps[tap] = convert_unsigned_int_to_int(b[e32::kEsDfeTapsByte + tap], 1);
        eye.dacs[tap] = u16(e32::kDacsByte + 2 * tap);
        eye.offset_dacs[tap] = convert_unsigned_int_to_int(u16(e32::kOffsetDacsByte + 2 * tap), 2);
    }
    eye.pi = u16(e32::kPiByte);
    eye.att = b[e32::kAttByte];
    eye.zero = b[e32::kZeroByte];
    eye.ind = b[e32::kIndByte];
    eye.dc = b[e32::kDcByte];
    for (unsigned int i = 0; i < e32::kRsvdBytes; ++i) eye.rsvd[i] = b[e32::kRsvdFirst + i];
    eye.eyeh = u16(e32::kEyeHeightByte);
    eye.h1est = convert_unsigned_int_to_int(u16(e32::kH1EstByte), 2);
    eye.fom = u16(e32::kFomByte);
    eye.offset_afe = convert_unsigned_int_to_int(u16(e32::kOffsetAfeByte), 2);
    data.ring_offset = u16(e32::kRingOffsetByte);
    data.tap_mode = data.layout == 1 ? 255 : b[e32::kTapModeByte];
    return data;
}
