// herald-sandbox: a local stand-in for the hosted Herald service, for the demo, the tests
// and the benchmarks. Listens on 127.0.0.1 only.

#include <sys/random.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>

#include "common/command_line.hpp"
#include "accounts.hpp"
#include "inbox.hpp"
#include "journal.hpp"
#include "outbox.hpp"
#include "platform/json.hpp"
#include "platform/version.hpp"
#include "realtime.hpp"
#include "router.hpp"
#include "routes.hpp"
#include "server.hpp"

namespace {

constexpr const char* kName = "herald-sandbox";
// Client keys are public by nature (they ship inside apps), so a fixed one costs nothing and
// can be written once into a test or a configuration.
constexpr const char* kDefaultClientKey = "sandbox-client-key";

constexpr const char* kDescription =
    R"(A local stand-in for the hosted Herald service, on 127.0.0.1 only. Prints its base URL
("http://127.0.0.1:PORT", or https with TLS) as the first line of standard output and serves
until SIGINT or SIGTERM. State (users, push tokens, the outbox, the inboxes, the realtime
connections) lives in memory and ends with the process.
)";

constexpr const char* kFooter = R"(Endpoints:
  POST   /track/<anything>        body {"event": "CLICKED" | "DELIVERED" | "OPENED" | "READ" |
                                  "UNREAD"}: 200 {"tracked": EVENT}; any other body: 400
                                  {"message": "...", "type": "invalid_request_error"}. An
                                  event for a message of the outbox is kept with it
  PUT    /users/<id>/tokens/<token>
                                  registers a push token for the user, body
                                  {"provider_key": "apn", "device": {...}}: 204; registering
                                  it for another user moves it there
  DELETE /users/<id>/tokens/<token>
                                  forgets the token: 204, also when it was not registered
  GET    /users/<id>/preferences[?cursor=CURSOR]
                                  a page of the account's topics (50 at most) with the
                                  user's choice of each: {"items": [{"default_status",
                                  "has_custom_routing", "custom_routing", "status",
                                  "topic_id", "topic_name", "section_name", "section_id"},
                                  ...], "paging": {"more", "cursor"}}; the next page comes
                                  with the cursor as given; one from before the topics were
                                  replaced, or made up, gets 400
  GET    /users/<id>/preferences/<topic>
                                  one topic: {"topic": {...}}; 404 for an unknown topic
  PUT    /users/<id>/preferences/<topic>
                                  the user's choice, body {"topic": {"status": "OPTED_IN" |
                                  "OPTED_OUT", "has_custom_routing": BOOL, "custom_routing":
                                  ["push", "sms", "email", "direct_message", "webhook"]}}:
                                  200 {"topic": {...}}; opting out of a REQUIRED topic gets
                                  400, an unknown topic 404
  POST   /client/q                the API's GraphQL: query brand(brandId) { brandId settings {
                                  colors { primary secondary tertiary } inapp { borderRadius
                                  disableHeraldFooter } } }, answered with the fields asked
                                  for; an unknown brand is null with an error beside it
                                  (200), a document that does not parse or fit gets 400
                                  {"errors"}, as on /inbox/q
  POST   /inbox/q                 the inbox's GraphQL: queries count(params), messages(params,
                                  limit, after) newest first with cursor paging, and
                                  message(messageId); mutations clicked, read, unread, opened,
                                  archive and markAllRead. The user is "x-herald-user-id"; a
                                  document that does not parse or asks for what the schema
                                  lacks gets 400 {"errors": [{"message", "locations"}]} and
                                  runs nothing; otherwise 200 {"data": {...}} with "errors"
                                  beside it for fields that failed (an unknown message id)
  GET    /files/<path>            a file below --files DIR, typed by its extension; a path
                                  with ".." is refused (400), and so is a symbolic link
                                  that leads out of DIR (403)
  POST   /_sandbox/users/<id>/token
                                  an access token for the user: 200 {"jwt": "..."}, valid
                                  for 3600 s or the ttl given as ?ttl=SECONDS or body
                                  {"ttl": SECONDS} (0 or less: already expired)
  GET    /_sandbox/users/<id>     the user and its push tokens: {"id", "tokens": [{"token",
                                  "provider_key", "device"}, ...]}; 404 for a user that has
                                  had no access token made nor push token registered
  POST   /_sandbox/users/<id>/messages
                                  puts a message into the user's inbox, body {"title",
                                  "body", "preview", "actions": [{"content", "href", "data",
                                  "background_color", "style"}], "data": {...}, "created":
                                  "2026-01-02T03:04:05.678Z", "tenant"}, all optional: 200
                                  with the message, its "messageId" and "trackingIds" (URLs
                                  of /track/ here)
  PUT    /_sandbox/brands/<id>    sets a brand, body {"settings": {"colors": {"primary",
                                  "secondary", "tertiary"}, "inapp": {"borderRadius",
                                  "disableHeraldFooter": BOOL}}}, every key optional: 200
  PUT    /_sandbox/topics         replaces the account's topics, body {"topics": [{"topic_id",
                                  "topic_name", "section_id", "section_name",
                                  "default_status": "OPTED_IN" | "OPTED_OUT" | "REQUIRED",
                                  "has_custom_routing"?, "custom_routing"?}, ...]}: 200
                                  {"topics": COUNT}. Until then the topics are the bundled
                                  sample, samples/topics.json (built into the program)
  POST   /_sandbox/send           body {"user": ID, "push": {...}, "tenant"?}: one message per
                                  push token of the user, whose payload is "push" with "aps"
                                  "mutable-content": 1 and a "trackingUrl" back to this
                                  service, and one inbox message with the alert's title and
                                  body and the push's other keys as "data"; 200 {"messages":
                                  [{"id", "user", "token", "provider_key", "payload",
                                  "events"}, ...], "inboxMessage": {...}}; 404 for an
                                  unknown user, 409 for a user without push tokens
  GET    /_sandbox/outbox         every message sent, with the tracking events reported for
                                  it so far: {"messages": [...]}; ?token= or ?user= narrows it
  DELETE /_sandbox/outbox         empties the outbox
  GET    /_sandbox/bytes/<N>.<ext> N made-up bytes typed by <ext>; images, video and audio
                                  start with a valid header, so attachment checks accept them
  GET    /realtime/?auth=JWT      the realtime socket (WebSocket; also /realtime, and
         /realtime/?clientKey=KEY ?clientKey=): an access token of this account or its client
                                  key, else 401 and no upgrade. Text frames in: {"action":
                                  "subscribe", "data": {"channel": USER, "userAgent",
                                  "event", "version", "clientKey"?, "clientSourceId"?,
                                  "accountId"?}} (with a token, only its own user) and
                                  {"action": "keepAlive"} (no answer); a binary frame is
                                  closed with 1003, anything else with 1008 and the reason.
                                  Out: {"type": "message", ...the message's fields} for each
                                  new inbox message of the user (of its accountId only, when
                                  one was named), and {"type": "event", "event": "read" |
                                  "unread" | "opened" | "click" | "archive" | "mark-all-read",
                                  "messageId"} for each /inbox/q mutation that answers true,
                                  to the user's connections whose clientSourceId is not the
                                  request's "x-herald-client-source-id"
  POST   /_sandbox/realtime/<id>  trouble for the user's subscribed connections, one of
                                  {"close": {"code": 4000, "reason": "..."}}, {"reset": true}
                                  (TCP reset), {"end": true} (the stream ends, no close
                                  frame, as when the process dies), {"text": "..."}, {"frame": JSON}, {"binary":
                                  "00ff"} (hex), {"size": BYTES} (one message frame of that
                                  many bytes), {"stall": true} (no reading, no pong, no
                                  frame until the client gives up); "repeat": N sends N
                                  copies of a text, frame, binary or size (256 MB at most in
                                  all). 200 {"connections": N}; 404 when none is subscribed
  GET    /_sandbox/realtime       the open connections: {"connections": [{"connection", "user",
                                  "tokenUser", "clientSourceId", "accountId", "userAgent",
                                  "version", "subscribed", "framesIn", "framesOut",
                                  "keepAlives", "stalled"}, ...]}
  POST   /_sandbox/trouble        trouble for the next requests to a path, body {"path":
                                  "/inbox/q", "contains": TEXT, "delay", "stall", "status",
                                  "truncate", "times": N}: the next N requests (1 if not
                                  given; "always": true instead: every one until the rules
                                  are deleted) whose path without the query is "path" and
                                  whose body holds "contains" (if given) get that trouble,
                                  as if given as query parameters (the rule's keys win).
                                  Rules are tried in the order given; a request takes the
                                  first that matches. 200 {"rules": PENDING}; a rule without
                                  trouble, or for /_sandbox/, gets 400. A rule for the
                                  socket's path "/realtime/" takes its upgrades: "status"
                                  refuses the next N (e.g. 503, 401), "delay" leaves each
                                  unanswered that long
  GET    /_sandbox/trouble        the pending rules: {"rules": [{"path", ..., "times": LEFT
                                  or "always": true}, ...]}
  DELETE /_sandbox/trouble        removes every rule: 200 {"rules": 0}
  GET    /_sandbox/requests       the journal: every request received outside /_sandbox/, as
                                  [{"method", "path", "headers": [[name, value], ...], "body",
                                  "received", "answered", "status"}], the times being
                                  milliseconds since the sandbox started (monotonic clock)
                                  when the request was read and when its answer was written
                                  ("answered" and "status" come once it is), and every frame
                                  of the realtime socket, as {"method":
                                  "FRAME", "path", "connection", "direction": "received" |
                                  "sent", "kind": "text" | "binary" (hex) | "close" (with
                                  "code") | "ping" | "pong", "body"}
  DELETE /_sandbox/requests       empties the journal
Errors are JSON {"message": "...", "type": "..."}: 404 for an unknown path, 405 for a wrong
method.

Credentials: the service's routes (/users/...) need "Authorization: Bearer <access token>",
an HS256 token signed with the --jwt-secret whose "sub" is the user in the path and which has
not expired ("exp"). Without one, or with a malformed, badly signed or expired one, the answer
is 401 "authentication_error"; a valid token of another user gets 403 "authorization_error".
A client key ("x-herald-client-key") stands in for a token only where the client sends one
(GraphQL calls without a token: /client/q, /inbox/q; the realtime socket's ?clientKey=), never
on REST routes. /track/, /files/ and /_sandbox/ need no credentials.

TLS: with --tls-cert and --tls-key every route is HTTPS and the socket WSS, and the URL
printed is "https://127.0.0.1:PORT"; a plain HTTP request gets 400 naming that URL.

Trouble on request (query parameters, on any path but the socket's upgrade, which takes
only the rules of POST /_sandbox/trouble; in any combination):
  delay=SECONDS     wait before answering
  stall=SECONDS     send the status line and headers, then wait before the body
  status=CODE       answer with this status (200 to 599) instead of the route's
  truncate=BYTES    announce the whole Content-Length, send only BYTES of the body, close
  e.g. /track/m1?delay=5   /files/photo.jpg?truncate=100   /_sandbox/bytes/64.png?status=503
For requests whose URL a test cannot change (every inbox query and mutation goes to
/inbox/q), POST /_sandbox/trouble sets the same trouble ahead of time.

Exit status: 0 after SIGINT or SIGTERM, 1 when the port cannot be bound, 2 for bad options
(including a certificate or key that cannot be read or do not belong together).)";

// Usage line first, then what the program is, then the options, as a manual page reads.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(20); }
  std::string make_description(const CLI::App*) const override { return {}; }
  std::string make_usage(const CLI::App* app, std::string) const override {
    return std::string("Usage: ") + kName +
           " [--port N] [--files DIR] [--jwt-secret SECRET] [--client-key KEY]\n"
           "       [--tls-cert FILE --tls-key FILE] [--verbose]\n\n" +
           app->get_description();
  }
};

std::string randomSecret() {
  unsigned char bytes[32];
  std::size_t filled = 0;
  while (filled < sizeof bytes) {
    const auto n = ::getrandom(bytes + filled, sizeof bytes - filled, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error("cannot make a random secret: getrandom failed");
    }
    filled += static_cast<std::size_t>(n);
  }
  std::string hex;
  for (const unsigned char b : bytes) {
    constexpr const char* digits = "0123456789abcdef";
    hex += digits[b >> 4];
    hex += digits[b & 0xf];
  }
  return hex;
}

CLI::Validator portNumber() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        unsigned port = 0;
        auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
        if (text.empty() || ec != std::errc() || ptr != text.data() + text.size() || port > 65535)
          return "takes a number from 0 to 65535, not '" + text + "'";
        return {};
      },
      "");
}

