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
