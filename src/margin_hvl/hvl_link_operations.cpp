#include "margin_hvl/hvl_link_operations.h"

#include <iostream>

#include "discovery/e32_phy.h"
#include "discovery/hvl_links.h"
#include "hardware/chips/lane_layout.h"
#include "hardware/crn_factory.h"
#include "hardware/mcu_message.h"
#include "hardware/resource_lock.h"

namespace {

constexpr unsigned int kL0 = 0x81;
constexpr unsigned int kBerFlagBit = 1u << 6;

}  // namespace

CorvanehVLOperations::CorvanehVLOperations(std::vector<VEX_DIE_INFO> dies, VEX_DIE_INFO die, std::string link,
                                           std::shared_ptr<RegisterStorage> store)
    : _dies(std::move(dies)), _die(std::move(die)), _link(std::move(link)), _store(std::move(store)),
      _lanes(get_lane_generic_info(_die)) {}

bool CorvanehVLOperations::is_texl() const { return _link == "P5" || _link == "TEXLPCS"; }

std::shared_ptr<Register> CorvanehVLOperations::_reg(const char* hvl, const char* texl, unsigned int lane) const {
    if (is_texl()) return _store->get_link_pcs_register(texl, _link, lane);
    return _store->get_link_register(hvl, _link);
}

int CorvanehVLOperations::check_link_state(unsigned int lane) {
    if (CorvaneCheckControllerType(_link, lane, _store, _lanes)() != hVL_TEXL) {
        NamedLockGuard console("ConsoleLock");
        std::cerr << "Error: Neither HVL nor TEXL protocol CorvanehVLOperations::check_link_state." << std::endl;
        return 0;
    }
    const unsigned int state =
        _reg("PCS_HVL3X16_PCS_STATE_HIST1", "PCS_GOPX1_PCS_STATE_HIST1", lane)->read() & 0xFF;
    return state == kL0 ? 1 : 0;
}

unsigned int CorvanehVLOperations::get_error_count(unsigned int lane) {
    return (_reg("PCS_HVL3X16_PCS_ERROR_STATUS1", "PCS_GOPX1_PCS_ERROR_STATUS", lane)->read() >> 24) & 0xFF;
}

unsigned int CorvanehVLOperations::get_ber_exceeded_flag(unsigned int lane) {
    return (_reg("PCS_HVL3X16_PCS_ERROR_STATUS", "PCS_GOPX1_PCS_ERROR_STATUS", lane)->read() >> 6) & 1;
}

void CorvanehVLOperations::init_error_regs(unsigned int& control_out, unsigned int& mask_out, unsigned int lane) {
    const auto control = _reg("PCS_HVL3X16_PCS_ERROR_CONTROL1", "PCS_GOPX1_PCS_ERROR_CONTROL1", lane);
    control_out = control->read();
    control->write(0xFF200000u);
    const auto mask = _reg("PCS_HVL3X16_PCS_ERROR_MASK", "PCS_GOPX1_PCS_ERROR_MASK", lane);
    const unsigned int value = mask->read();
    mask_out = (value & kBerFlagBit) ? 1 : 0;
    mask->write(value | kBerFlagBit);
}

void CorvanehVLOperations::deinit_error_regs(unsigned int control, unsigned int mask, unsigned int lane) {
    _reg("PCS_HVL3X16_PCS_ERROR_CONTROL1", "PCS_GOPX1_PCS_ERROR_CONTROL1", lane)->write(control);
    const auto reg = _reg("PCS_HVL3X16_PCS_ERROR_MASK", "PCS_GOPX1_PCS_ERROR_MASK", lane);
    const unsigned int value = reg->read();
    reg->write(mask == 1 ? value | kBerFlagBit : value & ~kBerFlagBit);
}

void CorvanehVLOperations::clear_errors_recovery_flag(unsigned int lane) {
    const auto control = _reg("PCS_HVL3X16_PCS_ERROR_CONTROL1", "PCS_GOPX1_PCS_ERROR_CONTROL1", lane);
    control->write(((control->read() | 1u << 21) | 0xFF000000u) & ~0x001F0000u);
    const auto status = _reg("PCS_HVL3X16_PCS_ERROR_STATUS", "PCS_GOPX1_PCS_ERROR_STATUS", lane);
    status->write(status->read() | 1u << 17);
    status->write(status->read() | kBerFlagBit);
    const auto second = _reg("PCS_HVL3X16_PCS_ERROR_STATUS1", "PCS_GOPX1_PCS_ERROR_STATUS", lane);
    const unsigned int value = second->read();
    second->write(value | 1u << 23);
    second->write(value & ~(1u << 23));
}

