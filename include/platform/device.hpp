#pragma once
/// Who this device is, as the phone would say: the application's bundle identifier, the
/// advertising identifier and whether tracking is allowed, the vendor identifier, and the
/// model. The host supplies them; where it does not, they come from the machine:
///
/// - bundle identifier: none until the program sets one;
/// - vendor identifier: a version-4-shaped UUID made from SHA-256 of `/etc/machine-id`
///   (else `/var/lib/dbus/machine-id`) and the bundle identifier, so two applications on one
///   machine see different ids and the machine id itself is never shown; none when the
///   machine has no id;
/// - advertising identifier: all zeros, with tracking off (what the phone gives when the
///   user has not allowed tracking);
/// - model: the machine's product name (`/sys/class/dmi/id/product_name`), else "Linux".
///
///   // machine(bundle), not current() with the bundle set afterwards: the vendor id is
///   // made from the bundle identifier.
///   auto identity = platform::DeviceIdentity::machine("app.kelvara.photo");
///   identity.advertisingTrackingEnabled = true;
///   platform::DeviceIdentity::setCurrent(identity);

#include <optional>
#include <string>

namespace platform {

struct DeviceIdentity {
  std::optional<std::string> bundleIdentifier;
  /// Canonical upper-case UUID text.
  std::string advertisingIdentifier = "00000000-0000-0000-0000-000000000000";
  bool advertisingTrackingEnabled = false;
  /// Canonical upper-case UUID text.
  std::optional<std::string> vendorIdentifier;
  std::string localizedModel;

  /// What the program set with `setCurrent`, else `machine()` (no bundle identifier).
  static DeviceIdentity current();
  /// Overrides every field for the rest of the process; none goes back to the machine's.
  static void setCurrent(std::optional<DeviceIdentity> identity);
  /// The machine's defaults for an application with `bundleIdentifier`.
  static DeviceIdentity machine(std::optional<std::string> bundleIdentifier = std::nullopt);
};

}  // namespace platform
