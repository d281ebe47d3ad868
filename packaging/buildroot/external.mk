# Tested with make and a parser of Kconfig only; not yet built in Buildroot.

include $(sort $(wildcard $(BR2_EXTERNAL_KESTCROND_PATH)/package/*/*.mk))
