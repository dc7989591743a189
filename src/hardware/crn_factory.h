// Hands out the register network accessor of a die, one per die and
// instance, made on first demand and kept for the life of the factory.
//
// CPU dies (and APUs with CPU access) get a CRNAccessorCorvane on one of
// their root functions; graphics dies (and APUs otherwise) get whatever the
// installed graphics accessor maker builds (gfx_accessor_maker.h), so the
// platform model never maps physical memory.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "hardware/crn_accessor.h"
#include "hardware/pci_access.h"
#include "hardware/vex_die_info.h"

class CRNFactory {
public:
    enum CRN_TYPE : unsigned int {
        DEFAULT = 0,    // decided by the die
        CPU_BASED = 1,  // index/data pair of a root function
        GFX_BASED = 2,  // index/data pair in a graphics function's aperture
    };

    // Creates the process-wide instance on the first call; later calls do nothing.
    static void initalize(std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write);
    // Throws "CRN Factory not initzlied" before initalize.
    static std::shared_ptr<CRNFactory> instance();
    // Forgets the process-wide instance and its cache, so the next initalize
    // takes effect; for tests and for a model rebuilt within one process.
    // Accessors already handed out stay valid.
    static void reset();

    // A private factory (the service uses instance()).
    CRNFactory(std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write);

    // Type DEFAULT, instance 0. The instance picks the root function of a
    // CPU die (its index in iohc_devices); it is the cache key and nothing
    // else for the other kinds. The overloads that check print "Error: ..."
    // and abort when no accessor results (a programming error).
    std::shared_ptr<CRNAccessor> get_crn_accessor(const VEX_DIE_INFO& die);
    std::shared_ptr<CRNAccessor> get_crn_accessor(const VEX_DIE_INFO& die, CRN_TYPE type);
    std::shared_ptr<CRNAccessor> get_crn_accessor(const VEX_DIE_INFO& die, unsigned int instance);
    std::shared_ptr<CRNAccessor> get_crn_accessor(const VEX_DIE_INFO& die, CRN_TYPE type, unsigned int instance);
    // Throws "Error: GFX Acccessor call on CPU die." for a CPU die.
    std::shared_ptr<CRNAccessor> get_gfx_based_crn_acessor(const VEX_DIE_INFO& die);

private:
    using Key = std::pair<VEX_DIE_INFO, unsigned int>;

    // Throws for a type the die can't have ("GFX based SMM accessor requested
    // for a die which is neither apu or dgpu", "CPU based SMM accessor
    // requested for a die which is neither apu or cpu", "Unknown die tyoe in
    // CRNFactory::get_crn_accessor"), and for a root function index outside
    // the die's list.
    std::shared_ptr<CRNAccessor> _get_crn_accessor(const VEX_DIE_INFO& die, CRN_TYPE type, bool explicit_instance,
                                                   unsigned int instance);

    std::map<Key, std::shared_ptr<CRNAccessor>> _cpu_accessors;
    std::map<Key, std::shared_ptr<CRNAccessor>> _gfx_accessors;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;

    static std::shared_ptr<CRNFactory> _instance;
    static bool _initialized;
    static std::mutex _instance_mutex;
    // The single entry into _get_crn_accessor, across all factories.
    static std::mutex _single_entry;
};
