#include "hardware/mcu_message.h"

#include "hardware/crn_factory.h"
#include "hardware/system_facts.h"

C2PMessage::C2PMessage(std::shared_ptr<PhyAccessor> phy, chips::C2PMsgConfig config)
    : _phy(std::move(phy)), _config(config) {}

bool C2PMessage::_wait(unsigned int retries) const {
    for (unsigned int round = 0; round < retries; ++round) {
        const bool free = _phy->read(_config.response, 0, 4) != 0;
        system_facts().sleep_for(std::chrono::microseconds(200));
        if (free) return true;
    }
    return false;
}

bool C2PMessage::SendMsg(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                         unsigned int retries, bool use_lock) {
    if (in.size() > _config.max_args || out.size() > _config.max_results) return false;
    std::unique_lock<std::mutex> lock(_mutex, std::defer_lock);
    if (use_lock) lock.lock();
    if (!_wait(retries)) return false;
    _phy->write(_config.response, 0, 4, 0);
    for (size_t i = 0; i < in.size(); ++i) _phy->write(_config.arg_base + i * _config.stride, 0, 4, in[i]);
    _phy->write(_config.message, 0, 4, message);
    if (!_wait(retries)) return false;
    for (size_t i = 0; i < out.size(); ++i) out[i] = _phy->read(_config.result_base + i * _config.stride, 0, 4);
    return true;
}

MCUMessage::MCUMessage(std::shared_ptr<PhyAccessor> phy, const chips::McuMailboxes& boxes)
    : _bios(phy, boxes.bios), _test(phy, boxes.test), _host(phy, boxes.host), _psp(phy, boxes.psp) {}

bool MCUMessage::BIOSSrvReq(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                            unsigned int retries, bool use_lock) {
    return _bios.SendMsg(message, in, out, retries, use_lock);
}
bool MCUMessage::TestMsg(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                         unsigned int retries, bool use_lock) {
    return _test.SendMsg(message, in, out, retries, use_lock);
}
bool MCUMessage::HostMsg(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                         unsigned int retries, bool use_lock) {
    return _host.SendMsg(message, in, out, retries, use_lock);
}
bool MCUMessage::MP2Msg(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                        unsigned int retries, bool use_lock) {
    return _psp.SendMsg(message, in, out, retries, use_lock);
}

std::shared_ptr<MCUMessage> get_mcu_message(const VEX_DIE_INFO& die) {
    const std::string name = die.name();
    auto phy = [&] { return std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die)); };
    if (name == "Corvane") return std::make_shared<MCUMessageMCU11>(phy());
    if (name == "Dellmar") return std::make_shared<MCUMessageMCU11_4>(phy());
    if (name == "KX900A" || name == "KX900C" || name == "KX900X") return std::make_shared<MCUMessageMCU11_5>(phy());
    return nullptr;
}
