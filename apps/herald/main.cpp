// herald: the command a person uses to drive the Herald client: sign a user in and out, see
// who is signed in, give the device's push tokens to the service, read and watch the inbox,
// and read the brand and the user's preferences. A thin layer over the client library, which
// never prints: the command does, as text or JSON lines.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/command_line.hpp"
#include "commands.hpp"
#include "core/constants.hpp"
#include "device_tokens.hpp"
#include "herald/endpoints.hpp"
#include "herald/preference_client.hpp"
#include "herald/token_client.hpp"
#include "platform/device.hpp"
#include "platform/executor.hpp"
#include "platform/system_log.hpp"
#include "platform/tls.hpp"
#include "platform/user_defaults.hpp"
#include "platform/version.hpp"
#include "report.hpp"

namespace {

constexpr const char* kName = "herald";

constexpr const char* kDescription =
    R"(Drives the Herald client from the command line: signs a user in and out, registers the
device's push tokens with the service, reads and changes the user's inbox and watches it
live, shows the account's brand and reads and sets the user's notification preferences.
Credentials and the device's tokens are kept in the configuration folder, so that each
command starts where the last one left off.
)";

constexpr const char* kFooter = R"(Global options go before or after the command.

Output: one line of text per result on standard output; with --json, one JSON object per
line instead, and errors on standard error as {"error": {"code", "message", "type"}}.

Exit status (every command):
  0  done
  1  the service refused a request (its code, message and type on standard error)
  2  bad command line or value (one line on standard error)
  3  the service could not be reached, or did not answer in time
  4  a file in the configuration folder could not be read or written

Environment:
  HERALD_ENDPOINT  the service's base URL when --endpoint is not given)";

// Every command takes them; its own help points there.
constexpr const char* kGlobalOptions =
    "Global options (--endpoint, --config-dir, --json, --show-logs) and the exit status:\n"
    "see herald --help.";

// Help reads like a manual page: the command line first, then what the command does. The
// labels say "command" where CLI11 says "subcommand".
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() {
    column_width(26);
    label("SUBCOMMAND", "COMMAND");
    label("SUBCOMMANDS", "COMMANDS");
  }
  std::string make_description(const CLI::App*) const override { return {}; }
  std::string make_usage(const CLI::App* app, std::string name) const override {
    std::string description = app->get_description();
    if (!description.empty() && description.back() != '\n') description += '\n';
    return CLI::Formatter::make_usage(app, std::move(name)) + "\n" + description;
  }
};

// ---- values the command line takes ----------------------------------------------------------

std::string providerKeys() {
  using herald::HeraldPushProvider;
  std::string keys;
  for (auto provider :
       {HeraldPushProvider::apn, HeraldPushProvider::firebaseFcm, HeraldPushProvider::expo,
        HeraldPushProvider::oneSignal, HeraldPushProvider::pusherBeams})
    keys += (keys.empty() ? "" : ", ") + std::string(toString(provider));
  return keys;
}

// Each check returns what is wrong, worded to follow the option's name, or nothing.
using Check = std::string (*)(const std::string&);

std::string checkProvider(const std::string& key) {
  if (herald::pushProviderFromString(key)) return {};
  return "takes a provider key (" + providerKeys() + "), not '" + key + "'";
}

// User ids and tokens go into the service's URL paths as they are, so each must be one path
// segment that needs no escaping.
std::string checkPathSegment(const std::string& text) {
  static constexpr std::string_view allowed = "-._~!$&'()*+,;=:@";
  if (text.empty()) return "must not be empty";
  if (text == "." || text == "..") return "cannot be '" + text + "'";
  for (char c : text) {
    const bool alphanumeric =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alphanumeric && allowed.find(c) == std::string_view::npos)
      return "may hold letters, digits and " + std::string(allowed) + " only, not '" + text +
             "' (it goes into the service's URLs as it is)";
  }
  return {};
}

