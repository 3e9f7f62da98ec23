#include "core/Json.h"

#include <cstdio>

#include "core/Utf.h"

namespace Corvo::Core {

std::string jsonQuote(std::string_view s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else if (c >= 0x80) {
      if (size_t n = utf8SequenceAt(s, i)) {
        out.append(s.substr(i, n));
        i += n;
        continue;
      }
      out += static_cast<char>(0xC0 | (c >> 6));  // the byte as a Latin-1 character
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(c);
    }
    ++i;
  }
  return out + "\"";
}

void JsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!levels_.empty()) {
    if (levels_.back().count++ > 0) out_ += ',';
    out_ += '\n';
    out_.append(2 * levels_.size(), ' ');
  }
}

void JsonWriter::open(char bracket) {
  beforeValue();
  out_ += bracket;
  levels_.push_back({bracket == '{'});
}

void JsonWriter::close(char bracket) {
  const bool empty = levels_.back().count == 0;
  levels_.pop_back();
  if (!empty) {
    out_ += '\n';
    out_.append(2 * levels_.size(), ' ');
  }
  out_ += bracket;
  if (levels_.empty()) out_ += '\n';
}

void JsonWriter::beginObject() { open('{'); }
void JsonWriter::endObject() { close('}'); }
void JsonWriter::beginArray() { open('['); }
void JsonWriter::endArray() { close(']'); }

void JsonWriter::key(std::string_view name) {
  beforeValue();
  out_ += jsonQuote(name) + ": ";
  afterKey_ = true;
}

void JsonWriter::text(std::string_view value) {
  beforeValue();
  out_ += jsonQuote(value);
}
void JsonWriter::number(uint64_t value) {
  beforeValue();
  out_ += std::to_string(value);
}
void JsonWriter::boolean(bool value) {
  beforeValue();
  out_ += value ? "true" : "false";
}
void JsonWriter::null() {
  beforeValue();
  out_ += "null";
}
void JsonWriter::textOrNull(std::string_view value) {
  if (value.empty())
    null();
  else
    text(value);
}

}  // namespace Corvo::Core
