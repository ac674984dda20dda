#pragma once

// Names shared by the daemon, its tools and its tests' expectations.

// The one cloud service the device enrolls for.
inline constexpr char AWS_IOT_SERVICE[] = "aws-iot";

// Enrollment protocols as named on the wire.
inline constexpr char PROTO_NOAUTH_CSR[] = "noauth-csr";
inline constexpr char PROTO_EMMC_RPMB_CSR[] = "emmc-rpmb-csr";
inline constexpr char PROTO_TPM2_AUTHKEY_CSR[] = "tpm2-authkey-csr";

// The daemon's D-Bus name, object and interface.
inline constexpr char ENROLLER_DBUS_NAME[] = "com.corvanta.ZelPlayer.Enroller1";
inline constexpr char ENROLLER_DBUS_PATH[] = "/com/corvanta/ZelPlayer/Enroller1";
inline constexpr char ENROLLER_DBUS_INTERFACE[] = "com.corvanta.ZelPlayer.Enroller1";

// Default paths of the daemon's files.
inline constexpr char DEFAULT_STATUS_FILE[] = "/var/lib/zelenroll/status";
inline constexpr char DEFAULT_SERVICES_DIR[] = "/var/lib/zelenroll/services";
inline constexpr char DEFAULT_KEY_FILE[] = "/etc/pki/zelenroll/private/device-private.key";
inline constexpr char DEFAULT_RPMB_DEVICE[] = "/dev/mmcblk0rpmb";
inline constexpr char DEFAULT_BRANDING_FILE[] =
    "/usr/share/resources/default/zelenroll/branding.json";

// The user the daemon switches to unless told otherwise.
inline constexpr char DEFAULT_DAEMON_USER[] = "zelenroll";

// The overall deadline of one enrollment request, redirects included. The HTTP timeout only
// bounds each silence of the server: one that keeps sending "102 Processing" or drips its
// body a byte at a time would hold the request, and with it the device, for ever.
// With a timeout, the deadline is this many times it, at most a day:
inline constexpr unsigned REQUEST_DEADLINE_TIMEOUTS = 5;
inline constexpr unsigned REQUEST_DEADLINE_MAX = 86400;
// Without one (a timeout of 0), in seconds:
inline constexpr unsigned REQUEST_DEADLINE_NO_TIMEOUT = 1800;
