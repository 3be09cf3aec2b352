// The inbox's GraphQL schema, as /inbox/q checks, runs, introspects and prints it.

#include "schemas.hpp"

namespace sandbox {

const graphql::Schema& inboxSchema() {
  using graphql::FieldDefinition;
  using graphql::InputValue;
  static const auto schema = [] {
    const std::vector<InputValue> byId{{"messageId", "String!", "The message's id.", {}}};
    const InputValue params{"params",
                            "FilterParamsInput",
                            "Which messages: of one tenant, read or unread, archived or not.",
                            {}};
    auto tracking = [](const char* name, const char* event) {
      return FieldDefinition{
          name, "String", std::string("The URL that records the ") + event + ".", {}, {}};
    };
    return graphql::SchemaBuilder()
        .object("Query", "What a user's inbox holds.",
                {{"count", "Int", "How many messages match the filter.", {params}, {}},
                 {"messages",
                  "MessageConnection",
                  "A page of the messages that match the filter, newest first.",
                  {params,
                   {"limit", "Int", "At most this many messages, from 0 to 100.", "10"},
                   {"after",
                    "String",
                    "The cursor of the page before: its last message's id (pageInfo.startCursor).",
                    {}}},
                  {}},
                 {"message", "Message", "One message of the user, or null.", byId, {}}})
        .object("Mutation", "What a user does with the messages of the inbox.",
                {{"clicked",
                  "Boolean",
                  "Records a click, checked against the message's click tracking id when one "
                  "is given.",
                  {byId.front(), {"trackingId", "String", "The click tracking id.", {}}},
                  {}},
                 {"read", "Boolean", "Marks the message read.", byId, {}},
                 {"unread", "Boolean", "Marks the message unread.", byId, {}},
                 {"opened", "Boolean", "Records that the message was opened.", byId, {}},
                 {"archive", "Boolean", "Moves the message to the archive.", byId, {}},
                 {"markAllRead", "Boolean", "Marks every message of the user read.", {}, {}}})
        .input("FilterParamsInput", "Narrows the messages; every field may be left out.",
               {{"accountId", "String", "Only the messages of this tenant.", {}},
                {"status", "String", "\"read\" or \"unread\".", {}},
                {"archived", "Boolean", "The archive instead of the feed.", {}}})
        .object("MessageConnection", "A page of messages.",
                {{"totalCount", "Int", "How many messages match, on every page.", {}, {}},
                 {"pageInfo", "PageInfo", "Where the page ends.", {}, {}},
                 {"nodes", "[Message]", "The page's messages, newest first.", {}, {}}})
        .object("PageInfo", "Where a page ends.",
                {{"startCursor", "String", "The cursor for the next page.", {}, {}},
                 {"hasNextPage", "Boolean", "Whether more messages follow.", {}, {}}})
        .object(
            "Message", "One message of the inbox.",
            {{"messageId", "String", "The message's id.", {}, {}},
             {"title", "String", "", {}, {}},
             {"body", "String", "", {}, {}},
             {"preview", "String", "", {}, {}},
             {"data", "JSON", "What the sender attached.", {}, {}},
             {"actions", "[Action]", "The buttons of the message.", {}, {}},
             {"trackingIds", "TrackingIds", "", {}, {}},
             {"created", "String", "When it was sent (ISO 8601).", {}, {}},
             {"read", "String", "When it was read, or null.", {}, {}},
             {"opened", "String", "When it was opened, or null.", {}, {}},
             {"archived", "String", "When it was archived, or null.", {}, {}},
             {"content", "MessageContent", "Title, body, preview and actions together.", {}, {}}})
        .object("MessageContent", "What a message shows.",
                {{"title", "String", "", {}, {}},
                 {"body", "String", "", {}, {}},
                 {"preview", "String", "", {}, {}},
                 {"actions", "[Action]", "", {}, {}}})
        .object("Action", "A button of a message.",
                {{"content", "String", "", {}, {}},
                 {"href", "String", "", {}, {}},
                 {"background_color", "String", "", {}, {}},
                 {"style", "String", "", {}, {}},
                 {"data", "JSON", "", {}, {}}})
        .object("TrackingIds", "The URLs that record what happens to a message.",
                {tracking("archiveTrackingId", "archiving"), tracking("openTrackingId", "opening"),
                 tracking("clickTrackingId", "click"), tracking("deliverTrackingId", "delivery"),
                 tracking("unreadTrackingId", "unreading"), tracking("readTrackingId", "reading")})
        .scalar("JSON", "Any JSON value.")
        .build("Query", "Mutation");
  }();
  return schema;
}

}  // namespace sandbox
