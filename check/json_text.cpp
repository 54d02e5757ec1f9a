// The JSON document as text. Names come from partners' trees and need not be
// UTF-8; the document keeps them byte for byte: a byte that is no part of a
// valid UTF-8 sequence is written as \udcXX (U+DC80 to U+DCFF, XX the byte),
// as Python's "surrogateescape" reads and writes it, and every control
// character as \uXXXX. Layout as nlohmann's dump(2).
#include <stdio.h>

#include "check/check.h"

namespace {

void quoted(const std::string& text, std::string* out) {
  *out += '"';
  for (size_t i = 0; i < text.size();) {
    uint32_t cp;
    const size_t n = utf8_sequence(text, i, &cp);
    char buf[8];
    if (n == 0) {
      snprintf(buf, sizeof(buf), "\\udc%02x", static_cast<unsigned char>(text[i]));
      *out += buf;
      ++i;
      continue;
    }
    if (cp == '"' || cp == '\\') {
      *out += '\\';
      *out += static_cast<char>(cp);
    } else if (cp == '\n') {
      *out += "\\n";
    } else if (cp < 0x20 || cp == 0x7f) {
      snprintf(buf, sizeof(buf), "\\u%04x", cp);
      *out += buf;
    } else {
      out->append(text, i, n);
    }
    i += n;
  }
  *out += '"';
}

void write(const nlohmann::json& value, int depth, std::string* out) {
  const std::string inner(2 * (depth + 1), ' ');
  if (value.is_string()) {
    quoted(value.get_ref<const std::string&>(), out);
  } else if (value.is_object() || value.is_array()) {
    const bool object = value.is_object();
    if (value.empty()) {
      *out += object ? "{}" : "[]";
      return;
    }
    *out += object ? "{\n" : "[\n";
    bool first = true;
    for (auto it = value.begin(); it != value.end(); ++it) {
      *out += (first ? "" : ",\n") + inner;
      first = false;
      if (object) {
        quoted(it.key(), out);
        *out += ": ";
      }
      write(*it, depth + 1, out);
    }
    *out += "\n" + std::string(2 * depth, ' ') + (object ? "}" : "]");
  } else {
    *out += value.dump();  // numbers, true, false, null
  }
}

}  // namespace

std::string json_text(const nlohmann::json& document) {
  std::string out;
  write(document, 0, &out);
  return out;
}
