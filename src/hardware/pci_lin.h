// Configuration space through the operating system: the bottom layer under
// ReadPCIStd and WritePCIStd.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <unordered_set>
#include <shared_mutex>
#include <string>
#include <unordered_map>

// The plain operations reach the first 256 bytes of segment 0 only; the Ex
// operations reach all of extended configuration space on any segment.
class PCI {
public:
    virtual ~PCI() = default;

    virtual bool read(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                      unsigned int& value) const = 0;
    virtual bool write(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                       unsigned int value) const = 0;
    virtual bool readByte(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                          unsigned char& value) const = 0;
    virtual bool writeByte(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                           unsigned char value) const = 0;
    virtual bool readWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                          unsigned short& value) const = 0;
    virtual bool writeWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                           unsigned short value) const = 0;
    virtual bool readDWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                           unsigned int& value, bool byBytes) const = 0;
    virtual bool writeDWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                            unsigned int value) const = 0;
    virtual bool readByteEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                            unsigned short offset, unsigned char& value) const = 0;
    virtual bool writeByteEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                             unsigned short offset, unsigned char value) const = 0;
    virtual bool readWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                            unsigned short offset, unsigned short& value) const = 0;
    virtual bool writeWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                             unsigned short offset, unsigned short value) const = 0;
    virtual bool readDWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                             unsigned short offset, unsigned int& value) const = 0;
    virtual bool writeDWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                              unsigned short offset, unsigned int value) const = 0;
    // Presence tests: whether the function's configuration space can be reached.
    virtual bool readPCIStatus(unsigned char bus, unsigned char device, unsigned char function) const = 0;
    virtual bool readPCIExStatus(unsigned char segment, unsigned char bus, unsigned char device,
                                 unsigned char function) const = 0;
};

// One "config" file per function under the sysfs device folder, opened
// read-write on first use (hence root) and kept open until the object goes.
//
// Every operation is true when the file could be opened and the positioned
// read or write didn't fail; a short read (past the end of the file) is a
// success that leaves the destination as it was.
//
// Open handles live in a map keyed by address, not in a fixed table over all
// possible addresses: memory stays in proportion to the functions touched,
// and every segment number is served. Lookups take a shared lock only; a
// failed open is not remembered, so the next access tries again (a function
// that appears later, or a transient failure, is picked up).
class PCI_lin : public PCI {
public:
    // A brute-force scan asks for tens of thousands of absent functions; each
    // would cost a failing open. Functions missing from a listing of the root
    // no older than listing_ttl are answered absent at once, so a scan costs
    // a few directory reads, and a function that appears is seen within the
    // TTL. A TTL of zero lists the folder again at every miss.
    explicit PCI_lin(std::string sysfs_root = "/sys/bus/pci/devices",
                     std::chrono::milliseconds listing_ttl = std::chrono::milliseconds(250));
    ~PCI_lin() override;
    PCI_lin(const PCI_lin&) = delete;
    PCI_lin& operator=(const PCI_lin&) = delete;

    bool read(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
              unsigned int& value) const override;
    bool write(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
               unsigned int value) const override;
    bool readByte(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                  unsigned char& value) const override;
    bool writeByte(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                   unsigned char value) const override;
    bool readWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                  unsigned short& value) const override;
    bool writeWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                   unsigned short value) const override;
    // byBytes reads the four bytes one by one through readByte, stopping at
    // the first failure; the destination is written only if all four succeed.
    bool readDWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                   unsigned int& value, bool byBytes) const override;
    bool writeDWord(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                    unsigned int value) const override;
    bool readByteEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                    unsigned short offset, unsigned char& value) const override;
    bool writeByteEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                     unsigned short offset, unsigned char value) const override;
    bool readWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                    unsigned short offset, unsigned short& value) const override;
    bool writeWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                     unsigned short offset, unsigned short value) const override;
    bool readDWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                     unsigned short offset, unsigned int& value) const override;
    bool writeDWordEx(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                      unsigned short offset, unsigned int value) const override;
    // Opens (and keeps) the function's file as a side effect.
    bool readPCIStatus(unsigned char bus, unsigned char device, unsigned char function) const override;
    bool readPCIExStatus(unsigned char segment, unsigned char bus, unsigned char device,
                         unsigned char function) const override;

    // Closes every open handle; later accesses open them again.
    void closeAll();

private:
    // The function's handle, opening it if needed; -1 when it can't be opened.
    int openSysFile(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                    int flags) const;
    bool _read(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
               unsigned short offset, void* value, unsigned size) const;
    bool _write(unsigned char segment, unsigned char bus, unsigned char device, unsigned char function,
                unsigned short offset, const void* value, unsigned size) const;

    bool _listed_absent(std::uint32_t key) const;

    std::string _root;
    std::chrono::milliseconds _listing_ttl;
    mutable std::mutex _listing_mutex;
    mutable std::unordered_set<std::uint32_t> _listing;
    mutable bool _listing_valid = false;
    mutable std::chrono::steady_clock::time_point _listed_at;
    mutable std::shared_mutex _handles_mutex;
    mutable std::unordered_map<std::uint32_t, int> _handles;
};
