#ifndef VIGILA_CONTRACT_PERMISSIONS_H_
#define VIGILA_CONTRACT_PERMISSIONS_H_

#include <cstdint>

#include "vigila/contract/groups.h"

// The permissions that the device's services agree on, by their identifiers, and who holds them.
namespace vigila::contract {

inline constexpr char kApiAccess[] = "{00d8dc27-61d1-4b7d-85a8-519efb70d712}";
inline constexpr char kControlAccess[] = "{d6f86cee-5c0c-41ce-a91f-b8563a2b94d6}";
inline constexpr char kReadSystem[] = "{252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a}";
inline constexpr char kReadMedia[] = "{88049574-465a-4f41-89d4-d6d517e8c218}";
inline constexpr char kReadSensitive[] = "{86343993-7e7e-4bbf-8f00-cf64e98d7aeb}";
inline constexpr char kActuate[] = "{42c59193-e2f4-4ca2-904c-11063eab5d3b}";
inline constexpr char kReadSecrets[] = "{e1f9915b-7818-4bf0-b1e4-0514a9d05231}";
inline constexpr char kWrite[] = "{5bff6465-ec25-4242-aebc-b089f32a0b90}";
inline constexpr char kWriteUnrecoverable[] = "{cf4f528d-3e7d-4c9d-b721-e8fc326cd661}";
inline constexpr char kWriteSecrets[] = "{41414810-1b86-4b6a-a9cb-610264082e2e}";
inline constexpr char kReadAdministrators[] = "{1ac07d72-3478-4824-b848-b3d1e653bebe}";

struct Permission {
  const char* identifier;
  const char* name;
  uint32_t groups;  // that hold it
};

inline constexpr Permission kPermissions[] = {
    {kWriteUnrecoverable, "write, unrecoverable", AtLeast(kAdministratorsBit)},
    {kWriteSecrets, "write secrets", AtLeast(kAdministratorsBit)},
    {kReadAdministrators, "read administrators' data", AtLeast(kAdministratorsBit)},
    {kReadSecrets, "read secrets", AtLeast(kManagersBit)},
    {kWrite, "write", AtLeast(kManagersBit)},
    {kReadSensitive, "read sensitive data", AtLeast(kOperatorsBit)},
    {kActuate, "actuate", AtLeast(kOperatorsBit)},
    {kReadSystem, "read system", AtLeast(kViewersBit)},
    {kReadMedia, "read media", AtLeast(kViewersBit)},
    {kApiAccess, "API access", AtLeast(kNobodyBit)},
    {kControlAccess, "control access", AtLeast(kNobodyBit)},
};

}  // namespace vigila::contract

#endif  // VIGILA_CONTRACT_PERMISSIONS_H_
