#pragma once
// The sandbox's HTTP/1.1 server on 127.0.0.1. Only server.cpp knows the HTTP library; the
// routes see plain Request and Response values.

#include <memory>
#include <string>

#include "journal.hpp"
#include "router.hpp"

namespace sandbox {

struct ServerOptions {
  unsigned short port = 0;  ///< 0: any free port
  bool verbose = false;     ///< one line on standard error for every request
};

class Server {
 public:
  /// Binds 127.0.0.1:port and takes over SIGINT and SIGTERM at once (a signal that comes
  /// before run() stops run() as soon as it starts); throws std::runtime_error when it
  /// cannot bind.
  ///
  ///   sandbox::Server server(router, journal, {.port = 0});
  ///   std::cout << server.baseURL() << std::endl;
  ///   server.run();
  Server(const Router& router, Journal& journal, ServerOptions options);
  ~Server();

  /// "http://127.0.0.1:PORT"
  std::string baseURL() const;

  /// Serves until SIGINT or SIGTERM arrives. Requests outside /_sandbox/ go to the journal
  /// as they arrive; the trouble parameters (trouble.hpp) shape every answer.
  void run();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sandbox
