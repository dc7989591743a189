#include "simulator/model_access.h"

namespace sim {

bool ModelReadPCI::read32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                          unsigned int offset, unsigned int& value) const {
    _model->config_read(segment, bus, device, function, offset, 4, value);
    return true;
}

bool ModelReadPCI::read16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                          unsigned int offset, unsigned int& value) const {
    _model->config_read(segment, bus, device, function, offset, 2, value);
    return true;
}

bool ModelReadPCI::read8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                         unsigned int offset, unsigned int& value) const {
    _model->config_read(segment, bus, device, function, offset, 1, value);
    return true;
}

bool ModelWritePCI::write32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                            unsigned int offset, unsigned int value) const {
    _model->config_write(segment, bus, device, function, offset, 4, value);
    return true;
}

bool ModelWritePCI::write16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                            unsigned int offset, unsigned int value) const {
    _model->config_write(segment, bus, device, function, offset, 2, value & 0xFFFF);
    return true;
}

bool ModelWritePCI::write8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                           unsigned int offset, unsigned int value) const {
    _model->config_write(segment, bus, device, function, offset, 1, value & 0xFF);
    return true;
}

}  // namespace sim
