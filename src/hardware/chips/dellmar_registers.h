// The register map of the Dellmar die: the Corvane SerDes, MPIO and SATA
// layout (the dies share their I/O design) with Dellmar's own PCIe cores,
// plus the I/O hub lookups only Dellmar's store answers.
//
// To place registers without hardware, walk dellmar_register_map().all; or
// build a DellmarRegisterStorage with a null PhyAccessor and ask its lookups
// for get_offset() and get_size().
#pragma once

#include "hardware/chips/server_registers.h"

namespace chips {

// Built once on first use, never changed.
const server_io::ServerRegisterMap& dellmar_register_map();

}  // namespace chips
