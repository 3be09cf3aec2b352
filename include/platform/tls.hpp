#pragma once
/// Which certificates a TLS peer is checked against, for every secure connection of the
/// process (URL loading and web sockets alike): the system's trust store, or one CA file
/// that the program names (a local service with a certificate made for a test).
///
///   platform::setTrustedCertificates("/tmp/test-ca.pem");
///   auto [data, response] = co_await platform::URLSession::shared().data(request);  // https
///   platform::setTrustedCertificates(std::nullopt);  // back to the system's store
///
/// The peer's host name is always checked against its certificate; there is no switch to
/// turn checking off.

#include <filesystem>
#include <optional>

namespace platform {

/// Makes `caFile` (PEM, one or more certificates) the only trust anchors of connections made
/// from now on; none: the system's trust store. Read when a connection starts.
void setTrustedCertificates(std::optional<std::filesystem::path> caFile);

/// What `setTrustedCertificates` set; none when the system's store is used.
std::optional<std::filesystem::path> trustedCertificates();

}  // namespace platform
