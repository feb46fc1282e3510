// The JSON reader: see json_value.h.  A recursive-descent parser over the
// text, with a depth limit so that a crafted file cannot exhaust the stack.

#include "kest2/json_value.h"

#include <cstdlib>
#include <cstring>

namespace kest2_cli {

const JsonValue* JsonValue::Find(const std::string& key) const {
  if (m_type != Type::kObject) return nullptr;
  for (const Member& member : m_members) {
    if (member.first == key) return &member.second;
  }
  return nullptr;
}

double JsonValue::NumberOr(const std::string& key, double fallback) const {
  const JsonValue* value = Find(key);
  return value != nullptr && value->m_type == Type::kNumber ? value->m_number : fallback;
}

std::string JsonValue::StringOr(const std::string& key, const std::string& fallback) const {
  const JsonValue* value = Find(key);
  return value != nullptr && value->m_type == Type::kString ? value->m_string : fallback;
}

bool JsonValue::BoolOr(const std::string& key, bool fallback) const {
  const JsonValue* value = Find(key);
  return value != nullptr && value->m_type == Type::kBool ? value->m_bool : fallback;
}

class JsonParser {
 public:
  explicit JsonParser(const std::string& text) : m_text(text) {}

  bool Parse(JsonValue* out, std::string* error) {
    SkipSpace();
    if (!Value(out, 0)) {
      *error = "at byte " + std::to_string(m_at) + ": " + m_error;
      return false;
    }
    SkipSpace();
    if (m_at != m_text.size()) {
      *error = "at byte " + std::to_string(m_at) + ": text after the end of the value";
      return false;
    }
    return true;
  }

 private:
  static constexpr int kMaxDepth = 200;

  bool Fail(const char* what) {
    m_error = what;
    return false;
  }

  bool AtEnd() const { return m_at >= m_text.size(); }
  char Peek() const { return AtEnd() ? '\0' : m_text[m_at]; }

  void SkipSpace() {
    while (!AtEnd() && std::strchr(" \t\r\n", m_text[m_at]) != nullptr) ++m_at;
  }

  bool Expect(char c, const char* what) {
    if (Peek() != c) return Fail(what);
    ++m_at;
    return true;
  }

  bool Word(const char* word) {
    const size_t length = std::strlen(word);
    if (m_text.compare(m_at, length, word) != 0) return Fail("unknown word");
    m_at += length;
    return true;
  }

  bool Value(JsonValue* out, int depth) {
    if (depth > kMaxDepth) return Fail("nested too deep");
    switch (Peek()) {
      case '{':
        return Object(out, depth);
      case '[':
        return Array(out, depth);
      case '"':
        out->m_type = JsonValue::Type::kString;
        return String(&out->m_string);
      case 't':
        out->m_type = JsonValue::Type::kBool;
        out->m_bool = true;
        return Word("true");
      case 'f':
        out->m_type = JsonValue::Type::kBool;
        return Word("false");
      case 'n':
        return Word("null");
      default:
        return Number(out);
    }
  }

  bool Object(JsonValue* out, int depth) {
    out->m_type = JsonValue::Type::kObject;
    ++m_at;
    SkipSpace();
    if (Peek() == '}') {
      ++m_at;
      return true;
    }
    for (;;) {
      SkipSpace();
      if (Peek() != '"') return Fail("expected a member name in quotes");
      JsonValue::Member member;
      if (!String(&member.first)) return false;
      SkipSpace();
      if (!Expect(':', "expected ':'")) return false;
      SkipSpace();
      if (!Value(&member.second, depth + 1)) return false;
      out->m_members.push_back(std::move(member));
      SkipSpace();
      if (Peek() == '}') {
        ++m_at;
        return true;
      }
      if (!Expect(',', "expected ',' or '}'")) return false;
    }
  }

