// Mailboxes of the on-chip management controller, by controller generation:
// message, response, argument and result registers on the die's network.
// The product's messages and the platform model's controller read these.
#pragma once

namespace chips {

struct C2PMsgConfig {
    unsigned int message = 0;   // write the message number here to send
    unsigned int response = 0;  // 0 while the controller works; else done
    unsigned int arg_base = 0;
    unsigned int max_args = 0;
    unsigned int result_base = 0;
    unsigned int max_results = 0;
    unsigned int stride = 4;
};

struct McuMailboxes {
    C2PMsgConfig bios, test, host, psp;
};

// Results are read back from the argument registers, as the controller
// writes its answers over the arguments.
constexpr McuMailboxes mcu_mailboxes_at(unsigned int base) {
    return {{base + 0x530, base + 0x57C, base + 0x9C4, 6, base + 0x9C4, 6, 4},
            {base + 0x528, base + 0x578, base + 0x998, 6, base + 0x998, 6, 4},
            {base + 0x534, base + 0x580, base + 0xA00, 6, base + 0xA00, 6, 4},
            {base + 0x538, base + 0x584, base + 0xA40, 6, base + 0xA40, 6, 4}};
}
inline constexpr McuMailboxes kMcu11 = mcu_mailboxes_at(0x03B10000);    // Corvane
inline constexpr McuMailboxes kMcu11_4 = mcu_mailboxes_at(0x03B20000);  // Dellmar
inline constexpr McuMailboxes kMcu11_5 = mcu_mailboxes_at(0x03B30000);  // accelerators

// Power-state word the model's controller keeps (answered as the first
// result of every message): bits set for what is switched off.
constexpr unsigned int kPowerDfPstateOff = 1, kPowerDfCstateOff = 2, kPowerDlwmOff = 4, kPowerDpmOff = 8;

}  // namespace chips
