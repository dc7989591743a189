// Indirect access to data fabric registers through function 4 of a die's
// data fabric device (segment 0, bus 0, device 24 + die): a control word
// names the target function, register and instance, then the data
// registers carry the value.
//
// The 64-bit forms join the two data words at bit 26, not 32, as the
// fabric lays them out. The name given at construction is the named lock
// held around each control/data sequence, so two threads can't interleave
// on the pair (an empty name takes no lock). The bool arguments are kept for
// callers and don't change the access sequence.
#pragma once

#include <memory>
#include <string>

#include "hardware/pci_access.h"

class DFIndirectImp {
public:
    static constexpr unsigned int kDataFabricDevice = 24;
    static constexpr unsigned int kFunction = 4;
    static constexpr unsigned int kConfigOffset = 64;
    static constexpr unsigned int kBroadcastModeBit = 1u << 1;
    static constexpr unsigned int kControlOffset = 148;
    static constexpr unsigned int kDataLowOffset = 200;
    static constexpr unsigned int kDataHighOffset = 204;
    static constexpr int kBroadcast = -1;

    // Throws "DF Access not configured." unless the fabric is in broadcast mode.
    DFIndirectImp(std::string name, unsigned int die, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write);

    // instance -1 addresses all instances (broadcast). Each returns false as
    // soon as a step fails.
    bool readDWord(unsigned int function, unsigned int offset, int instance, unsigned int& value, bool = false,
                   bool = false) const;
    bool readQWord(unsigned int function, unsigned int offset, int instance, unsigned long long& value, bool = false,
                   bool = false) const;
    bool writeDWord(unsigned int function, unsigned int offset, int instance, unsigned int value, bool = false) const;
    bool writeQWord(unsigned int function, unsigned int offset, int instance, unsigned long long value,
                    bool = false) const;

    // Bit 0 single instance, bits 1-10 the dword offset, 11-13 the function,
    // 14 a 64-bit access, 16-23 the instance (0 for broadcast).
    static unsigned int control_word(unsigned int function, unsigned int offset, int instance, bool qword);

private:
    bool _read(unsigned int offset, unsigned int& value) const;
    bool _write(unsigned int offset, unsigned int value) const;

    std::string _name;
    unsigned int _die;
    std::shared_ptr<ReadPCI> _read_pci;
    std::shared_ptr<WritePCI> _write_pci;
};

// The interface callers hold: forwards to its own DFIndirectImp.
class DFIndirect {
public:
    DFIndirect(std::string name, unsigned int die, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write);

    bool readDWord(unsigned int function, unsigned int offset, int instance, unsigned int& value, bool a = false,
                   bool b = false) const;
    bool readQWord(unsigned int function, unsigned int offset, int instance, unsigned long long& value,
                   bool a = false, bool b = false) const;
    bool writeDWord(unsigned int function, unsigned int offset, int instance, unsigned int value,
                    bool a = false) const;
    bool writeQWord(unsigned int function, unsigned int offset, int instance, unsigned long long value,
                    bool a = false) const;

private:
    std::unique_ptr<DFIndirectImp> _imp;
};
