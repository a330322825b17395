#pragma once

// The part of the platform's property interface that the service uses, with the platform's
// signatures. On a workstation the simulated phone implements it.

#ifdef __cplusplus
extern "C" {
#endif

// Size of the longest property value with its terminating NUL.
#define PROPERTY_VALUE_MAX 92

// Copies the value of property `key`, at most PROPERTY_VALUE_MAX bytes with its NUL, into `value`;
// an unset property gives `default_value` (which may be null: then the empty string). Returns the
// length copied, without the NUL. Any thread.
int property_get(const char* key, char* value, const char* default_value);

// Sets property `key` to `value` (null is the empty string). Returns 0, or a negative value when
// the property service refuses. Any thread.
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
