include $(sort $(wildcard $(BR2_EXTERNAL_KESTREL_PATH)/package/*/*.mk))
