// What the E32 PHY firmware offers on the register network, shared by the
// product's readers and the platform model.
//
// Injection channel (per lane, in the link PCS: "UPI2_DECODE_32_LANE_*"):
//   InjectionParamCode   write (code & 0xFF) | (parameter << 8) to run a command
//   InjectionReadback    bit 12 override request (R/W), bit 13 override granted,
//                        bit 10 command busy, bits 7:0 the last command's answer
// PHY's own channel (per lane, "CMD_*"): the parameter goes to CMD_PARM0, the
// command code to CMD_PARM1 bits 7:0; writing CMD_OVRD with bit 0 set runs it
// (bit 12 of CMD_OVRD is the PHY-side override request, bit 13 its grant);
// CMD_STATUS bit 0 is set while the command runs.
//
// Firmware version words at the 128 KiB-aligned start of a link's first PHY
// block: word 0 bits 31:24 the major number, word 1 bits 15:8 the minor and
// bits 23:16 the patch number, each of them masked with 0xCF by readers.
//
// Lane training record: 768 bytes in the PHY's memory, at the lane's PHY
// block base (low 16 bits cleared) - 0x10000 + the layout's offset for
// lane & 3. Multi-byte fields are little-endian.
#pragma once

#include <cstdint>

namespace chips::e32 {

constexpr unsigned int kOverrideRequestBit = 12, kOverrideGrantBit = 13, kBusyBit = 10;
constexpr unsigned int kPhyRunBit = 0, kPhyBusyBit = 0;

enum Command : unsigned int {
    kCmdCdr = 5,
    kCmdRxMargin = 9,
    kCmdTxRxCap = 14,
    // Eye sampler: configuration, window, tap selection and the scan itself.
    kCmdDebugConfig = 209,
    kCmdExtConfig = 210,
    kCmdRxEyeVoltage = 221,
    kCmdRxEyePhase = 222,
    kCmdRxEyeScan = 223,
};
// Capability indexes of command 14; the unit of the two maximum offsets is a
// hundredth of a UI and of a volt.
enum Capability : unsigned int {
    kCapRevision = 0,
    kCapTimingSteps = 1,
    kCapMaxTimingOffset = 2,
    kCapVoltSteps = 3,
    kCapMaxVoltOffset = 4,
    kCapVersion = 64,  // record layout version: 1, 2 or 3
    // The receiver's applied margin offsets (two's-complement bytes) and how
    // many CDR commands it took, for checks after a margin.
    kCapPhaseOffset = 65,
    kCapVoltageOffset = 66,
    kCapCdrCount = 67,
    kCapEyeScanCount = 68,  // scan commands (223) taken since the model started, low byte
};

// Eye sampler command parameters (24 bits, bits 31:8 of InjectionParamCode).
// Phase in 1/64 UI; voltage in 0.5 mV (the older form: 1 mV).
constexpr unsigned int debug_config_parameter(unsigned a, unsigned b, unsigned c, unsigned d, unsigned e) {
    return (a & 0xF) | (b & 0xF) << 4 | (c & 0xF) << 8 | (d & 0xF) << 12 | (e & 0xF) << 16;
}
constexpr unsigned int eye_phase_parameter(int start, int end, unsigned step) {
    return (static_cast<unsigned>(start) & 0xFF) | (static_cast<unsigned>(end) & 0xFF) << 8 | (step & 0xFF) << 16;
}
// The older firmware's voltage window: three signed bytes in 1 mV (bits 23:22 zero).
constexpr unsigned int eye_voltage_v1_parameter(int start_mv, int end_mv, int step_mv) {
    return (static_cast<unsigned>(start_mv) & 0xFF) | (static_cast<unsigned>(end_mv) & 0xFF) << 8 |
           (static_cast<unsigned>(step_mv) & 0x3F) << 16;
}
// The newer form sets one field per command: bits 23:22 name it, bits 15:0
// hold the signed value in 0.5 mV.
enum EyeVoltageField : unsigned int { kEyeVoltageStart = 1, kEyeVoltageEnd = 2, kEyeVoltageStep = 3 };
constexpr unsigned int eye_voltage_v2_parameter(EyeVoltageField field, int value) {
    return static_cast<unsigned>(field) << 22 | (static_cast<unsigned>(value) & 0xFFFF);
}
// Bit 23 clear: select tap a for the next scan; set: the tap mode word.
constexpr unsigned int ext_config0_parameter(unsigned a, unsigned b, unsigned c) {
    return (a & 0xF) | (b & 0xF) << 4 | (c & 0xFF) << 8;
}
constexpr unsigned int ext_config1_parameter(unsigned value, unsigned flag) {
    return 1u << 23 | (value & 0x1FF) | (flag & 1) << 9;
}
// Tap mode words of ext config 1 and the taps each mode reads.
constexpr unsigned int kTapModeWord0 = 511, kTapModeWord2 = 487, kTapModeWord3 = 483;
constexpr unsigned int kEyeTaps = 8;
constexpr unsigned int kMinScanBits = 10, kMaxScanBits = 23;
// Largest number of values on one axis of a scan window.
constexpr unsigned int kMaxEyeAxisValues = 50;

// Eye-scan ring of a lane, in PHY memory at lane PHY base + ring offset
// (record bytes 498/499) - 0x10000: config words, then the data bytes. The
// reader acknowledges by writing its position to word 4 between a strobe of
// 1 and 0 (16 bits) at PHY base + kRingAckStrobe.
constexpr unsigned int kRingHead = 0, kRingLength = 4, kRingOverrun = 8, kRingLost = 12, kRingAck = 16;
constexpr unsigned int kRingData = 32, kRingBytes = 8192;
constexpr unsigned int kRingAckStrobe = 32886;
// Ring offsets the firmware gives lane & 3: below the training records
// (0xAAE0 and up) and above the version words, one ring apart.
constexpr unsigned int kRingOffsets[4] = {0x0100, 0x2200, 0x4300, 0x6400};
// Each point of a scan takes the sampler's move plus 2^nbits bits at the lane's rate.
constexpr double kEyePointMoveNs = 2000;

constexpr unsigned int kRecordBytes = 768;
constexpr unsigned int kRecordOffsetsV12[4] = {0xACC0, 0xAFC0, 0xB2C0, 0xB5C0};
constexpr unsigned int kRecordOffsetsV3[4] = {0xAAE0, 0xADE0, 0xB0E0, 0xB3E0};
constexpr unsigned int kActiveCacheByte = 24;
constexpr unsigned int kCaches = 3;
// One receiver adaptation entry per cache: ctleidx, vga (bytes), iq (signed
// byte), a spare byte, then the four taps H0..H3, each a pair of signed
// 16-bit values whose half-difference is the tap.
constexpr unsigned int kRxAdaptFirst = 28, kRxAdaptStride = 20, kRxAdaptTaps = 4;
constexpr unsigned int kClockTrainFirst = 376, kClockTrainValidByte = 29;
// Eye parameters: from the end of layout 1's clock-train entries to the end
// of the record, the same in every layout. Besides the ring offset and the
// tap mode the collector needs, the firmware keeps there what its eye
// sampler last applied: one DFE byte per sampler tap (signed), the phase
// interpolator code (16 bits), the front end's att, zero, ind and dc codes
// (bytes), five reserved bytes, its eye height estimate in 0.5 mV and the
// H1 estimate (signed), both 16 bits, a figure of merit (16 bits), the
// front end's offset (signed 16 bits), and eight sampler DAC codes and
// their offsets (16 bits each, the offsets signed). The bytes not named
// here are reserved.
constexpr unsigned int kEyeParamsFirst = 488;
constexpr unsigned int kEsDfeTapsByte = 488;  // kEyeTaps signed bytes
constexpr unsigned int kPiByte = 496;
constexpr unsigned int kRingOffsetByte = 498;  // two bytes
constexpr unsigned int kAttByte = 500, kZeroByte = 501, kIndByte = 502, kDcByte = 503;
constexpr unsigned int kRsvdFirst = 504, kRsvdBytes = 5;
constexpr unsigned int kEyeHeightByte = 510, kH1EstByte = 512, kFomByte = 514, kOffsetAfeByte = 516;
constexpr unsigned int kTapModeByte = 522;     // layouts 2 and 3
constexpr unsigned int kDacsByte = 524, kOffsetDacsByte = 540;  // kEyeTaps 16-bit values each
static_assert(kOffsetDacsByte + 2 * kEyeTaps <= kRecordBytes);
// Clock-train entries are 37 bytes apart in layout 1 and 36 in the others.
constexpr unsigned int clock_train_stride(unsigned int layout) { return layout == 1 ? 37 : 36; }
constexpr unsigned int record_offset(unsigned int layout, unsigned int lane) {
    return layout == 3 ? kRecordOffsetsV3[lane & 3] : kRecordOffsetsV12[lane & 3];
}
// Address of the record of a lane whose PHY block starts at phy_base.
constexpr unsigned int record_address(unsigned int phy_base, unsigned int layout, unsigned int lane) {
    return (phy_base & ~0xFFFFu) + record_offset(layout, lane) - 0x10000u;
}
constexpr unsigned int firmware_base(unsigned int first_phy_base) { return first_phy_base & ~0x1FFFFu; }

// Rings lie between the version words (first 8 bytes of a 128 KiB block) and
// the first training record of any layout, apart from each other.
static_assert(kRingOffsets[0] >= 8);
static_assert(kRingOffsets[3] + kRingData + kRingBytes <= kRecordOffsetsV3[0] &&
              kRecordOffsetsV3[0] <= kRecordOffsetsV12[0]);
static_assert(kRingOffsets[0] + kRingData + kRingBytes <= kRingOffsets[1] &&
              kRingOffsets[1] + kRingData + kRingBytes <= kRingOffsets[2] &&
              kRingOffsets[2] + kRingData + kRingBytes <= kRingOffsets[3]);

}  // namespace chips::e32
