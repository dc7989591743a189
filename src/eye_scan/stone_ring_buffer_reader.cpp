#include "eye_scan/stone_ring_buffer_reader.h"

#include "hardware/chips/e32_phy_firmware.h"

namespace e32 = chips::e32;

namespace {

unsigned int ring_address(unsigned int base, unsigned int offset) { return base + offset - 0x10000u; }

}  // namespace

StoneRingBufferReader::StoneRingBufferReader(std::shared_ptr<PhyAccessor> phy) : _phy(std::move(phy)) {}

void StoneRingBufferReader::read_config(unsigned int base, unsigned int offset, unsigned int& out_head,
                                        unsigned int& out_tail) const {
    const unsigned int r = ring_address(base, offset);
    unsigned int words[8];
    for (unsigned int i = 0; i < 8; ++i) words[i] = _phy->read(0, r + 4 * i, 4);
    out_head = words[4];
    out_tail = words[1];
}

bool StoneRingBufferReader::read_buffer(unsigned int base, unsigned int offset, unsigned int length,
                                        unsigned int& position, std::vector<uint8_t>& out) const {
    if (length == 0 || (length & (length - 1)) != 0) return false;
    position &= length - 1;
    const unsigned int r = ring_address(base, offset);
    const unsigned int head = _phy->read(0, r + e32::kRingHead, 4) & (length - 1);
    for (; position != head; position = (position + 1) & (length - 1))
        out.push_back(static_cast<uint8_t>(_phy->read(0, r + e32::kRingData + position, 1)));
    _phy->write(0, base + e32::kRingAckStrobe, 2, 1);
    _phy->write(0, r + e32::kRingAck, 4, head);
    _phy->write(0, base + e32::kRingAckStrobe, 2, 0);
    position = head;
    return true;
}

bool StoneRingBufferReader::overrun(unsigned int base, unsigned int offset, unsigned int& lost_bytes) const {
    const unsigned int r = ring_address(base, offset);
    lost_bytes = _phy->read(0, r + e32::kRingLost, 4);
    return _phy->read(0, r + e32::kRingOverrun, 4) & 1;
}