// Credentials and the tenant go into header fields.
std::string checkHeaderValue(const std::string& text) {
  if (text.empty()) return "must not be empty";
  for (unsigned char c : text)
    if (c < 0x20 || c == 0x7f) return "must not hold control characters (line breaks, tabs)";
  return {};
}

std::string checkHex(const std::string& text) {
  if (text.empty() || !cli::bytesFromHex(text))
    return "takes an even number of hexadecimal digits (one byte each pair), not '" + text + "'";
  return {};
}

std::string checkProviderToken(const std::string& text) {
  const auto equals = text.find('=');
  if (equals == std::string::npos)
    return "takes PROVIDER=TOKEN (PROVIDER one of " + providerKeys() + "), not '" + text + "'";
  if (auto problem = checkProvider(text.substr(0, equals)); !problem.empty())
    return problem.replace(0, std::string_view("takes a provider key").size(),
                           "takes PROVIDER=TOKEN with a provider key");
  if (auto problem = checkPathSegment(text.substr(equals + 1)); !problem.empty())
    return "names a token that " + problem;
  return {};
}

// Message ids, tracking ids and cursors go into the text of GraphQL strings as they are.
std::string checkInboxValue(const std::string& text) {
  if (text.empty()) return "must not be empty";
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) return "must not hold control characters (line breaks, tabs)";
    if (c == '"' || c == '\\')
      return "must not hold quotes or backslashes (it goes into the service's query as it "
             "is), not '" + text + "'";
  }
  return {};
}

std::string checkLimit(const std::string& text) {
  const std::string problem = "takes a whole number from 1 to 100, not '" + text + "'";
  if (text.empty() || text.size() > 3) return problem;
  for (char c : text)
    if (c < '0' || c > '9') return problem;
  const int value = std::stoi(text);
  return value >= 1 && value <= 100 ? std::string() : problem;
}

// "optedIn" or "optedOut": the statuses a user may choose.
std::string checkPreferenceStatus(const std::string& text) {
  if (text == "optedIn" || text == "optedOut") return {};
  return "takes optedIn or optedOut, not '" + text + "'";
}

// The channels by their names in the client ("directMessage"), comma-separated.
const std::vector<std::pair<std::string, herald::HeraldUserPreferencesChannel>>& channelNames() {
  using C = herald::HeraldUserPreferencesChannel;
  static const std::vector<std::pair<std::string, C>> names{
      {"push", C::push}, {"sms", C::sms}, {"email", C::email},
      {"directMessage", C::directMessage}, {"webhook", C::webhook}};
  return names;
}

std::optional<std::vector<herald::HeraldUserPreferencesChannel>> parseChannels(
    const std::string& text) {
  std::vector<herald::HeraldUserPreferencesChannel> channels;
  std::size_t start = 0;
  while (true) {
    const auto comma = text.find(',', start);
    const auto name = text.substr(start, comma == std::string::npos ? comma : comma - start);
    const auto found = std::find_if(channelNames().begin(), channelNames().end(),
                                    [&](const auto& entry) { return entry.first == name; });
    if (found == channelNames().end()) return std::nullopt;
    channels.push_back(found->second);
    if (comma == std::string::npos) return channels;
    start = comma + 1;
  }
}

std::string checkChannels(const std::string& text) {
  if (parseChannels(text)) return {};
  std::string names;
  for (const auto& [name, channel] : channelNames()) names += (names.empty() ? "" : ", ") + name;
  return "takes channels separated by commas, each one of " + names + ", not '" + text + "'";
}

// Brand ids go into the text of a GraphQL string as they are, as message ids do.
std::string checkBrandId(const std::string& text) {
  return checkInboxValue(text);
}

std::string checkEndpoint(const std::string& text) {
  try {
    herald::Endpoints::localService(text);
    return {};
  } catch (const std::exception&) {
    return "takes an http(s) URL with a host (such as http://127.0.0.1:8080), not '" + text + "'";
  }
}