  bool Array(JsonValue* out, int depth) {
    out->m_type = JsonValue::Type::kArray;
    ++m_at;
    SkipSpace();
    if (Peek() == ']') {
      ++m_at;
      return true;
    }
    for (;;) {
      SkipSpace();
      JsonValue item;
      if (!Value(&item, depth + 1)) return false;
      out->m_items.push_back(std::move(item));
      SkipSpace();
      if (Peek() == ']') {
        ++m_at;
        return true;
      }
      if (!Expect(',', "expected ',' or ']'")) return false;
    }
  }

  bool Hex4(uint32_t* code) {
    if (m_at + 4 > m_text.size()) return Fail("short \\u escape");
    *code = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = m_text[m_at++];
      *code <<= 4;
      if (c >= '0' && c <= '9') {
        *code |= static_cast<uint32_t>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        *code |= static_cast<uint32_t>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        *code |= static_cast<uint32_t>(c - 'A' + 10);
      } else {
        return Fail("bad \\u escape");
      }
    }
    return true;
  }

  static void AppendUtf8(uint32_t code, std::string* out) {
    if (code < 0x80) {
      *out += static_cast<char>(code);
    } else if (code < 0x800) {
      *out += static_cast<char>(0xC0 | (code >> 6));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      *out += static_cast<char>(0xE0 | (code >> 12));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (code >> 18));
      *out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  bool Escape(std::string* out) {
    const char c = Peek();
    ++m_at;
    static const char kFrom[] = "\"\\/bfnrt";
    static const char kTo[] = "\"\\/\b\f\n\r\t";
    if (const char* known = c != '\0' ? std::strchr(kFrom, c) : nullptr) {
      *out += kTo[known - kFrom];
      return true;
    }
    if (c != 'u') return Fail("unknown escape");
    uint32_t code;
    if (!Hex4(&code)) return false;
    if (code >= 0xD800 && code <= 0xDBFF) {
      // A high surrogate needs its low half.
      uint32_t low;
      if (m_text.compare(m_at, 2, "\\u") != 0) return Fail("lone surrogate");
      m_at += 2;
      if (!Hex4(&low)) return false;
      if (low < 0xDC00 || low > 0xDFFF) return Fail("lone surrogate");
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    } else if (code >= 0xDC00 && code <= 0xDFFF) {
      return Fail("lone surrogate");
    }
    AppendUtf8(code, out);
    return true;
  }

  bool String(std::string* out) {
    ++m_at;  // the opening quote
    for (;;) {
      if (AtEnd()) return Fail("unterminated string");
      const char c = m_text[m_at++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return Fail("control character in a string");
      if (c != '\\') {
        *out += c;
      } else if (!Escape(out)) {
        return false;
      }
    }
  }

  bool Digits() {
    const size_t start = m_at;
    while (!AtEnd() && m_text[m_at] >= '0' && m_text[m_at] <= '9') ++m_at;
    return m_at > start;
  }

  // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
  bool Number(JsonValue* out) {
    const size_t start = m_at;
    if (Peek() == '-') ++m_at;
    if (Peek() == '0') {
      ++m_at;
    } else if (!Digits()) {
      m_at = start;
      return Fail(AtEnd() ? "unexpected end of the text" : "expected a value");
    }
    if (Peek() == '.') {
      ++m_at;
      if (!Digits()) return Fail("expected digits after '.'");
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++m_at;
      if (Peek() == '+' || Peek() == '-') ++m_at;
      if (!Digits()) return Fail("expected digits in the exponent");
    }
    out->m_type = JsonValue::Type::kNumber;
    out->m_number = std::strtod(m_text.substr(start, m_at - start).c_str(), nullptr);
    return true;
  }

  const std::string& m_text;
  size_t m_at = 0;
  const char* m_error = "";
};

bool ParseJson(const std::string& text, JsonValue* out, std::string* error) {
  *out = JsonValue();
  return JsonParser(text).Parse(out, error);
}

}  // namespace kest2_cli