void CorvanehVLOperations::pcs_error_check(std::ostream& out) {
    static const char* const kNames[] = {
        "     DataLossErr: ",        "     TrainingErr: ",         "     FlowCtrlAckErr: ",
        "     RxFifoUnderflowErr: ", "     RxFifoOverflowErr: ",   "     CRCErr:      ",
        "     BERExceededErr: ",     "     TxVcidDataErr: ",       "     ReplayBufParityErr: ",
        "     DataParityErr: ",      "     ReplayFifoOverflowErr: ", "     ReplayFifoUnderflowErr: ",
        "     ElasticFifoOverflowErr: ", "     DeskewErr: ",       "     FlowCtrlCRCErr: ",
        "     DataStartupLimitErr: ", "     FCInitTimeoutErr: ",   "     RecoveryTimeoutErr: ",
        "     ReadySerialTimeoutErr: "};
    const unsigned int status = _store->get_link_register("PCS_HVL3X16_PCS_ERROR_STATUS", _link)->read();
    const unsigned int bits[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 20};
    for (size_t i = 0; i < std::size(kNames); ++i) out << kNames[i] << ((status >> bits[i]) & 1) << "\n";
}

void CorvanehVLOperations::pcs_error_clear() {
    const auto control = _store->get_link_register("PCS_HVL3X16_PCS_ERROR_CONTROL1", _link);
    const unsigned int kept = control->read();
    control->write(kept & ~(1u << 21) & 0x00FFFFFFu);
    const auto status = _store->get_link_register("PCS_HVL3X16_PCS_ERROR_STATUS", _link);
    const auto status1 = _store->get_link_register("PCS_HVL3X16_PCS_ERROR_STATUS1", _link);
    const unsigned int first = status->read() | 0x1FFFFFFFu, second = status1->read() | 1u << 23;
    status->write(first);
    status1->write(second);
    status->write(first & ~0x1FFFFFFFu);
    status1->write(second & ~(1u << 23));
    control->write(kept);
}

std::vector<CorvaneHVLLinkStatus::LinkStatus> CorvaneHVLLinkStatus::operator()() {
    std::vector<LinkStatus> links;
    const auto lanes = get_lane_generic_info(_die);
    const auto store = get_register_store(_die);
    for (const std::string& link : lanes->get_link_names()) {
        if (lanes->which_protocol(link) != chips::kProtocolHVL) continue;
        try {
            if (CorvaneCheckControllerType(link, 0, store, lanes)() != hVL_TEXL) continue;
            LinkStatus status;
            status.link = link;
            status.data_rate = static_cast<int>(get_hvl_data_rate(_die, link, 0));
            const unsigned int count = lanes->get_no_of_lanes(link);
            status.width = count >= 16 ? 2 : count >= 8 ? 1 : 0;
            links.push_back(status);
        } catch (const std::runtime_error&) {
            // A link whose registers can't be read isn't offered.
        }
    }
    return links;
}

namespace {

struct PowerMessage {
    bool test;  // TestMsg, else BIOSSrvReq
    unsigned int message, argument;
};

std::vector<PowerMessage> power_messages(const std::string& die, bool disable) {
    if (die == "Corvane")
        return disable ? std::vector<PowerMessage>{{true, 61, 0}, {false, 4, 0x80000}, {false, 4, 0xC000000}}
                       : std::vector<PowerMessage>{{true, 62, 0}, {false, 3, 0x80000}, {false, 3, 0xC000200}};
    if (die == "Dellmar")
        return disable ? std::vector<PowerMessage>{{false, 4, 512}, {false, 4, 0x80000}, {false, 4, 0x2000000}}
                       : std::vector<PowerMessage>{{false, 3, 512}, {false, 3, 0x80000}, {false, 3, 0x2000000}};
    if (die == "KX900A" || die == "KX900C") return {{true, disable ? 35u : 36u, 0}};
    return {};
}

bool send_power_messages(const VEX_DIE_INFO& die, bool disable, std::string& error) {
    const auto messages = power_messages(die.name(), disable);
    if (messages.empty()) return true;
    const auto mcu = get_mcu_message(die);
    if (!mcu) return true;
    for (const PowerMessage& m : messages) {
        std::vector<unsigned int> out;
        const bool answered = m.test ? mcu->TestMsg(m.message, {m.argument}, out, 1024, true)
                                     : mcu->BIOSSrvReq(m.message, {m.argument}, out, 1024, true);
        if (!answered) {
            error = std::string(m.test ? "TestMsg " : "BIOSSrvReq ") + std::to_string(m.message) +
                    " was not answered by the management controller of " + die.full_name();
            return false;
        }
    }
    return true;
}

}  // namespace

bool disable_power_states_for_hvl(const VEX_DIE_INFO& die, std::string& error) {
    return send_power_messages(die, true, error);
}

bool enable_power_states_for_hvl(const VEX_DIE_INFO& die, std::string& error) {
    return send_power_messages(die, false, error);
}

int E32DisableODT(const VEX_DIE_INFO& die, const std::string&) {
    if (die.name() != "Corvane" && die.name() != "Dellmar") return 0;
    const auto store = get_register_store(die);
    store->get_mpio_register("MPIO_C2PMSG_50")->write(0x80002F00u);
    store->get_mpio_register("MPIO_C2PMSG_51")->write(0);
    store->get_mpio_register("MPIO_C2PMSG_52")->write(0);
    store->get_mpio_register("MPIO_C2PMSG_21")->write(15);
    return 1;
}
