include $(sort $(wildcard $(BR2_EXTERNAL_DEVICE_HOTPLUG_HANDLER_PATH)/package/*/*.mk))
