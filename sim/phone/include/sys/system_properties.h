#pragma once

// The part of the platform's system-property calls that the service uses, with the platform's
// signatures. On a workstation the simulated phone implements it.

#ifdef __cplusplus
extern "C" {
#endif

// Size of the longest property value with its terminating NUL.
#define PROP_VALUE_MAX 92

typedef struct prop_info prop_info;

// Gives a handle of property `name`, or null when it is not set. Any thread.
const prop_info* __system_property_find(const char* name);

#ifdef __cplusplus
}
#endif
