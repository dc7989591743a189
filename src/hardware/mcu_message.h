// Messages to the on-chip management controller through its mailboxes
// (register addresses: chips/mcu_mailboxes.h).
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "hardware/chips/mcu_mailboxes.h"
#include "hardware/phy_accessor.h"
#include "hardware/vex_die_info.h"

class C2PMessage {
public:
    C2PMessage(std::shared_ptr<PhyAccessor> phy, chips::C2PMsgConfig config);
    // False when there are more arguments than the mailbox takes (nothing is
    // written then), or when the mailbox stays busy for `retries` reads of
    // 200 microseconds each, before or after the message.
    bool SendMsg(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                 unsigned int retries, bool use_lock);

private:
    bool _wait(unsigned int retries) const;

    std::shared_ptr<PhyAccessor> _phy;
    chips::C2PMsgConfig _config;
    std::mutex _mutex;
};

class MCUMessage {
public:
    virtual ~MCUMessage() = default;
    virtual bool BIOSSrvReq(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                            unsigned int retries, bool use_lock);
    virtual bool TestMsg(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                         unsigned int retries, bool use_lock);
    virtual bool HostMsg(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                         unsigned int retries, bool use_lock);
    virtual bool MP2Msg(unsigned int message, const std::vector<unsigned int>& in, std::vector<unsigned int>& out,
                        unsigned int retries, bool use_lock);

protected:
    MCUMessage(std::shared_ptr<PhyAccessor> phy, const chips::McuMailboxes& boxes);

    C2PMessage _bios, _test, _host, _psp;
};

class MCUMessageMCU11 : public MCUMessage {
public:
    explicit MCUMessageMCU11(std::shared_ptr<PhyAccessor> phy) : MCUMessage(std::move(phy), chips::kMcu11) {}
};
class MCUMessageMCU11_4 : public MCUMessage {
public:
    explicit MCUMessageMCU11_4(std::shared_ptr<PhyAccessor> phy) : MCUMessage(std::move(phy), chips::kMcu11_4) {}
};
class MCUMessageMCU11_5 : public MCUMessage {
public:
    explicit MCUMessageMCU11_5(std::shared_ptr<PhyAccessor> phy) : MCUMessage(std::move(phy), chips::kMcu11_5) {}
};

// "Corvane": MCU11, "Dellmar": MCU11_4, the accelerators: MCU11_5, over the
// die's accessor; null for any other die.
std::shared_ptr<MCUMessage> get_mcu_message(const VEX_DIE_INFO& die);
