// Moving values between sd-bus messages and the service's own types, for
// both ends of a call: the arguments of a member (its in signature, simple
// types and arrays of them) and the values of a reply (optional values as a
// flag followed by the value).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "service/reply.h"

struct sd_bus_message;

namespace quorvi {

// One argument of a call, tagged by its D-Bus type ("s", "x", "b", "as", "ay").
struct CallArgument {
  std::string type;
  std::string text;  // "s", and the bytes of "ay"
  int64_t integer = 0;
  bool flag = false;
  std::vector<std::string> strings;
};

struct CallArguments {
  std::vector<CallArgument> values;
  // Typed access; a missing position gives the empty value.
  std::string text(std::size_t i) const { return i < values.size() ? values[i].text : std::string(); }
  int64_t integer(std::size_t i) const { return i < values.size() ? values[i].integer : 0; }
  bool flag(std::size_t i) const { return i < values.size() && values[i].flag; }
  std::vector<std::string> strings(std::size_t i) const {
    return i < values.size() ? values[i].strings : std::vector<std::string>();
  }
};

// Reads the message body per the signature. Negative errno on failure.
int readCallArguments(sd_bus_message* message, std::string_view signature, CallArguments& out);
// Appends arguments per the signature.
int appendCallArguments(sd_bus_message* message, std::string_view signature, const CallArguments& arguments);

// Appends reply values that must match the out signature ("bay", "baybs",
// "b", "bsbayx", ...). Bytes over kMaxReplyArrayBytes go as nil; text that is
// not valid UTF-8 is mended. Negative errno when the values do not match.
int appendReplyValues(sd_bus_message* reply, std::string_view outSignature, const std::vector<ReplyValue>& values);
// Reads reply values per the out signature.
int readReplyValues(sd_bus_message* reply, std::string_view outSignature, std::vector<ReplyValue>& out);

// The value kinds of an out signature: "baybs" → {optionalBytes, optionalString}.
std::vector<ReplyValue::Type> replyValueTypes(std::string_view outSignature);

// Replaces every invalid UTF-8 sequence by U+FFFD (the bus rejects such text).
std::string validUtf8(std::string_view text);

}  // namespace quorvi
