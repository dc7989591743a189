// Identity data of the chips we serve: vendor and device IDs, processor
// family and model ranges, and where a die tells its own socket and die
// number. Die detection matches against these and the platform model
// presents them, so the two can never disagree.
#pragma once

namespace chips {

constexpr unsigned int kProcessorVendorId = 0x1F7E;
constexpr unsigned int kGraphicsVendorId = 0x1F7D;

// The CRN register every die answers with its socket and die fields.
constexpr unsigned int kDieIdentityRegister = 0x5A08C;
// The CRN index/data/extension registers in a root function's configuration space.
constexpr unsigned int kCrnIndexOffset = 224;
constexpr unsigned int kCrnDataOffset = 228;
constexpr unsigned int kCrnExtensionOffset = 220;

// The silicon revision word every die answers, stamped into reports.
constexpr unsigned int kSiliconRevisionRegister = 0x10134000;
// Secure state of a KX900 die: bit 19 of this CRN register set means secure.
constexpr unsigned int kSecureStatusRegister = 0x38101C0;
constexpr unsigned int kSecureStatusBit = 19;
// The three fuse words (low, middle, high) from which a KX900 die's 64-bit
// chip ID is built.
constexpr unsigned int kAsicIdFuseRegisters[3] = {0x5D6E4, 0x5D6E8, 0x5D6EC};

// A field of the identity register: (value >> shift) & mask.
struct IdentityField {
    unsigned int shift = 0;
    unsigned int mask = 0;
    constexpr unsigned int extract(unsigned int value) const { return (value >> shift) & mask; }
    // The bits a die must present so that extract() gives number back.
    constexpr unsigned int place(unsigned int number) const { return (number & mask) << shift; }
};

// Socket and die fields of the identity register, and dies per socket, as
// each processor family lays them out.
struct IdentityLayout {
    IdentityField socket;
    IdentityField die;
    unsigned int dies_per_socket = 1;
};
// Most client families share one layout.
constexpr IdentityLayout kClientIdentity{{8, 1}, {0, 3}, 1};

// Class codes (top byte of configuration dword 8) of a graphics die's function.
constexpr unsigned int kDisplayClassCode = 3;
constexpr unsigned int kProcessingAcceleratorClassCode = 18;

namespace corvane {
constexpr unsigned int kFamily = 0x1A;
constexpr unsigned int kModelFirst = 0x00, kModelLast = 0x1F;
constexpr unsigned int kRootFunctionDeviceId = 0x14A4;   // root complex (IOHC) function
constexpr unsigned int kDataFabricDeviceId = 0x14AD;     // bus 0, device 24 + socket, function 0
constexpr unsigned int kRootPortDeviceId = 0x14AB;       // PCIe root port bridge
constexpr IdentityLayout kIdentity{{6, 3}, {0, 3}, 1};
}  // namespace corvane

namespace dellmar {
constexpr unsigned int kFamily = 0x19;
constexpr unsigned int kModelFirst = 0x10, kModelLast = 0x1F;
constexpr unsigned int kRootFunctionDeviceId = 0x149A;
constexpr unsigned int kDataFabricDeviceId = 0x1650;
constexpr unsigned int kRootPortDeviceId = 0x149B;
constexpr IdentityLayout kIdentity{{8, 3}, {0, 1}, 1};
}  // namespace dellmar

namespace kx900x {  // discrete accelerator, four dies per device
constexpr unsigned int kDeviceIdFirst = 0x74A0, kDeviceIdLast = 0x74A5;
constexpr unsigned int kSecondDeviceIdFirst = 0x74B0, kSecondDeviceIdLast = 0x74B5;
constexpr unsigned int kDiesPerDevice = 4;
constexpr unsigned int kPrimaryDie = 0;
// Read through the die-0 register path of the function; the second range
// carries a wider socket field.
constexpr IdentityField kSocketField{8, 3};
constexpr IdentityField kSecondSocketField{8, 15};
constexpr IdentityField kDieField{0, 1};
}  // namespace kx900x

namespace kx900a {  // APU: four dies, CPU access by default
constexpr unsigned int kFamily = 0x1A;
constexpr unsigned int kModelFirst = 0x90, kModelLast = 0x9F;
constexpr unsigned int kGraphicsDeviceIdFirst = 0x74C0, kGraphicsDeviceIdLast = 0x74C1;
constexpr unsigned int kRootFunctionDeviceId = 0x14C0;
constexpr unsigned int kDiesPerSocket = 4;
}  // namespace kx900a

namespace kx900c {  // CPU-mode part of the KX900 line: four dies per socket
constexpr unsigned int kFamily = 0x19;
constexpr unsigned int kModelFirst = 0x90, kModelLast = 0x9F;
constexpr unsigned int kRootFunctionDeviceId = 0x2B90;
constexpr IdentityLayout kIdentity{{8, 15}, {0, 3}, 4};
}  // namespace kx900c

// Families recognised but not otherwise served: enough identity to name
// their dies. Ferrow and Ferrow2 share a family/model range and are told
// apart by their root function; all other ranges are disjoint.
struct ClientFamily {
    unsigned int family;
    unsigned int model_first, model_last;
    unsigned int root_function_device_id;
};
namespace ferrow { constexpr ClientFamily kId{0x17, 0x00, 0x0F, 0x2B10}; }
namespace ferrow2 { constexpr ClientFamily kId{0x17, 0x00, 0x0F, 0x2B20}; }
namespace sabrel1 { constexpr ClientFamily kId{0x17, 0x20, 0x2F, 0x2B30}; }
namespace sabrel2 { constexpr ClientFamily kId{0x17, 0x30, 0x3F, 0x2B40}; }
namespace sabrel_crown { constexpr ClientFamily kId{0x17, 0x40, 0x4F, 0x2B50}; }
namespace tamblin1 { constexpr ClientFamily kId{0x19, 0x40, 0x4F, 0x2B60}; }
namespace rusk { constexpr ClientFamily kId{0x19, 0x50, 0x5F, 0x2B70}; }
namespace ombrel { constexpr ClientFamily kId{0x1A, 0x40, 0x4F, 0x2B80}; }
namespace cobalt_bay { constexpr ClientFamily kId{0x1A, 0x60, 0x6F, 0x2BA0}; }

// Graphics device ID ranges (inclusive) of the single-die graphics families.
struct DeviceIdRange {
    unsigned int first, last;
};
namespace kx800 { constexpr DeviceIdRange kIds{0x7380, 0x738F}; }
namespace hesk31 { constexpr DeviceIdRange kIds{0x7310, 0x7317}, kSecondIds{0x7318, 0x731F}; }
namespace hesk48 { constexpr DeviceIdRange kIds{0x7440, 0x7447}, kSecondIds{0x7448, 0x744F}; }
namespace hesk44 { constexpr DeviceIdRange kIds{0x7460, 0x7467}, kSecondIds{0x7468, 0x746F}; }

}  // namespace chips
