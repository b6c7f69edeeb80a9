// SPDX-License-Identifier: MIT
// Shared by the configuration loaders: copies one member of a libconfig group into one field of a
// record. If the member is missing or of another type, the field keeps the host's value.
#pragma once

#include <cstddef>
#include <cstdio>
#include <libconfig.h>

template <typename tField>
void cfg_load_int(const config_setting_t *aicpGroup, const char *aicpcKey, tField *aopField)
{
    int value = 0;
    if (config_setting_lookup_int(aicpGroup, aicpcKey, &value) == CONFIG_TRUE)
        *aopField = static_cast<tField>(value);
}

// The last byte of a string field is never used.
template <size_t tBytes>
void cfg_load_string(const config_setting_t *aicpGroup, const char *aicpcKey,
                     char (&aoField)[tBytes])
{
    const char *value = nullptr;
    // GCOVR_EXCL_START: "%s" of a text in memory is always expanded
    if (config_setting_lookup_string(aicpGroup, aicpcKey, &value) == CONFIG_TRUE &&
        snprintf(aoField, tBytes - 1, "%s", value) < 0)
        aoField[0] = '\0';
    // GCOVR_EXCL_STOP
}
