// Whether a KX900 die's silicon is in the secure state, in which eye scans
// are refused.
#pragma once

#include <memory>
#include <string>

#include "hardware/crn_accessor.h"
#include "hardware/vex_die_info.h"

class GetSecureStatus {
public:
    // `accessor` reaches the die's register network; with none given the
    // die's own accessor is taken from CRNFactory when it is needed.
    explicit GetSecureStatus(VEX_DIE_INFO die, std::shared_ptr<CRNAccessor> accessor = nullptr);

    // 0 "Secure", 1 "Unsecure", 2 for a die that has no secure state (not a
    // KX900X, KX900A or KX900C): nothing is read then.
    int get_status() const;

    // "Secure", "Unsecure", or "Not Available" for status 2.
    static std::string status_text(int status);

private:
    VEX_DIE_INFO _die;
    std::shared_ptr<CRNAccessor> _accessor;
};