std::string checkConfigDir(const std::string& text) {
  std::error_code ec;
  if (text.empty()) return "must not be empty";
  if (std::filesystem::exists(text, ec) && !std::filesystem::is_directory(text, ec))
    return "names a file, not a folder: '" + text + "'";
  return {};
}

CLI::Validator validator(Check check) {
  return CLI::Validator([check](std::string& text) { return check(text); }, "");
}

// ---- the command line ---------------------------------------------------------------------

struct Global {
  std::string endpoint;
  std::string configDir;
  std::string caFile;
  bool json = false;
  bool showLogs = false;
};

struct SignInArguments {
  std::string user, tenant, jwt, clientKey, apnsHex;
  std::vector<std::string> providerTokens;
};

struct TokenArguments {
  std::string provider;
  std::string token;
  std::string hex;
};

// The commands and their options; parsing fills in the arguments.
struct CommandLine {
  CommandLine();

  CLI::App app{kDescription, kName};
  Global global;
  SignInArguments signIn;
  TokenArguments token;
  CLI::App* signin = nullptr;
  CLI::App* signout = nullptr;
  CLI::App* whoami = nullptr;
  CLI::App* tokenSet = nullptr;
  CLI::App* tokenAPNS = nullptr;
  CLI::App* tokenGet = nullptr;
  CLI::App* inbox = nullptr;
  CLI::App* brand = nullptr;
  std::string brandId;
  cli::PreferencesRequest preferences;
  std::string preferenceStatus, preferenceChannels;
  // The preferences' commands and what each asks for.
  std::vector<std::pair<CLI::App*, cli::PreferencesRequest::Kind>> preferenceCommands;
  cli::InboxRequest inboxRequest;
  std::string inboxLimit;
  CLI::App* inboxWatch = nullptr;
  cli::WatchRequest watch;
  CLI::App* ui = nullptr;
  cli::ScreensRequest screens;
  std::string screensPageSize;
  // The inbox's commands and what each asks for.
  std::vector<std::pair<CLI::App*, cli::InboxRequest::Kind>> inboxCommands;

 private:
  void addGlobalOptions();
  void addSession();
  void addToken();
  void addInbox();
  void addPreferences();
  void addScreens();
};

CommandLine::CommandLine() {
  app.formatter(std::make_shared<HelpFormatter>());
  app.footer(kFooter);
  // Inherited by every command made below: global options may follow the command.
  app.fallthrough();
  app.require_subcommand(1);
  app.set_help_flag("-h,--help", "show this text")->disable_flag_override();
  app.set_version_flag("--version", std::string(kName) + " " + platform::kVersion,
                       "show the version")
      ->disable_flag_override();
  addGlobalOptions();
  addSession();
  addToken();
  addInbox();
  addPreferences();
  addScreens();
}

void CommandLine::addGlobalOptions() {
  app.add_option("--endpoint", global.endpoint,
                 "the service's base URL (default: the hosted service)")
      ->type_name("URL")
      ->envname("HERALD_ENDPOINT")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(validator(checkEndpoint));
  app.add_option("--config-dir", global.configDir,
                 "where the credentials (defaults.json) and the device's tokens\n"
                 "(device.json) are kept (else $XDG_CONFIG_HOME/herald, or\n"
                 "~/.config/herald)")
      ->type_name("DIR")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(validator(checkConfigDir));
  app.add_option("--ca-file", global.caFile,
                 "trust the CA certificates in this PEM file for https and wss\n"
                 "instead of the system's (a local service with a test certificate)")
      ->type_name("FILE")
      ->envname("HERALD_CA_FILE")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(CLI::ExistingFile);
  app.add_flag("--json", global.json, "one JSON object per line instead of text")
      ->disable_flag_override();
  app.add_flag("--show-logs", global.showLogs,
               "the client's debug log (every request and answer) on standard\n"
               "error; without it only its error lines are shown")
      ->disable_flag_override();
}

