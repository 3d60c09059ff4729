#include "service/bus_values.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdlib>

#include "service/members.h"

namespace quorvi {

namespace {

int readOne(sd_bus_message* m, const std::string& type, CallArgument& out) {
  out.type = type;
  int r;
  if (type == "s") {
    const char* s = nullptr;
    r = sd_bus_message_read_basic(m, 's', &s);
    if (r >= 0 && s) out.text = s;
  } else if (type == "x") {
    int64_t x = 0;
    r = sd_bus_message_read_basic(m, 'x', &x);
    out.integer = x;
  } else if (type == "b") {
    int b = 0;
    r = sd_bus_message_read_basic(m, 'b', &b);
    out.flag = b != 0;
  } else if (type == "as") {
    char** strv = nullptr;
    r = sd_bus_message_read_strv(m, &strv);
    for (char** p = strv; p && *p; ++p) {
      out.strings.emplace_back(*p);
      std::free(*p);
    }
    std::free(strv);
  } else if (type == "ay") {
    const void* data = nullptr;
    size_t size = 0;
    r = sd_bus_message_read_array(m, 'y', &data, &size);
    if (r >= 0 && size) out.text.assign(static_cast<const char*>(data), size);
  } else {
    return -EINVAL;
  }
  return r < 0 ? r : 0;
}

int appendOne(sd_bus_message* m, const CallArgument& value) {
  if (value.type == "s") return sd_bus_message_append_basic(m, 's', validUtf8(value.text).c_str());
  if (value.type == "x") return sd_bus_message_append_basic(m, 'x', &value.integer);
  if (value.type == "b") {
    int b = value.flag;
    return sd_bus_message_append_basic(m, 'b', &b);
  }
  if (value.type == "ay") return sd_bus_message_append_array(m, 'y', value.text.data(), value.text.size());
  if (value.type == "as") {
    int r = sd_bus_message_open_container(m, 'a', "s");
    for (const auto& s : value.strings) {
      if (r >= 0) r = sd_bus_message_append_basic(m, 's', validUtf8(s).c_str());
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
  }
  return -EINVAL;
}

}  // namespace

std::string validUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    unsigned char c = text[i];
    std::size_t length = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    bool valid = length > 0 && i + length <= text.size();
    uint32_t cp = length == 1 ? c : length == 2 ? c & 0x1f : length == 3 ? c & 0x0f : c & 0x07;
    for (std::size_t k = 1; valid && k < length; ++k) {
      unsigned char next = text[i + k];
      valid = (next & 0xc0) == 0x80;
      cp = cp << 6 | (next & 0x3f);
    }
    // Overlong forms, surrogates and values past U+10FFFF are invalid too.
    if (valid && ((length == 2 && cp < 0x80) || (length == 3 && cp < 0x800) || (length == 4 && cp < 0x10000) ||
                  (cp >= 0xd800 && cp <= 0xdfff) || cp > 0x10ffff)) {
      valid = false;
    }
    if (valid && cp != 0) {
      out.append(text.substr(i, length));
      i += length;
    } else {
      out += "\xEF\xBF\xBD";
      i += 1;
    }
  }
  return out;
}

int readCallArguments(sd_bus_message* message, std::string_view signature, CallArguments& out) {
  for (const auto& type : splitSignature(signature)) {
    CallArgument argument;
    if (int r = readOne(message, type, argument); r < 0) return r;
    out.values.push_back(std::move(argument));
  }
  return 0;
}

int appendCallArguments(sd_bus_message* message, std::string_view signature, const CallArguments& arguments) {
  auto types = splitSignature(signature);
  if (types.size() != arguments.values.size()) return -EINVAL;
  for (std::size_t i = 0; i < types.size(); ++i) {
    if (arguments.values[i].type != types[i]) return -EINVAL;
    if (int r = appendOne(message, arguments.values[i]); r < 0) return r;
  }
  return 0;
}

