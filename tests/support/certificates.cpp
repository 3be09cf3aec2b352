#include "support/certificates.hpp"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace testing_support {
namespace {

void run(const std::string& command) {
  if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
    throw std::runtime_error("failed: " + command);
}

const std::string kNewKey = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";

}  // namespace

Certificates::Certificates() {
  static std::atomic<int> made{0};
  dir_ = std::filesystem::temp_directory_path() /
         ("herald-test-certificates-" + std::to_string(::getpid()) + "-" +
          std::to_string(made++));
  std::filesystem::create_directories(dir_);
  const auto d = dir_.string();
  run("openssl req -x509" + kNewKey + " -keyout " + d + "/ca.key -out " + d +
      "/ca.pem -days 2 -subj /CN=Test-CA -addext basicConstraints=critical,CA:TRUE"
      " -addext keyUsage=keyCertSign");
  issue("server", "IP:127.0.0.1,DNS:localhost");
  issue("other", "DNS:other.test");
}

Certificates::~Certificates() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

void Certificates::issue(const std::string& name, const std::string& subjectAltNames) {
  const auto d = dir_.string();
  std::ofstream(dir_ / (name + ".ext")) << "subjectAltName=" << subjectAltNames << "\n";
  run("openssl req" + kNewKey + " -keyout " + d + "/" + name + ".key -out " + d + "/" + name +
      ".csr -subj /CN=" + name);
  run("openssl x509 -req -in " + d + "/" + name + ".csr -CA " + d + "/ca.pem -CAkey " + d +
      "/ca.key -CAcreateserial -days 2 -out " + d + "/" + name + ".pem -extfile " + d + "/" +
      name + ".ext");
}

}  // namespace testing_support
