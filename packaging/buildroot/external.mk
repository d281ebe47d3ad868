# Its files were parsed by make and by a reader of Kconfig. Nothing was built in Buildroot yet.

include $(sort $(wildcard $(BR2_EXTERNAL_KESTCROND_PATH)/package/*/*.mk))