std::vector<ReplyValue::Type> replyValueTypes(std::string_view signature) {
  std::vector<ReplyValue::Type> types;
  for (std::size_t i = 0; i < signature.size();) {
    if (signature.substr(i).starts_with("bay")) {
      types.push_back(ReplyValue::Type::optionalBytes);
      i += 3;
    } else if (signature.substr(i).starts_with("bs")) {
      types.push_back(ReplyValue::Type::optionalString);
      i += 2;
    } else if (signature[i] == 'b') {
      types.push_back(ReplyValue::Type::flag);
      i += 1;
    } else {
      types.push_back(ReplyValue::Type::integer);  // 'x'
      i += 1;
    }
  }
  return types;
}

int appendReplyValues(sd_bus_message* reply, std::string_view outSignature, const std::vector<ReplyValue>& values) {
  auto types = replyValueTypes(outSignature);
  if (types.size() != values.size()) return -EINVAL;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const ReplyValue& v = values[i];
    if (v.type != types[i]) return -EINVAL;
    int r = 0;
    switch (v.type) {
      case ReplyValue::Type::flag: {
        int b = v.flag;
        r = sd_bus_message_append_basic(reply, 'b', &b);
        break;
      }
      case ReplyValue::Type::integer:
        r = sd_bus_message_append_basic(reply, 'x', &v.integer);
        break;
      case ReplyValue::Type::optionalBytes: {
        // Past the bus's array limit the daemon would drop our whole
        // connection; such a reply is answered as nil instead.
        const std::string* bytes = v.text();
        bool present = bytes && bytes->size() <= kMaxReplyArrayBytes;
        int b = present;
        r = sd_bus_message_append_basic(reply, 'b', &b);
        if (r >= 0) {
          r = present ? sd_bus_message_append_array(reply, 'y', bytes->data(), bytes->size())
                      : sd_bus_message_append_array(reply, 'y', nullptr, 0);
        }
        break;
      }
      case ReplyValue::Type::optionalString: {
        int b = v.value.has_value();
        r = sd_bus_message_append_basic(reply, 'b', &b);
        if (r >= 0) r = sd_bus_message_append_basic(reply, 's', v.value ? validUtf8(*v.value).c_str() : "");
        break;
      }
    }
    if (r < 0) return r;
  }
  return 0;
}

int readReplyValues(sd_bus_message* reply, std::string_view outSignature, std::vector<ReplyValue>& out) {
  for (auto type : replyValueTypes(outSignature)) {
    int r = 0;
    int b = 0;
    switch (type) {
      case ReplyValue::Type::flag:
        r = sd_bus_message_read_basic(reply, 'b', &b);
        out.push_back(ReplyValue::ofFlag(b != 0));
        break;
      case ReplyValue::Type::integer: {
        int64_t x = 0;
        r = sd_bus_message_read_basic(reply, 'x', &x);
        out.push_back(ReplyValue::ofInteger(x));
        break;
      }
      case ReplyValue::Type::optionalBytes: {
        const void* data = nullptr;
        size_t size = 0;
        r = sd_bus_message_read_basic(reply, 'b', &b);
        if (r >= 0) r = sd_bus_message_read_array(reply, 'y', &data, &size);
        OptionalBytes bytes;
        if (b) bytes = size ? std::string(static_cast<const char*>(data), size) : std::string();
        out.push_back(ReplyValue::ofBytes(std::move(bytes)));
        break;
      }
      case ReplyValue::Type::optionalString: {
        const char* s = nullptr;
        r = sd_bus_message_read_basic(reply, 'b', &b);
        if (r >= 0) r = sd_bus_message_read_basic(reply, 's', &s);
        out.push_back(ReplyValue::ofString(b ? std::optional<std::string>(s ? s : "") : std::nullopt));
        break;
      }
    }
    if (r < 0) return r;
  }
  return 0;
}

}  // namespace quorvi
