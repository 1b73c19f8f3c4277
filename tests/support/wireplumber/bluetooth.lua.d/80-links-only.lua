-- WirePlumber 0.4: with Bluetooth goes logind, which a container lacks.
bluez_monitor.enabled = false
