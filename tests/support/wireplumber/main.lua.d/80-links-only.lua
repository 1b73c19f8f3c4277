-- WirePlumber 0.4: links streams and nothing else.
alsa_monitor.enabled = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false
device_defaults.enabled = false
stream_defaults.enabled = false
default_access.properties["enable-flatpak-portal"] = false