void CommandLine::addSession() {
  signin = app.add_subcommand(
      "signin", "sign a user in and register the device's push tokens with the service");
  signin->group("Commands");
  signin->footer(
      R"(A user id needs --jwt, --client-key or both. Given tokens are kept on this device, and
every token it keeps is registered for the user. Whoever was signed in is signed out
first. A token the service refuses is reported (exit status 1, or 3 when the service
could not be reached); the user stays signed in and the token is tried again at the next
sign-in.

)" + std::string(kGlobalOptions));
  signin->add_option("--user", signIn.user, "the user's id")
      ->type_name("ID")
      ->required()
      ->check(validator(checkPathSegment));
  signin->add_option("--tenant", signIn.tenant, "the tenant the user belongs to")
      ->type_name("ID")
      ->check(validator(checkHeaderValue));
  signin->add_option("--jwt", signIn.jwt, "the user's access token")
      ->type_name("TOKEN")
      ->check(validator(checkHeaderValue));
  signin->add_option("--client-key", signIn.clientKey, "the service account's public client key")
      ->type_name("KEY")
      ->check(validator(checkHeaderValue));
  signin->add_option("--apns-token", signIn.apnsHex, "the platform's raw push token, in hex")
      ->type_name("HEX")
      ->check(validator(checkHex));
  signin
      ->add_option(
          "--token", signIn.providerTokens,
          "a provider's push token, PROVIDER one of\n" + providerKeys() + "; may be repeated")
      ->type_name("PROVIDER=TOKEN")
      ->check(validator(checkProviderToken));

  signout = app.add_subcommand(
      "signout", "sign the user out (tokens stay registered, and kept on this device)");
  whoami = app.add_subcommand("whoami", "who is signed in (no network)");
  for (auto* command : {signout, whoami}) {
    command->group("Commands");
    command->footer(kGlobalOptions);
  }
}

