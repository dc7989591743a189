// A default platform on fast virtual time, with short hands for
// configuration access.
#pragma once

#include <gtest/gtest.h>

#include "simulator/platform.h"

class SimPlatformTest : public ::testing::Test {
protected:
    sim::Platform platform = sim::load_platform("", std::nullopt, 1e6);
    std::shared_ptr<ReadPCI> read = platform.read_pci();
    std::shared_ptr<WritePCI> write = platform.write_pci();

    unsigned r32(unsigned bus, unsigned device, unsigned function, unsigned offset) const {
        unsigned value = 0;
        read->read32(0, bus, device, function, offset, value);
        return value;
    }
    unsigned r16(unsigned bus, unsigned device, unsigned function, unsigned offset) const {
        unsigned value = 0;
        read->read16(0, bus, device, function, offset, value);
        return value;
    }
    unsigned r8(unsigned bus, unsigned device, unsigned function, unsigned offset) const {
        unsigned value = 0;
        read->read8(0, bus, device, function, offset, value);
        return value;
    }
    void w32(unsigned bus, unsigned device, unsigned function, unsigned offset, unsigned value) const {
        write->write32(0, bus, device, function, offset, value);
    }
    void w16(unsigned bus, unsigned device, unsigned function, unsigned offset, unsigned value) const {
        write->write16(0, bus, device, function, offset, value);
    }
    void sleep_ms(long ms) const { platform.model().clock().sleep_for(std::chrono::milliseconds(ms)); }
};
