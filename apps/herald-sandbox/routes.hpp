#pragma once
// The sandbox's areas, each registering its routes from its own file. A new area (GraphQL
// under /client/q and /inbox/q, REST under /users/, …) adds a file and a line in main.cpp.

#include <filesystem>
#include <optional>

#include "accounts.hpp"
#include "journal.hpp"
#include "outbox.hpp"
#include "router.hpp"

namespace sandbox {

/// POST /track/<anything> with {"event": CLICKED | DELIVERED | OPENED | READ | UNREAD}; the
/// event is kept with the outbox's message of that id, if there is one.
void addTrackingRoutes(Router& router, Outbox& outbox);

/// The service's push-token routes, PUT and DELETE /users/<id>/tokens/<token> (with the
/// user's access token), and the account's own: GET /_sandbox/users/<id> (the user and its
/// tokens) and POST /_sandbox/users/<id>/token (an access token, {"ttl": seconds} or ?ttl=).
void addUserRoutes(Router& router, Accounts& accounts);

/// POST /_sandbox/send {"user", "push"}: one message per push token of the user, kept in the
/// outbox; GET /_sandbox/outbox (?token=, ?user=) lists them with their tracking events,
/// DELETE /_sandbox/outbox empties it.
void addOutboxRoutes(Router& router, Accounts& accounts, Outbox& outbox);

/// GET /files/<path>: the files under `root` (none: every such request is a 404). A symbolic
/// link is followed only while it stays under `root`; one leading out is answered with 403.
/// Throws std::filesystem::filesystem_error when `root` cannot be resolved.
void addFileRoutes(Router& router, std::optional<std::filesystem::path> root);

/// The sandbox's own routes: GET and DELETE /_sandbox/requests (the journal) and
/// GET /_sandbox/bytes/<N>.<ext> (made-up media of N bytes).
void addSandboxRoutes(Router& router, Journal& journal);

}  // namespace sandbox