void CommandLine::addToken() {
  auto* tokens = app.add_subcommand("token", "the device's push tokens");
  tokens->group("Commands");
  tokens->require_subcommand(1);
  tokens->footer(
      R"(A token is kept on this device. When a user is signed in, the command signs in again
from the stored credentials (as an application does at launch, which registers the
device's tokens again) and registers the new token, taking the one it replaces off the
service; with nobody signed in it is registered at the next sign-in.

)" + std::string(kGlobalOptions));
  tokenSet = tokens->add_subcommand("set", "keep and register a provider's token");
  tokenSet->add_option("PROVIDER", token.provider, providerKeys())
      ->type_name("")
      ->required()
      ->check(validator(checkProvider));
  tokenSet->add_option("TOKEN", token.token, "the token text")
      ->type_name("")
      ->required()
      ->check(validator(checkPathSegment));
  tokenAPNS =
      tokens->add_subcommand("apns", "keep and register the platform's raw token (as \"apn\")");
  tokenAPNS->add_option("HEX", token.hex, "the token's bytes in hex")
      ->type_name("")
      ->required()
      ->check(validator(checkHex));
  tokenGet =
      tokens->add_subcommand("get",
                             "print the device's token for a provider (no network); when it has\n"
                             "none, \"no token for PROVIDER\" (null in JSON) and exit status 0");
  tokenGet->add_option("PROVIDER", token.provider, providerKeys())
      ->type_name("")
      ->required()
      ->check(validator(checkProvider));
  for (auto* command : {tokenSet, tokenAPNS, tokenGet}) command->group("Commands");
}

void CommandLine::addInbox() {
  using Kind = cli::InboxRequest::Kind;
  inbox = app.add_subcommand("inbox", "the signed-in user's inbox");
  inbox->group("Commands");
  inbox->require_subcommand(1);
  inbox->footer(
      R"(Each command signs in again from the stored credentials (as an application does at
launch, which registers the device's tokens again) and loads the live inbox: the first
page of the feed and of the archive and the unread count. list and count show what was
loaded; read, unread, open, click, archive and read-all change the message there and tell
the service (a refusal undoes the change). A message that is not on the first page is
looked for on the next pages of the feed, then of the archive; one found nowhere is
refused ("no message ID in the inbox", exit status 1), as is a click on a message
without a click tracking id. list --after CURSOR and get ask the service directly (the
live inbox pages from its own cursor). With nobody signed in: "No user signed in", exit
status 1. A message is shown as its age, a star when unread, its title and id, and its
body (or preview) below.

)" + std::string(kGlobalOptions));

  auto* list = inbox->add_subcommand(
      "list", "a page of messages, newest first; the last line tells the cursor of the next");
  list->add_flag("--archived", inboxRequest.archived, "the archived messages instead")
      ->disable_flag_override();
  list->add_option("--limit", inboxLimit, "messages per page, 1 to 100 (default 32)")
      ->type_name("N")
      ->check(validator(checkLimit));
  list->add_option("--after", inboxRequest.after, "the page after this cursor")
      ->type_name("CURSOR")
      ->check(validator(checkInboxValue));
  inboxCommands.emplace_back(list, Kind::list);
  inboxCommands.emplace_back(inbox->add_subcommand("count", "the number of unread messages"),
                             Kind::count);
  inboxCommands.emplace_back(inbox->add_subcommand("read-all", "mark every message as read"),
                             Kind::readAll);

  const auto withId = [&](const char* name, const char* description, Kind kind) {
    auto* command = inbox->add_subcommand(name, description);
    command->add_option("ID", inboxRequest.messageId, "the message's id")
        ->type_name("")
        ->required()
        ->check(validator(checkInboxValue));
    inboxCommands.emplace_back(command, kind);
    return command;
  };
  withId("get", "one message (the service sends no title, preview or actions here)", Kind::get);
  withId("read", "mark a message as read", Kind::read);
  withId("unread", "mark a message as unread", Kind::unread);
  withId("open", "mark a message as opened", Kind::open);
  withId("archive", "archive a message", Kind::archive);
  withId("click", "report a click on a message (with its own click tracking id)", Kind::click);
  for (auto& [command, kind] : inboxCommands) command->group("Commands");

  inboxWatch = inbox->add_subcommand(
      "watch", "the live inbox as it changes, driven from standard input, until Ctrl-C");
  inboxWatch->group("Commands");
  inboxWatch->footer(
      R"(Loads the live inbox as an application's screen does (one listener, the first pages,
the unread count, then the realtime socket) and prints each call of the listener as one
JSON line on standard output, as it happens:
  {"callback": "onLoading"}
  {"callback": "onFeedChanged" | "onArchiveChanged", "count", "totalCount",
   "canPaginate", "cursor", "ids": [...]}     (onPageAdded: the same with "feed")
  {"callback": "onUnreadCountChanged", "count": 3}
  {"callback": "onMessageAdded" | "onMessageChanged" | "onMessageRemoved",
   "feed": "feed" | "archived", "index": 0, "message": {...}}
  {"callback": "onError", "message", "type", "code"}
The inbox's own registry lines ("Herald Inbox Listener Registered. ...") are plain text
on standard output too: skip lines that do not start with "{".
Standard input takes commands, one a line, run one after another: read ID, unread ID,
open ID, click ID, archive ID, read-all, next feed, next archived, refresh, background
(closes the socket, as the application going to the background does), foreground (loads
the inbox again). Each is answered, after the calls its change made, by
{"command": "...", "ok": true} (next: with "count") or {"command": "...", "error",
"type", "code"}; the watch goes on either way. The end of standard input does not end the
watch; Ctrl-C (or SIGTERM) does, with exit status 0.

--raw prints the realtime socket's frames instead, decoded, one JSON line each:
  {"type": "message", "message": {...}}   a new message
  {"type": "event", "event": {"event": "read", "messageId": "...", "type": "event"}}
A frame that cannot be decoded is left out with an error line on standard error.
Ctrl-C (or SIGTERM) closes the connection with code 1000 and exits with 0; a connection
the service closes or that fails exits with 3.

)" + std::string(kGlobalOptions));
  inboxWatch->add_flag("--raw", watch.raw, "the socket's frames themselves, not the live inbox")
      ->disable_flag_override();
  inboxWatch->add_option("--keep-alive", watch.keepAlive,
                         "with --raw: seconds between keep-alive messages (default 300)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.05, 86400.0));
}

void CommandLine::addPreferences() {
  using Kind = cli::PreferencesRequest::Kind;
  const std::string session =
      R"(Each command signs in again from the stored credentials (as an application does at
launch) and asks the service. With nobody signed in: "No user signed in", exit status 1.

)" + std::string(kGlobalOptions);
  brand = app.add_subcommand("brand", "the account's brand: its primary colour and footer");
  brand->group("Commands");
  brand->footer(session);
  brand->add_option("BRAND_ID", brandId, "the brand's id")
      ->type_name("")
      ->required()
      ->check(validator(checkBrandId));

  auto* prefs = app.add_subcommand("prefs", "the signed-in user's notification preferences");
  prefs->group("Commands");
  prefs->require_subcommand(1);
  prefs->footer(
      "A topic is shown as the user's status, its name, id and section, and the channels the\n"
      "user chose, if any.\n\n" + session);
  auto* list = prefs->add_subcommand("list", "the first page of topics, or every one with --all");
  list->add_flag("--all", preferences.all, "every page, following the service's cursor")
      ->disable_flag_override();
  preferenceCommands.emplace_back(list, Kind::list);
  auto* get = prefs->add_subcommand("get", "one topic");
  preferenceCommands.emplace_back(get, Kind::get);
  auto* set = prefs->add_subcommand(
      "set", "choose a topic's status and, with --channels, the channels it may use");
  preferenceCommands.emplace_back(set, Kind::set);
  for (auto* command : {get, set})
    command->add_option("TOPIC", preferences.topicId, "the topic's id")
        ->type_name("")
        ->required()
        ->check(validator(checkPathSegment));
  set->add_option("--status", preferenceStatus, "optedIn or optedOut")
      ->type_name("STATUS")
      ->required()
      ->check(validator(checkPreferenceStatus));
  set->add_option("--channels", preferenceChannels,
                  "the user's own channels, from push, sms, email, directMessage,\n"
                  "webhook (sent in that order); without it, the account's")
      ->type_name("LIST")
      ->check(validator(checkChannels));
  for (auto& [command, kind] : preferenceCommands) command->group("Commands");
}

