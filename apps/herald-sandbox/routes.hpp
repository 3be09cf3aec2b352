#pragma once
// The sandbox's areas, each registering its routes from its own file. A new area (GraphQL
// under /client/q and /inbox/q, REST under /users/, …) adds a file and a line in main.cpp.

#include <filesystem>
#include <optional>

#include "journal.hpp"
#include "router.hpp"

namespace sandbox {

/// POST /track/<anything> with {"event": CLICKED | DELIVERED | OPENED | READ | UNREAD}.
void addTrackingRoutes(Router& router);

/// GET /files/<path>: the files under `root` (none: every such request is a 404). A symbolic
/// link is followed only while it stays under `root`; one leading out is answered with 403.
/// Throws std::filesystem::filesystem_error when `root` cannot be resolved.
void addFileRoutes(Router& router, std::optional<std::filesystem::path> root);

/// The sandbox's own routes: GET and DELETE /_sandbox/requests (the journal) and
/// GET /_sandbox/bytes/<N>.<ext> (made-up media of N bytes).
void addSandboxRoutes(Router& router, Journal& journal);

}  // namespace sandbox
