// The daemon's name and version, for an operator running `strings` on the
// binary. Nothing prints it: the records' texts are fixed.
extern "C" {
extern const char device_hotplug_handler_version[];
const char device_hotplug_handler_version[] = "device_hotplug_handler " DHH_VERSION;
}