void CommandLine::addScreens() {
  ui = app.add_subcommand("ui", "the inbox and the preferences as screens in the terminal");
  ui->group("Commands");
  ui->footer(R"(Signs in again from the stored credentials and shows the live inbox: Tab switches
between Inbox and Archived, Enter opens a message, r reads or unreads it, a archives it,
A reads every one, R reloads, p shows the preferences, ? lists every key, q quits.
With nobody signed in, the screen says how to sign in. NO_COLOR turns colours off;
the terminal must be able to move the cursor (not TERM=dumb).

)" + std::string(kGlobalOptions));
  ui->add_option("--brand", screens.brandId,
                 "the brand whose primary colour tints the screens and whose\n"
                 "settings may hide the service's footer")
      ->type_name("ID")
      ->check(validator(checkBrandId));
  ui->add_option("--page-size", screensPageSize, "messages a page, 1 to 100 (default 32)")
      ->type_name("N")
      ->check(validator(checkLimit));
  ui->add_option("--log", screens.logFile,
                 "where the client's own lines go while the screens are up\n"
                 "(default: nowhere)")
      ->type_name("FILE");
}

// One line that says what is wrong, in the command's words where CLI11's would name its
// internals.
std::string describe(const CLI::ParseError& error, const CLI::App& app) {
  const std::string text = error.what();
  if (dynamic_cast<const CLI::ExtrasError*>(&error)) {
    const auto remaining = app.remaining(true);
    for (const auto& arg : remaining)
      if (arg.size() > 1 && arg[0] == '-') return "unknown option '" + arg + "' (see --help)";
    if (!remaining.empty()) {
      if (app.get_subcommands().empty())
        return "unknown command '" + remaining.front() + "' (see --help)";
      return "unexpected argument '" + remaining.front() + "' (see --help)";
    }
    return text;
  }
  if (dynamic_cast<const CLI::RequiredError*>(&error)) {
    // CLI11 checks for a missing command before it looks at what it did not recognise.
    if (const auto remaining = app.remaining(true); !remaining.empty())
      return "unknown command '" + remaining.front() + "' (see --help)";
    if (text.find("ubcommand") != std::string::npos) {
      if (app.get_subcommand("token")->parsed())
        return "token needs a command: set, apns or get (see token --help)";
      if (app.get_subcommand("prefs")->parsed())
        return "prefs needs a command: list, get or set (see prefs --help)";
      if (app.get_subcommand("inbox")->parsed())
        return "inbox needs a command: list, count, get, read, unread, open, archive, click, "
               "read-all or watch (see inbox --help)";
      return "no command given (see --help)";
    }
    // "--user is required"
    return text;
  }
  return command_line::reword(error);
}

