# SPDX-License-Identifier: MIT
include $(sort $(wildcard $(BR2_EXTERNAL_KELVARA_PATH)/package/*/*.mk))
