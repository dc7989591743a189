// Reads the eye-scan ring an E32 PHY's firmware streams counts into, and
// acknowledges what it read so the firmware may write over it. Layout:
// hardware/chips/e32_phy_firmware.h. `base` is the lane's PHY base address,
// `offset` the ring offset of its training record.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "hardware/phy_accessor.h"

class StoneRingBufferReader {
public:
    explicit StoneRingBufferReader(std::shared_ptr<PhyAccessor> phy);

    // Reads the eight config words: word 4 (the acknowledged position) to
    // out_head, word 1 (the ring's length) to out_tail.
    void read_config(unsigned int base, unsigned int offset, unsigned int& out_head, unsigned int& out_tail) const;
    // Appends the bytes from position up to the firmware's head (word 0),
    // acknowledges the head and moves position there. length must be a power
    // of two; otherwise nothing is read and false comes back.
    bool read_buffer(unsigned int base, unsigned int offset, unsigned int length, unsigned int& position,
                     std::vector<uint8_t>& out) const;
    // Word 2 bit 0: the firmware wrote over bytes not yet acknowledged since
    // the scan command; lost_bytes gets word 3.
    bool overrun(unsigned int base, unsigned int offset, unsigned int& lost_bytes) const;

private:
    std::shared_ptr<PhyAccessor> _phy;
};
