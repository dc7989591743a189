// The register map of the Corvane die. The register store and the platform
// model both read it from here.
//
// To place registers without hardware, walk corvane_register_map().all
// (name, lookup table, keys, address, size per row); or build a
// CorvaneRegisterStorage with a null PhyAccessor and ask its lookups for
// get_offset() and get_size().
#pragma once

#include "hardware/chips/server_registers.h"

namespace chips {

// Built once on first use, never changed.
const server_io::ServerRegisterMap& corvane_register_map();

}  // namespace chips
