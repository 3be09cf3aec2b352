#pragma once
// The sandbox's areas, each registering its routes from its own file. A new area (GraphQL
// under /client/q and /inbox/q, REST under /users/, …) adds a file and a line in main.cpp.

#include <filesystem>
#include <optional>

#include "accounts.hpp"
#include "brands.hpp"
#include "graphql/request.hpp"
#include "graphql/schemas.hpp"
#include "inbox.hpp"
#include "journal.hpp"
#include "outbox.hpp"
#include "preferences.hpp"
#include "realtime.hpp"
#include "router.hpp"
#include "trouble.hpp"

namespace sandbox {

/// POST /track/<anything> with {"event": CLICKED | DELIVERED | OPENED | READ | UNREAD}; the
/// event is kept with the outbox's message of that id, if there is one.
void addTrackingRoutes(Router& router, Outbox& outbox);

/// The service's push-token routes, PUT and DELETE /users/<id>/tokens/<token> (with the
/// user's access token), and the account's own: GET /_sandbox/users/<id> (the user and its
/// tokens) and POST /_sandbox/users/<id>/token (an access token, {"ttl": seconds} or ?ttl=).
void addUserRoutes(Router& router, Accounts& accounts);

/// POST /_sandbox/send {"user", "push", "tenant"?}: one message per push token of the user,
/// kept in the outbox, and one message in the user's inbox; GET /_sandbox/outbox (?token=,
/// ?user=) lists them with their tracking events, DELETE /_sandbox/outbox empties it.
void addOutboxRoutes(Router& router, Accounts& accounts, Outbox& outbox, Inbox& inbox);

/// POST /inbox/q: the inbox's GraphQL queries (count, messages, message) and mutations
/// (clicked, read, unread, opened, archive, markAllRead) on the user of "x-herald-user-id",
/// with that user's access token or the account's client key. POST
/// /_sandbox/users/<id>/messages puts a message into the user's inbox.
void addInboxRoutes(Router& router, Accounts& accounts, Inbox& inbox,
                    const graphql::Limits& limits);

/// Keeps `message` in `inbox` with tracking ids that are URLs of this service's /track/ route
/// under `trackingBase` ("http://127.0.0.1:PORT/track/").
InboxMessage addInboxMessage(Inbox& inbox, InboxMessage message, const std::string& trackingBase);

/// "http://<Host>/track/": the tracking URLs lead back here the way the caller came. Throws
/// BadRequest when the request has no Host, or one that is not a host name with a port.
std::string trackingBase(const Request& request);

/// POST /client/q: the API's GraphQL query brand(brandId) with the fields asked for, on
/// behalf of "x-herald-user-id" (access token or client key); PUT /_sandbox/brands/<id>
/// ({"settings": {"colors", "inapp"}}) sets a brand.
void addBrandRoutes(Router& router, Accounts& accounts, Brands& brands,
                    const graphql::Limits& limits);

/// GET /users/<id>/preferences[?cursor=…] (a page of topics with the user's choices), GET and
/// PUT /users/<id>/preferences/<topic>, with the user's access token; PUT /_sandbox/topics
/// replaces the account's topics.
void addPreferenceRoutes(Router& router, Accounts& accounts, Preferences& preferences);

/// GET /files/<path>: the files under `root` (none: every such request is a 404). A symbolic
/// link is followed only while it stays under `root`; one leading out is answered with 403.
/// Throws std::filesystem::filesystem_error when `root` cannot be resolved.
void addFileRoutes(Router& router, std::optional<std::filesystem::path> root);

/// The sandbox's own routes: GET and DELETE /_sandbox/requests (the journal), POST, GET and
/// DELETE /_sandbox/trouble (trouble rules for the next requests to a path) and
/// GET /_sandbox/bytes/<N>.<ext> (made-up media of N bytes).
void addSandboxRoutes(Router& router, Journal& journal, TroubleRules& troubleRules);

/// The realtime socket's own routes: POST /_sandbox/realtime/<user> (trouble for the
/// connections subscribed to the user) and GET /_sandbox/realtime (the open connections).
void addRealtimeRoutes(Router& router, Realtime& realtime);

}  // namespace sandbox
