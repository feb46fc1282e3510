// A small JSON reader: enough for the trace files that the library's
// timeline writes and `kest2 timeline` draws, and strict about the grammar
// (RFC 8259) so that a damaged file is reported rather than half read.
#ifndef KEST2_TOOLS_KEST2_JSON_VALUE_H_
#define KEST2_TOOLS_KEST2_JSON_VALUE_H_

#include <string>
#include <utility>
#include <vector>

namespace kest2_cli {

class JsonValue {
 public:
  enum class Type { kNull, kBool, kNumber, kString, kArray, kObject };
  using Member = std::pair<std::string, JsonValue>;

  Type type() const { return m_type; }
  bool IsObject() const { return m_type == Type::kObject; }
  bool IsArray() const { return m_type == Type::kArray; }

  bool boolean() const { return m_bool; }
  double number() const { return m_number; }
  const std::string& string() const { return m_string; }
  const std::vector<JsonValue>& items() const { return m_items; }
  const std::vector<Member>& members() const { return m_members; }

  // The first member named key, or null (also when this is no object).
  const JsonValue* Find(const std::string& key) const;
  // A member's number, string or boolean; fallback when it is absent or of
  // another type.
  double NumberOr(const std::string& key, double fallback) const;
  std::string StringOr(const std::string& key, const std::string& fallback) const;
  bool BoolOr(const std::string& key, bool fallback) const;

 private:
  friend class JsonParser;
  Type m_type = Type::kNull;
  bool m_bool = false;
  double m_number = 0;
  std::string m_string;
  std::vector<JsonValue> m_items;
  std::vector<Member> m_members;
};

// Parses a whole JSON text (one value, white space around it).  False on
// malformed input, with *error saying where ("at byte 120: expected ':'").
// Nesting deeper than 200 levels is refused as malformed.
bool ParseJson(const std::string& text, JsonValue* out, std::string* error);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_JSON_VALUE_H_
