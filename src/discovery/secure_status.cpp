#include "discovery/secure_status.h"

#include <utility>

#include "hardware/crn_factory.h"
#include "hardware/chips/chip_identity.h"
#include "hardware/phy_accessor.h"

GetSecureStatus::GetSecureStatus(VEX_DIE_INFO die, std::shared_ptr<CRNAccessor> accessor)
    : _die(std::move(die)), _accessor(std::move(accessor)) {}

int GetSecureStatus::get_status() const {
    const std::string name = _die.name();
    if (name != "KX900X" && name != "KX900A" && name != "KX900C") return 2;
    const PhyAccessor phy(_accessor ? _accessor : CRNFactory::instance()->get_crn_accessor(_die));
    const unsigned int value = phy.read(0, chips::kSecureStatusRegister, 4);
    return (value >> chips::kSecureStatusBit) & 1 ? 0 : 1;
}

std::string GetSecureStatus::status_text(int status) {
    if (status == 0) return "Secure";
    if (status == 1) return "Unsecure";
    return "Not Available";
}
