// The inbound frames of the inbox socket, apart from the socket itself so that they can be
// decoded (and fuzzed) without a connection.
#include "herald/inbox_socket.hpp"

namespace herald {

namespace {

// A text the enumeration does not know fails the decode with the accepted texts named.
template <class Enum, class Parse>
Enum decodeEnum(const core::KeyedDecoder& decoder, std::string_view key, Parse parse,
                std::string_view accepted) {
  auto text = decoder.decode<std::string>(key);
  if (auto value = parse(text)) return *value;
  throw core::DecodingError(core::DecodingError::Kind::dataCorrupted,
                            core::appendCodingKey(decoder.codingPath(), key),
                            "\"" + text + "\" is not one of " + std::string(accepted));
}

std::optional<PayloadType> payloadTypeFromString(std::string_view text) {
  if (text == "event") return PayloadType::event;
  if (text == "message") return PayloadType::message;
  return std::nullopt;
}

}  // namespace

std::string_view toString(PayloadType type) {
  return type == PayloadType::event ? "event" : "message";
}

SocketPayload SocketPayload::from(const core::KeyedDecoder& decoder) {
  return {decodeEnum<PayloadType>(decoder, "type", payloadTypeFromString,
                                  "\"event\", \"message\"")};
}

MessageEvent MessageEvent::from(const core::KeyedDecoder& decoder) {
  return {decodeEnum<InboxEventType>(decoder, "event", inboxEventTypeFromString,
                                     "\"mark-all-read\", \"read\", \"unread\", \"opened\", \"unopened\", "
                                     "\"archive\", \"unarchive\", \"click\", \"unclick\""),
          decoder.decodeIfPresent<std::string>("messageId"), decoder.decode<std::string>("type")};
}

boost::json::object MessageEvent::toJSON() const {
  boost::json::object object;
  object["event"] = toString(event);
  if (messageId) object["messageId"] = *messageId;
  object["type"] = type;
  return object;
}

SocketFrame decodeSocketFrame(std::string_view text) {
  const auto value = core::parseForDecoding(text);
  const core::KeyedDecoder decoder(value);
  switch (SocketPayload::from(decoder).type) {
    case PayloadType::event:
      return MessageEvent::from(decoder);
    case PayloadType::message:
      return core::decodeValue<InboxMessagePtr>(value);
  }
  fatal("socket frame of an unknown payload type");
}

}  // namespace herald
