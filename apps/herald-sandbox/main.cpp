// herald-sandbox: a local stand-in for the hosted Herald service, for the demo, the tests
// and the benchmarks. Listens on 127.0.0.1 only.

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>

#include "journal.hpp"
#include "platform/version.hpp"
#include "router.hpp"
#include "routes.hpp"
#include "server.hpp"

namespace {

void printHelp() {
  std::cout << R"(Usage: herald-sandbox [--port N] [--files DIR] [--verbose]

A local stand-in for the hosted Herald service, on 127.0.0.1 only. Prints its base URL
("http://127.0.0.1:PORT") as the first line of standard output and serves until SIGINT or
SIGTERM.

Options:
  --port N      port to listen on (default 0: any free port)
  --files DIR   serve the files below DIR under /files/
  --verbose     one line on standard error for every request
  --help        show this text
  --version     show the version

Endpoints:
  POST   /track/<anything>        body {"event": "CLICKED" | "DELIVERED" | "OPENED" | "READ" |
                                  "UNREAD"}: 200 {"tracked": EVENT}; any other body: 400
                                  {"message": "...", "type": "invalid_request_error"}
  GET    /files/<path>            a file below --files DIR, typed by its extension; a path
                                  with ".." is refused (400), and so is a symbolic link
                                  that leads out of DIR (403)
  GET    /_sandbox/bytes/<N>.<ext> N made-up bytes typed by <ext>; images, video and audio
                                  start with a valid header, so attachment checks accept them
  GET    /_sandbox/requests       the journal: every request received outside /_sandbox/, as
                                  [{"method", "path", "headers": [[name, value], ...], "body"}]
  DELETE /_sandbox/requests       empties the journal
Errors are JSON {"message": "...", "type": "..."}: 404 for an unknown path, 405 for a wrong
method.

Trouble on request (query parameters, on any path, in any combination):
  delay=SECONDS     wait before answering
  stall=SECONDS     send the status line and headers, then wait before the body
  status=CODE       answer with this status (200 to 599) instead of the route's
  truncate=BYTES    announce the whole Content-Length, send only BYTES of the body, close
  e.g. /track/m1?delay=5   /files/photo.jpg?truncate=100   /_sandbox/bytes/64.png?status=503

Exit status: 0 after SIGINT or SIGTERM, 1 when the port cannot be bound, 2 for bad options.
)";
}

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace

int main(int argc, char** argv) {
  sandbox::ServerOptions options;
  std::optional<std::filesystem::path> files;
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      auto value = [&]() -> std::string {
        if (i + 1 >= argc) throw UsageError(arg + " needs a value");
        return argv[++i];
      };
      if (arg == "--help" || arg == "-h") {
        printHelp();
        return 0;
      } else if (arg == "--version") {
        std::cout << "herald-sandbox " << platform::kVersion << "\n";
        return 0;
      } else if (arg == "--port") {
        const auto text = value();
        unsigned port = 0;
        auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
        if (text.empty() || ec != std::errc() || ptr != text.data() + text.size() || port > 65535)
          throw UsageError("--port takes a number from 0 to 65535, not '" + text + "'");
        options.port = static_cast<unsigned short>(port);
      } else if (arg == "--files") {
        files = value();
        std::error_code ec;
        if (!std::filesystem::is_directory(*files, ec))
          throw UsageError("--files: '" + files->string() + "' is not a directory");
      } else if (arg == "--verbose") {
        options.verbose = true;
      } else {
        throw UsageError("unknown argument '" + arg + "' (see --help)");
      }
    }
  } catch (const UsageError& e) {
    std::cerr << "herald-sandbox: " << e.what() << "\n";
    return 2;
  }

  sandbox::Journal journal;
  sandbox::Router router;
  try {
    sandbox::addTrackingRoutes(router);
    sandbox::addFileRoutes(router, files);
    sandbox::addSandboxRoutes(router, journal);
    sandbox::Server server(router, journal, options);
    std::cout << server.baseURL() << std::endl;
    server.run();
  } catch (const std::exception& e) {
    std::cerr << "herald-sandbox: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
