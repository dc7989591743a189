// The E32 PHY firmware of a lane as the product reaches it: the injection
// command channel through the link PCS (or the PHY's own command registers),
// the override that lets commands through, the firmware's version and the
// lane training record. Register packing: hardware/chips/e32_phy_firmware.h.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "discovery/lane_generic_information.h"
#include "hardware/phy_accessor.h"
#include "hardware/register_storage.h"
#include "hardware/vex_die_info.h"

// Raised by a wait that was told to give up (test cancelled, service
// stopping): the caller restores what it touched and ends with the reason.
using WaitAbandoned = std::function<bool()>;

class CorvaneE32PCSCommands {
public:
    enum TypeOfAccess : unsigned int { PCS_ACCESS = 0, PHY_ACCESS = 1 };

    CorvaneE32PCSCommands(std::string link, unsigned int lane, std::shared_ptr<RegisterStorage> store,
                          TypeOfAccess access = PCS_ACCESS);

    bool do_rx_margin(int phase, int voltage, unsigned int field_a, unsigned int field_b, bool wait,
                      std::string& error_text);
    bool do_rx_cdr(unsigned int mode, bool wait, std::string& error_text);
    bool do_txrx_cap(unsigned int index, std::string& error_text);
    // Eye sampler commands. Windows are in PHY units: phase 1/64 UI, voltage
    // 0.5 mV. A value the command's field cannot hold is refused with a text
    // and nothing is sent (never truncated).
    bool do_debug_config(unsigned int a, unsigned int b, unsigned int c, unsigned int d, unsigned int e,
                         std::string& error_text);
    bool do_rx_eye_phase(int start, int end, int step, std::string& error_text);
    // The older firmware takes 1 mV fields: the values are halved, so they must be even.
    bool do_rx_eye_voltage_v1(int start, int end, int step, std::string& error_text);
    bool do_rx_eye_voltage_v2(int start, int end, int step, bool wait, std::string& error_text);
    bool do_ext_config0(unsigned int a, unsigned int b, unsigned int c, std::string& error_text);
    bool do_ext_config1(unsigned int value, unsigned int flag, std::string& error_text);
    // Starts a sampling run of the selected tap; busy until its last point.
    // nbits goes as given: the firmware refuses anything outside 10..23.
    bool do_rx_eye_scan(unsigned int nbits, std::string& error_text);
    unsigned int read_response();
    void setup_bmask();
    // Requests the override and waits for the grant. The wait has no time
    // bound of its own (the firmware answers when it can), but ends when
    // `abandoned` says so; then false.
    bool enable_override();
    void disable_override();
    bool enable_override_phy();
    bool wait_for_overridde_grant();
    unsigned int wait_for_injection_progress_to_complete(bool wait);
    unsigned int send_cmd(unsigned int code, unsigned int parameter, bool wait, std::string& error_text);
    unsigned int send_cmd_phy(unsigned int code, unsigned int parameter, bool wait, std::string& error_text);
    // Requests the override, waits up to 20 ms each for the grant and for an
    // idle channel, and releases it.
    bool check_if_override_is_working();

    void set_abandon_check(WaitAbandoned abandoned) { _abandoned = std::move(abandoned); }
    // Whether the wait's owner asked to give up (never, without a check).
    bool abandoned() const { return _abandoned && _abandoned(); }
    const std::string& link() const { return _link; }
    unsigned int lane() const { return _lane; }

private:
    std::shared_ptr<Register> _readback() const;

    std::string _link;
    unsigned int _lane;
    std::shared_ptr<RegisterStorage> _store;
    TypeOfAccess _access;
    WaitAbandoned _abandoned;
};

// Two's-complement byte of a small signed value.
unsigned int convert_int_to_unsigned_int(int value);
// A value above 0x80, 0x8000 or 0x80000000 (size 1, 2, 4) becomes negative.
int convert_unsigned_int_to_int(unsigned int value, unsigned int size);

enum LaneProtocol : unsigned int { PCIe = 0, hVL_TEXL = 1, SATA = 2, NOT_ACTIVE = 5, UNKNOWN = 6 };

class CorvaneCheckControllerType {
public:
    CorvaneCheckControllerType(std::string link, unsigned int lane, std::shared_ptr<RegisterStorage> store,
                               std::shared_ptr<LaneGenericInformation> lanes);
    LaneProtocol operator()() const;
    static std::string protocol_as_string(LaneProtocol protocol);

private:
    std::string _link;
    unsigned int _lane;
    std::shared_ptr<RegisterStorage> _store;
    std::shared_ptr<LaneGenericInformation> _lanes;
};

class CorvaneVersionCheck {
public:
    CorvaneVersionCheck(std::string link, VEX_DIE_INFO die, std::shared_ptr<CorvaneE32PCSCommands> commands);
    // 1, 2 or 3; throws "Error: CorvaneVersionCheck::operator(). Override not
    // working." or "... Unknown version number" otherwise.
    unsigned int operator()();
    // "<major>.<minor>.<patch>" from the firmware's version words.
    std::string full_version();

private:
    std::string _link;
    VEX_DIE_INFO _die;
    std::shared_ptr<CorvaneE32PCSCommands> _commands;
};

// One lane's training record, decoded.
struct CorvaneE32LANEDATA {
    struct RxAdapt {
        unsigned int ctleidx = 0, vga = 0;
        int iq = 0;
        std::array<std::pair<int, int>, 4> taps{};  // H0..H3: (first, second)
    };
    struct ClockTrain {
        unsigned int valid = 0;
    };
    unsigned int layout = 0;
    std::vector<uint8_t> bytes;  // the 768 bytes as read
    unsigned int active_cache = 0;
    std::array<RxAdapt, 3> rxadapt{};
    std::array<ClockTrain, 3> clock_train{};
    // What the eye sampler last applied (see e32_phy_firmware.h).
    struct EyeParams {
        std::array<int, 8> es_dfetaps{};
        unsigned int pi = 0, att = 0, zero = 0, ind = 0, dc = 0;
        std::array<unsigned int, 5> rsvd{};
        unsigned int eyeh = 0, fom = 0;
        int h1est = 0, offset_afe = 0;
        std::array<unsigned int, 8> dacs{};
        std::array<int, 8> offset_dacs{};
    };
    EyeParams eye;
    unsigned int ring_offset = 0;
    unsigned int tap_mode = 255;

    // active_cache names a cache (0..2 of the three; 3 is accepted as the
    // firmware allows) whose clock-train entry is valid.
    bool active_cache_valid() const;
};

class GetE32LaneData {
public:
    virtual ~GetE32LaneData() = default;
    virtual CorvaneE32LANEDATA operator()(unsigned int version, const std::string& full_version) = 0;
};

class GetCorvaneE32LaneData : public GetE32LaneData {
public:
    GetCorvaneE32LaneData(std::string link, unsigned int lane, std::shared_ptr<PhyAccessor> phy,
                          std::shared_ptr<LaneGenericInformation> lanes);
    // Layout 3 when the version number a*10+b of full_version is above 16
    // or version is 3, else layout 1 or 2 by version. A version that names
    // no layout throws "Error: Unable to get lane data for E32 phy." (the
    // process is not ended for it).
    CorvaneE32LANEDATA operator()(unsigned int version, const std::string& full_version) override;

private:
    std::string _link;
    unsigned int _lane;
    std::shared_ptr<PhyAccessor> _phy;
    std::shared_ptr<LaneGenericInformation> _lanes;
};
