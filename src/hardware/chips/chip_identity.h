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

namespace corvane {
constexpr unsigned int kFamily = 0x1A;
constexpr unsigned int kModelFirst = 0x00, kModelLast = 0x1F;
constexpr unsigned int kRootFunctionDeviceId = 0x14A4;   // root complex (IOHC) function
constexpr unsigned int kDataFabricDeviceId = 0x14AD;     // bus 0, device 24 + socket, function 0
constexpr unsigned int kRootPortDeviceId = 0x14AB;       // PCIe root port bridge
}  // namespace corvane

namespace dellmar {
constexpr unsigned int kFamily = 0x19;
constexpr unsigned int kModelFirst = 0x10, kModelLast = 0x1F;
constexpr unsigned int kRootFunctionDeviceId = 0x149A;
constexpr unsigned int kDataFabricDeviceId = 0x1650;
constexpr unsigned int kRootPortDeviceId = 0x149B;
}  // namespace dellmar

namespace kx900x {  // discrete accelerator, four dies per device
constexpr unsigned int kDeviceIdFirst = 0x74A0, kDeviceIdLast = 0x74A5;
constexpr unsigned int kSecondDeviceIdFirst = 0x74B0, kSecondDeviceIdLast = 0x74B5;
}  // namespace kx900x

namespace kx900a {  // APU: four dies, CPU access by default
constexpr unsigned int kFamily = 0x1A;
constexpr unsigned int kModelFirst = 0x90, kModelLast = 0x9F;
constexpr unsigned int kGraphicsDeviceIdFirst = 0x74C0, kGraphicsDeviceIdLast = 0x74C1;
constexpr unsigned int kRootFunctionDeviceId = 0x14C0;
}  // namespace kx900a

}  // namespace chips
