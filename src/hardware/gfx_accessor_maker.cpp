#include "hardware/gfx_accessor_maker.h"

#include <mutex>

#include "hardware/crn_accessor_gfx.h"
#include "hardware/pci_std.h"

namespace {

std::shared_ptr<CRNAccessor> make_real_gfx_accessor(const PCIDeviceDetails& function, bool kx900_style,
                                                    unsigned int die_selector) {
    auto read = std::make_shared<ReadPCIStd>();
    auto write = std::make_shared<WritePCIStd>();
    if (kx900_style) return GetKX900GPUCRNAccessor(function, read, write, die_selector)();
    return GetKX800CRNAccessor(function, read, write)();
}

std::mutex& maker_mutex() {
    static std::mutex mutex;
    return mutex;
}

GFXAccessorMaker& installed_maker() {
    static GFXAccessorMaker maker = make_real_gfx_accessor;
    return maker;
}

}  // namespace

void set_gfx_accessor_maker(GFXAccessorMaker maker) {
    std::lock_guard<std::mutex> guard(maker_mutex());
    installed_maker() = maker ? std::move(maker) : GFXAccessorMaker(make_real_gfx_accessor);
}

const GFXAccessorMaker& gfx_accessor_maker() {
    std::lock_guard<std::mutex> guard(maker_mutex());
    return installed_maker();
}