// Whether the command line holds `option` before any "--" (or, `withValue`, "option=..."):
// for reporting an error in a command line CLI11 refused.
bool mentions(int argc, char** argv, std::string_view option, bool withValue) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--") break;
    if (arg == option) return true;
    if (withValue && arg.starts_with(option) && arg.substr(option.size()).starts_with('='))
      return true;
  }
  return false;
}

// The exit status when the program ends here (help, version, a bad command line).
std::optional<int> parse(CommandLine& line, int argc, char** argv) {
  try {
    line.app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    // The help of the command named, if any.
    std::cout << line.app.help();
    return cli::ExitStatus::success;
  } catch (const CLI::CallForVersion& version) {
    std::cout << version.what() << "\n";
    return cli::ExitStatus::success;
  } catch (const CLI::ParseError& error) {
    auto message = describe(error, line.app);
    // The value may have come from the environment instead.
    if (message.starts_with("--endpoint ") && !mentions(argc, argv, "--endpoint", true))
      message.replace(0, std::string_view("--endpoint").size(), "HERALD_ENDPOINT");
    cli::Reporter(mentions(argc, argv, "--json", false)).failure(cli::Failure::usageError(message));
    return cli::ExitStatus::usage;
  }
}

// What signin's options ask for; throws UsageError for what no single option could say.
cli::SignInRequest signInRequest(const SignInArguments& given) {
  if (given.jwt.empty() && given.clientKey.empty())
    throw cli::UsageError("signin needs --jwt, --client-key or both");
  cli::SignInRequest request;
  request.userId = given.user;
  if (!given.tenant.empty()) request.tenantId = given.tenant;
  request.accessToken = given.jwt;
  if (!given.clientKey.empty()) request.clientKey = given.clientKey;
  std::vector<std::string> providers;
  if (!given.apnsHex.empty()) {
    request.apnsToken = cli::bytesFromHex(given.apnsHex);
    providers.emplace_back(toString(herald::HeraldPushProvider::apn));
  }
  for (const auto& text : given.providerTokens) {
    const auto equals = text.find('=');
    auto provider = text.substr(0, equals);
    if (std::find(providers.begin(), providers.end(), provider) != providers.end())
      throw cli::UsageError("signin names a token for " + provider +
                            " twice (--apns-token gives the apn token); a device has one per "
                            "provider");
    providers.push_back(provider);
    request.tokens.emplace_back(std::move(provider), text.substr(equals + 1));
  }
  return request;
}

