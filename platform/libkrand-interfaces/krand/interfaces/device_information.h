#ifndef KRAND_INTERFACES_DEVICE_INFORMATION_H_
#define KRAND_INTERFACES_DEVICE_INFORMATION_H_

#include "krand/core/krand_core.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The device-information service. Off a device it answers from [DeviceInformation] in the platform
 * configuration: `present` (default true) and `features`, a comma-separated list (default empty).
 */
krand_core_status krand_api_device_information_initiator_init(void* reserved, void* context,
                                                              krand_core_ipc_handle* handle,
                                                              int flags, void* options);
krand_core_status krand_api_device_information_initiator_deinit(krand_core_ipc_handle handle);
krand_core_status krand_api_device_information_is_feature_supported_send(
    krand_core_ipc_handle handle, const char* target, const char* feature, int* supported);

#ifdef __cplusplus
}
#endif

#endif /* KRAND_INTERFACES_DEVICE_INFORMATION_H_ */
