#ifndef VIGILAD_STORE_REPAIR_H_
#define VIGILAD_STORE_REPAIR_H_

#include <string>

#include "vigilad/exit_code.h"

namespace vigila::daemon {

// Prints what is damaged in the store, and which accounts its sound records and its copy hold;
// never a secret. "records" and "copy" put these in force in place of a damaged store, which is
// kept, and "show" changes nothing. A device is never left without an administrator. The store must
// not be in use. Root does it as the owner of the directory, whose files they stay.
ExitCode RepairStore(const std::string& what);

}  // namespace vigila::daemon

#endif  // VIGILAD_STORE_REPAIR_H_