CLI::Validator directory() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        std::error_code ec;
        if (!std::filesystem::is_directory(text, ec)) return "names no directory: '" + text + "'";
        return {};
      },
      "");
}

// A secret or key travels in header values and signatures: it must be there and printable.
CLI::Validator printableText() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        if (text.empty()) return "must not be empty";
        for (const unsigned char c : text)
          if (c < 0x20 || c == 0x7f) return "must hold no control characters";
        return {};
      },
      "");
}

// One line in the sandbox's words where CLI11's would name its internals.
std::string describe(const CLI::ParseError& error, const CLI::App& app) {
  if (dynamic_cast<const CLI::ExtrasError*>(&error)) {
    const auto extra = app.remaining();
    return "unknown argument '" + (extra.empty() ? std::string() : extra.front()) +
           "' (see --help)";
  }
  return command_line::reword(error);
}

struct Options {
  sandbox::ServerOptions server;
  std::optional<std::filesystem::path> files;
  std::optional<std::string> jwtSecret;
  std::string clientKey = kDefaultClientKey;
  std::optional<std::string> printSchema;
  sandbox::graphql::Limits graphql;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(kDescription, kName);
  app.formatter(std::make_shared<HelpFormatter>());
  app.footer(kFooter);
  app.set_help_flag("-h,--help", "show this text");
  app.set_version_flag("--version", std::string(kName) + " " + platform::kVersion,
                       "show the version");
  app.add_option("--port", options.server.port, "port to listen on (default 0: any free port)")
      ->type_name("N")
      ->check(portNumber());
  app.add_option("--files", options.files, "serve the files below DIR under /files/")
      ->type_name("DIR")
      ->check(directory());
  app.add_option("--jwt-secret", options.jwtSecret,
                 "the HS256 key of the access tokens, its bytes as given (default: 32\n"
                 "random bytes in hex, new at every start; tokens signed with it come\n"
                 "from POST /_sandbox/users/<id>/token)")
      ->type_name("SECRET")
      ->check(printableText());
  app.add_option(
         "--client-key", options.clientKey,
         std::string("the account's public client key (default \"") + kDefaultClientKey + "\")")
      ->type_name("KEY")
      ->check(printableText());
  app.add_option("--tls-cert", options.server.tlsCertificate,
                 "serve HTTPS and WSS with this certificate chain (PEM; with --tls-key)")
      ->type_name("FILE");
  app.add_option("--tls-key", options.server.tlsKey, "the private key of --tls-cert (PEM)")
      ->type_name("FILE");
  app.add_flag("--verbose", options.server.verbose, "one line on standard error for every request")
      ->disable_flag_override();
  app.add_option("--print-schema", options.printSchema,
                 "print the GraphQL schema of /inbox/q (inbox) or /client/q (brand) as SDL\n"
                 "and exit")
      ->type_name("inbox|brand")
      ->check(CLI::IsMember({"inbox", "brand"}));
  auto& limits = options.graphql;
  app.add_option("--graphql-max-bytes", limits.parse.bytes,
                 "longest GraphQL document taken, in bytes (default 65536)")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  app.add_option("--graphql-max-tokens", limits.parse.tokens,
                 "most tokens in a GraphQL document (default 15000)")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  app.add_option("--graphql-max-depth", limits.parse.depth,
                 "deepest nesting of selections, lists, objects and list types (default 32)")
      ->type_name("N")
      ->check(CLI::Range(1, 256));
  app.add_option("--graphql-max-cost", limits.execution.cost,
                 "most values one GraphQL answer may hold, fields times the page sizes\n"
                 "above them, weighed before anything runs (default 50000)")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  app.add_option("--graphql-max-answer", limits.execution.answerBytes,
                 "longest GraphQL answer, in bytes (default 8388608)")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  app.add_option("--graphql-merge-work", limits.validation.mergeWork,
                 "most field comparisons when checking that fields merge (default 500000)")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << kName << ": " << describe(e, app) << "\n";
    return 2;
  }
  if (options.server.tlsCertificate.has_value() != options.server.tlsKey.has_value()) {
    std::cerr << kName << ": --tls-cert and --tls-key go together\n";
    return 2;
  }

  if (options.printSchema) {
    std::cout << sandbox::graphql::printSchema(*options.printSchema == "inbox"
                                                   ? sandbox::inboxSchema()
                                                   : sandbox::brandSchema());
    return 0;
  }

  try {
    sandbox::Accounts accounts(options.jwtSecret ? *options.jwtSecret : randomSecret(),
                               options.clientKey);
    sandbox::Outbox outbox;
    sandbox::Inbox inbox;
    sandbox::Brands brands;
    sandbox::Preferences preferences(
        sandbox::parseTopics(platform::parseJSON(sandbox::sampleTopics())));
    sandbox::Journal journal;
    sandbox::TroubleRules troubleRules;
    options.server.troubleRules = &troubleRules;
    sandbox::Realtime realtime(accounts, journal);
    inbox.setObserver(&realtime);
    options.server.realtime = &realtime;
    sandbox::Router router;
    sandbox::addTrackingRoutes(router, outbox);
    sandbox::addUserRoutes(router, accounts);
    sandbox::addFileRoutes(router, options.files);
    sandbox::addOutboxRoutes(router, accounts, outbox, inbox);
    sandbox::addInboxRoutes(router, accounts, inbox, options.graphql);
    sandbox::addBrandRoutes(router, accounts, brands, options.graphql);
    sandbox::addPreferenceRoutes(router, accounts, preferences);
    sandbox::addSandboxRoutes(router, journal, troubleRules);
    sandbox::addRealtimeRoutes(router, realtime);
    sandbox::Server server(router, journal, options.server);
    std::cout << server.baseURL() << std::endl;
    server.run();
  } catch (const sandbox::TLSSetupError& e) {
    std::cerr << kName << ": " << e.what() << "\n";
    return 2;
  } catch (const std::exception& e) {
    std::cerr << kName << ": " << e.what() << "\n";
    return 1;
  }
  return 0;
}
