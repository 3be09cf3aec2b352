#pragma once
// The sandbox's HTTP/1.1 server on 127.0.0.1. Only server.cpp knows the HTTP library; the
// routes see plain Request and Response values.

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "journal.hpp"
#include "router.hpp"

namespace sandbox {

class Realtime;
class TroubleRules;

struct ServerOptions {
  unsigned short port = 0;  ///< 0: any free port
  bool verbose = false;     ///< one line on standard error for every request
  /// Both or neither: the whole server speaks TLS with this certificate chain and key (PEM).
  std::optional<std::filesystem::path> tlsCertificate, tlsKey;
  /// Serves the realtime socket at /realtime/ (WebSocket upgrades); none: no socket.
  Realtime* realtime = nullptr;
  /// Trouble set ahead of time (POST /_sandbox/trouble); none: only the query's.
  TroubleRules* troubleRules = nullptr;
};

/// A certificate or key that cannot be read or used; its text is one line that says which.
class TLSSetupError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Server {
 public:
  /// Binds 127.0.0.1:port and takes over SIGINT and SIGTERM at once (a signal that comes
  /// before run() stops run() as soon as it starts); throws std::runtime_error when it
  /// cannot bind, std::invalid_argument for only one of the TLS files, and TLSSetupError.
  ///
  ///   sandbox::Server server(router, journal, {.port = 0});
  ///   std::cout << server.baseURL() << std::endl;
  ///   server.run();
  Server(const Router& router, Journal& journal, ServerOptions options);
  ~Server();

  /// "http://127.0.0.1:PORT", or "https://…" with TLS
  std::string baseURL() const;

  /// Serves until SIGINT or SIGTERM arrives. Requests outside /_sandbox/ go to the journal
  /// as they arrive, and their status when the answer has been written; the trouble
  /// parameters and rules (trouble.hpp) shape every answer but the realtime socket's
  /// upgrade. With TLS, a plain HTTP request is answered with 400 and the https address, and
  /// the connection closed.
  void run();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sandbox