// Where the client goes, where it keeps its files, who the device is and what the log shows.
void configure(const Global& global, const cli::Reporter& report) {
  // What goes wrong in the layers below is worth seeing (a store moved aside, say); their
  // debug lines only when asked for.
  platform::SystemLog::setDebugEnabled(global.showLogs);
  platform::SystemLog::setSink(report.logSink(global.showLogs));
  herald::Endpoints::setCurrent(global.endpoint.empty()
                                    ? herald::Endpoints::defaults()
                                    : herald::Endpoints::localService(global.endpoint));
  if (!global.configDir.empty())
    platform::UserDefaults::setStandardDirectory(std::filesystem::path(global.configDir));
  if (!global.caFile.empty()) platform::setTrustedCertificates(global.caFile);
  platform::DeviceIdentity::setCurrent(
      platform::DeviceIdentity::machine(std::string(K::Application::bundleIdentifier)));
}

int dispatch(CommandLine& line, cli::Context& context) {
  if (line.signin->parsed())
    return platform::blockOn(cli::signIn(signInRequest(line.signIn), context));
  if (line.signout->parsed()) return platform::blockOn(cli::signOut(context));
  if (line.whoami->parsed()) return cli::whoAmI(context);
  if (line.tokenSet->parsed())
    return platform::blockOn(cli::setToken(line.token.provider, line.token.token, context));
  if (line.tokenAPNS->parsed())
    return platform::blockOn(cli::setAPNSToken(*cli::bytesFromHex(line.token.hex), context));
  if (line.tokenGet->parsed()) return cli::getToken(line.token.provider, context);
  for (const auto& [command, kind] : line.inboxCommands) {
    if (!command->parsed()) continue;
    auto request = line.inboxRequest;
    request.kind = kind;
    if (!line.inboxLimit.empty()) request.limit = std::stoll(line.inboxLimit);
    return cli::inbox(std::move(request), context);
  }
  if (line.inboxWatch->parsed()) {
    if (!line.watch.raw && line.inboxWatch->count("--keep-alive") > 0)
      throw cli::UsageError("inbox watch takes --keep-alive with --raw only (the live inbox keeps "
                            "its socket alive itself)");
    return cli::watchInbox(line.watch, context);
  }
  if (line.brand->parsed()) return platform::blockOn(cli::brand(line.brandId, context));
  if (line.ui->parsed()) {
    auto request = line.screens;
    if (!line.screensPageSize.empty()) request.pageSize = std::stoll(line.screensPageSize);
    request.endpoint = line.global.endpoint;
    request.configDir = line.global.configDir;
    return cli::screens(std::move(request), context);
  }
  for (const auto& [command, kind] : line.preferenceCommands) {
    if (!command->parsed()) continue;
    auto request = line.preferences;
    request.kind = kind;
    request.status = line.preferenceStatus == "optedOut"
                         ? herald::HeraldUserPreferencesStatus::optedOut
                         : herald::HeraldUserPreferencesStatus::optedIn;
    request.channelsGiven = !line.preferenceChannels.empty();
    if (request.channelsGiven) request.channels = *parseChannels(line.preferenceChannels);
    return platform::blockOn(cli::preferences(std::move(request), context));
  }
  throw cli::UsageError("no command given (see --help)");
}

int run(int argc, char** argv) {
  CommandLine line;
  if (const auto status = parse(line, argc, argv)) return *status;

  const cli::Reporter report(line.global.json);
  try {
    configure(line.global, report);
    cli::DeviceTokens device(platform::UserDefaults::standardFile().parent_path() / "device.json");
    cli::Context context{report, device, line.global.showLogs};
    return dispatch(line, context);
  } catch (const cli::UsageError& error) {
    report.failure(cli::Failure::usageError(error.what()));
    return cli::ExitStatus::usage;
  } catch (...) {
    const auto failure = cli::Failure::from(std::current_exception());
    report.failure(failure);
    return failure.status;
  }
}

}  // namespace

int main(int argc, char** argv) {
  return run(argc, argv);
}
