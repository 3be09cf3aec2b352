#pragma once
// Certificates made for a test by the openssl command, in a temporary folder that goes with
// the object: a CA ("ca.pem", "ca.key"), a server certificate for IP 127.0.0.1 and the name
// localhost ("server.pem", "server.key"), and one for another name only ("other.pem",
// "other.key"), both signed by the CA.
//
//   testing_support::Certificates certificates;
//   platform::setTrustedCertificates(certificates.path("ca.pem"));

#include <filesystem>
#include <string>

namespace testing_support {

class Certificates {
 public:
  /// Throws std::runtime_error naming the openssl command that failed.
  Certificates();
  ~Certificates();
  Certificates(const Certificates&) = delete;
  Certificates& operator=(const Certificates&) = delete;

  std::filesystem::path path(const std::string& name) const { return dir_ / name; }

 private:
  void issue(const std::string& name, const std::string& subjectAltNames);
  std::filesystem::path dir_;
};

}  // namespace testing_support
