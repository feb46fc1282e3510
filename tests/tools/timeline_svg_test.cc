// `kest2 timeline`: the JSON reader on good and crafted input, the trace
// reader, the SVG checked for well-formed XML by a small checker of its own
// (one row per thread, names escaped, misses in red, spans merged to a
// bounded size), and the command's exit statuses.

#include "kest2/timeline_svg.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "common/temp_dir.h"
#include "kest2/json_value.h"
#include "kest2/timeline_command.h"
#include "test_support.h"

namespace {

using kest2_cli::JsonValue;
using kest2_cli::ParseJson;

// --- A small XML well-formedness checker ---------------------------------

// True when s[i..] starts a valid UTF-8 character other than a control
// character XML forbids; *length gets its length.
bool XmlChar(const std::string& s, size_t i, size_t* length) {
  const unsigned char c = static_cast<unsigned char>(s[i]);
  if (c < 0x80) {
    *length = 1;
    return c >= 0x20 || c == '\t' || c == '\n' || c == '\r';
  }
  const size_t n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
  if (n == 0 || i + n > s.size()) return false;
  for (size_t k = 1; k < n; ++k) {
    if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
  }
  *length = n;
  return true;
}

bool IsNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == ':' ||
         c == '.';
}

// Checks text or an attribute value up to `end` (exclusive): valid
// characters, no '<', and every '&' a known entity.
std::string CheckText(const std::string& s, size_t from, size_t end) {
  for (size_t i = from; i < end;) {
    size_t length;
    if (!XmlChar(s, i, &length)) return "bad character at " + std::to_string(i);
    if (s[i] == '<') return "'<' in text at " + std::to_string(i);
    if (s[i] == '&') {
      const size_t semicolon = s.find(';', i);
      if (semicolon == std::string::npos || semicolon > end)
        return "bare '&' at " + std::to_string(i);
      const std::string entity = s.substr(i + 1, semicolon - i - 1);
      if (entity != "amp" && entity != "lt" && entity != "gt" && entity != "quot" &&
          entity != "apos") {
        return "unknown entity &" + entity + "; at " + std::to_string(i);
      }
    }
    i += length;
  }
  return "";
}

// Empty when s is a well-formed XML document with one root element.
std::string XmlProblem(const std::string& s) {
  size_t i = 0;
  if (s.compare(0, 5, "<?xml") == 0) {
    i = s.find("?>");
    if (i == std::string::npos) return "unterminated declaration";
    i += 2;
  }
  std::vector<std::string> open;
  int roots = 0;
  while (i < s.size()) {
    const size_t lt = s.find('<', i);
    const size_t textEnd = lt == std::string::npos ? s.size() : lt;
    const std::string problem = CheckText(s, i, textEnd);
    if (!problem.empty()) return problem;
    if (open.empty() && s.find_first_not_of(" \t\r\n", i) < textEnd) return "text outside the root";
    if (lt == std::string::npos) break;
    i = lt + 1;
    const bool closing = i < s.size() && s[i] == '/';
    if (closing) ++i;
    const size_t nameStart = i;
    while (i < s.size() && IsNameChar(s[i])) ++i;
    const std::string name = s.substr(nameStart, i - nameStart);
    if (name.empty()) return "element without a name at " + std::to_string(nameStart);
    if (closing) {
      if (open.empty() || open.back() != name) return "</" + name + "> closes nothing open";
      open.pop_back();
      if (i >= s.size() || s[i] != '>') return "bad end tag " + name;
      ++i;
      continue;
    }
    if (open.empty() && ++roots > 1) return "a second root element";
    std::vector<std::string> attributes;
    for (;;) {
      while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
      if (i >= s.size()) return "unterminated tag " + name;
      if (s[i] == '>' || s.compare(i, 2, "/>") == 0) break;
      const size_t attributeStart = i;
      while (i < s.size() && IsNameChar(s[i])) ++i;
      const std::string attribute = s.substr(attributeStart, i - attributeStart);
      if (attribute.empty() || i + 1 >= s.size() || s[i] != '=' ||
          (s[i + 1] != '"' && s[i + 1] != '\''))
        return "bad attribute in " + name + " at " + std::to_string(attributeStart);
      for (const std::string& seen : attributes) {
        if (seen == attribute) return "attribute " + attribute + " twice in " + name;
      }
      attributes.push_back(attribute);
      const char quote = s[i + 1];
      const size_t valueEnd = s.find(quote, i + 2);
      if (valueEnd == std::string::npos) return "unterminated attribute value";
      const std::string valueProblem = CheckText(s, i + 2, valueEnd);
      if (!valueProblem.empty()) return valueProblem;
      i = valueEnd + 1;
    }
    if (s[i] == '>') {
      open.push_back(name);
      ++i;
    } else {
      i += 2;
    }
  }
  if (!open.empty()) return "<" + open.back() + "> never closed";
  return roots == 1 ? "" : "no root element";
}

size_t Count(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

TEST(XmlCheckerTest, CatchesWhatItMust) {
  EXPECT_EQ(XmlProblem("<a x=\"1\"><b/>t &amp; u</a>"), "");
  EXPECT_NE(XmlProblem("<a><b></a></b>"), "");
  EXPECT_NE(XmlProblem("<a>x & y</a>"), "");
  EXPECT_NE(XmlProblem("<a x=\"<\"/>"), "");
  EXPECT_NE(XmlProblem("<a/><b/>"), "");
  EXPECT_NE(XmlProblem("<a>\x01</a>"), "");
  EXPECT_NE(XmlProblem("<a>\xff</a>"), "");
}

// --- The JSON reader -----------------------------------------------------

TEST(JsonValueTest, ReadsTheGrammar) {
  JsonValue value;
  std::string error;
  ASSERT_TRUE(ParseJson(
      " {\"a\":[1,-2.5e3,0.25,true,false,null],\"s\":\"q\\\"\\\\\\/\\n\\u00e9\\ud83d\\ude00\","
      "\"o\":{}, \"e\":[]} ",
      &value, &error))
      << error;
  ASSERT_TRUE(value.IsObject());
  const JsonValue* a = value.Find("a");
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(a->items().size(), 6u);
  EXPECT_EQ(a->items()[1].number(), -2500);
  EXPECT_EQ(a->items()[2].number(), 0.25);
  EXPECT_TRUE(a->items()[3].boolean());
  EXPECT_EQ(a->items()[5].type(), JsonValue::Type::kNull);
  EXPECT_EQ(value.StringOr("s", ""), "q\"\\/\n\xc3\xa9\xf0\x9f\x98\x80");
  EXPECT_EQ(value.NumberOr("s", 7), 7);  // wrong type: the fallback
  EXPECT_EQ(value.Find("missing"), nullptr);
}

TEST(JsonValueTest, RefusesMalformedTextSayingWhere) {
  const char* const bad[] = {
      "",         "{",       "[1,]",        "{\"a\" 1}",    "{\"a\":1,}",
      "\"abc",    "\"\\x\"", "\"\\ud800\"", "\"\\udc00x\"", "01",
      "1.",       "1e",      "-",           "tru",          "[1] [2]",
      "\"a\tb\"", "{1:2}",   "nul",         "[\"\\u12\"]",
  };
  for (const char* text : bad) {
    JsonValue value;
    std::string error;
    EXPECT_FALSE(ParseJson(text, &value, &error)) << text;
    EXPECT_EQ(error.rfind("at byte ", 0), 0u) << text << ": " << error;
  }
  // Deep nesting is refused, not followed down the stack.
  JsonValue value;
  std::string error;
  EXPECT_FALSE(ParseJson(std::string(100000, '['), &value, &error));
  EXPECT_NE(error.find("nested too deep"), std::string::npos) << error;
}

// --- The trace and the picture --------------------------------------------

// A trace of three threads, one with a name that needs escaping, spans of
// every kind, one operation met, one missed (with its mark) and one whose
// begin is missing.
const char kTrace[] = R"({"traceEvents":[
{"ph":"M","pid":1,"tid":0,"name":"process_name","args":{"name":"kest2"}},
{"ph":"M","pid":1,"tid":1,"name":"thread_name","args":{"name":"main <&> \"quoted\" 'x' \u0001 \u00e9"}},
{"ph":"M","pid":1,"tid":2,"name":"thread_name","args":{"name":"ZulKestIO"}},
{"ph":"M","pid":1,"tid":3,"name":"thread_name","args":{"name":"ZulKestZlib0"}},
{"ph":"X","cat":"chunk","name":"CHUNK_FH_READ","pid":1,"tid":2,"ts":10,"dur":50,"args":{}},
{"ph":"X","cat":"native","name":"read","pid":1,"tid":2,"ts":12,"dur":40,"args":{"path":"/a&b"}},
{"ph":"X","cat":"archive","name":"block read","pid":1,"tid":2,"ts":8,"dur":60},
{"ph":"X","cat":"archive","name":"inflate","pid":1,"tid":3,"ts":70,"dur":30},
{"ph":"X","cat":"chunk","name":"no time","pid":1,"tid":2},
{"ph":"b","cat":"op","name":"OP_PATH_READ","id":"0x00014001","pid":1,"tid":1,"ts":5,"args":{"path":"/a<b>","deadline":500}},
{"ph":"e","cat":"op","name":"OP_PATH_READ","id":"0x00014001","pid":1,"tid":1,"ts":120,"args":{"result":"ZUL_KEST_OK","missed":false}},
{"ph":"b","cat":"op","name":"OP_PATH_READ","id":"0x00014002","pid":1,"tid":1,"ts":6,"args":{"deadline":50}},
{"ph":"e","cat":"op","name":"OP_PATH_READ","id":"0x00014002","pid":1,"tid":1,"ts":130,"args":{"result":"ZUL_KEST_OK","missed":true}},
{"ph":"i","s":"t","cat":"deadline","name":"deadline missed","pid":1,"tid":1,"ts":130,"args":{}},
{"ph":"e","cat":"op","name":"OP_STAT","id":"0x00014003","pid":1,"tid":1,"ts":140,"args":{"result":"ZUL_KEST_ERROR_BAD_PATH"}}
],"displayTimeUnit":"ms"})";

kest2_cli::Trace ReadSample(const std::string& text) {
  JsonValue json;
  std::string error;
  EXPECT_TRUE(ParseJson(text, &json, &error)) << error;
  kest2_cli::Trace trace;
  EXPECT_TRUE(kest2_cli::ReadTrace(json, &trace, &error)) << error;
  return trace;
}

TEST(TimelineSvgTest, ReadsThreadsSpansOperationsAndMarks) {
  const kest2_cli::Trace trace = ReadSample(kTrace);
  ASSERT_EQ(trace.threads.size(), 3u);
  EXPECT_EQ(trace.threads[1].name, "ZulKestIO");
  EXPECT_EQ(trace.spans.size(), 4u);  // the one without a time is skipped
  ASSERT_EQ(trace.operations.size(), 3u);
  EXPECT_FALSE(trace.operations[0].missed);
  EXPECT_TRUE(trace.operations[1].missed);
  EXPECT_EQ(trace.operations[2].name, "OP_STAT");  // its end alone
  EXPECT_EQ(trace.operations[2].begin, 140);
  EXPECT_EQ(trace.marks.size(), 1u);

  JsonValue json;
  std::string error;
  ASSERT_TRUE(ParseJson("{\"events\":[]}", &json, &error));
  kest2_cli::Trace none;
  EXPECT_FALSE(kest2_cli::ReadTrace(json, &none, &error));
  EXPECT_NE(error.find("traceEvents"), std::string::npos);
  // The bare array form is a trace too.
  EXPECT_EQ(ReadSample("[{\"ph\":\"X\",\"tid\":4,\"ts\":1,\"dur\":2}]").threads.size(), 1u);
}

TEST(TimelineSvgTest, DrawsWellFormedXmlWithARowPerThreadAndMissesInRed) {
  const std::string svg = kest2_cli::DrawTimelineSvg(ReadSample(kTrace), "title <&>");
  EXPECT_EQ(XmlProblem(svg), "") << svg;
  EXPECT_EQ(Count(svg, "<g class=\"thread\""), 3u);
  EXPECT_NE(svg.find("main &lt;&amp;&gt; &quot;quoted&quot; &apos;x&apos; ? \xc3\xa9"),
            std::string::npos);
  EXPECT_NE(svg.find("title &lt;&amp;&gt;"), std::string::npos);
  // The missed operation's bar, its deadline tick and its mark are red.
  EXPECT_GE(Count(svg, "#e15759"), 3u + 1u);  // + the legend
  EXPECT_NE(svg.find("1 missed their deadline"), std::string::npos);
}

TEST(TimelineSvgTest, SpansCloserThanAPixelBecomeOneRectangle) {
  // 20,000 one-microsecond chunks back to back on one thread, and one far
  // away that stretches the time axis.
  std::string text =
      "{\"traceEvents\":[{\"ph\":\"M\",\"tid\":1,\"name\":\"thread_name\",\"args\":{\"name\":\"t\"}"
      "}";
  for (int i = 0; i < 20000; ++i)
    text += ",{\"ph\":\"X\",\"cat\":\"chunk\",\"name\":\"c\",\"tid\":1,\"ts\":" +
            std::to_string(i * 2) + ",\"dur\":1}";
  text += ",{\"ph\":\"X\",\"cat\":\"chunk\",\"name\":\"far\",\"tid\":1,\"ts\":1000000,\"dur\":1}]}";
  const std::string svg = kest2_cli::DrawTimelineSvg(ReadSample(text), "many");
  EXPECT_EQ(XmlProblem(svg), "");
  EXPECT_LE(Count(svg, "<rect"), 30u);
  EXPECT_NE(svg.find("20000 spans from c"), std::string::npos);
  EXPECT_LT(svg.size(), 20000u);
}

// --- The command ---------------------------------------------------------

class TimelineCommandTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = dir_.path() + "/" + name;
    kest2_test::WriteFile(path, std::vector<uint8_t>(text.begin(), text.end()));
    return path;
  }
  int Run(const kest2_cli::Arguments& arguments) { return kest2_cli::TimelineCommand(arguments); }
  kest2_common::TempDir dir_;
};

TEST_F(TimelineCommandTest, ExitStatusesForGoodBadAndUnreadableInput) {
  const std::string trace = Write("t.json", kTrace);
  const std::string svg = dir_.path() + "/t.svg";
  EXPECT_EQ(Run({trace, "--svg", svg}), 0);
  const std::vector<uint8_t> written = kest2_test::ReadFile(svg);
  EXPECT_EQ(XmlProblem(std::string(written.begin(), written.end())), "");
  EXPECT_EQ(Run({"--svg", svg, "--", trace}), 0);

  EXPECT_EQ(Run({dir_.path() + "/missing.json", "--svg", svg}), 1);
  EXPECT_EQ(Run({Write("bad.json", "{\"traceEvents\":[{]}"), "--svg", svg}), 1);
  EXPECT_EQ(Run({Write("other.json", "{\"rows\":[]}"), "--svg", svg}), 1);
  EXPECT_EQ(Run({dir_.path(), "--svg", svg}), 1);  // a directory
  EXPECT_EQ(Run({trace, "--svg", dir_.path() + "/no/such/dir/t.svg"}), 1);

  EXPECT_EQ(Run({}), 2);
  EXPECT_EQ(Run({trace, "--svg"}), 2);
  EXPECT_EQ(Run({trace, "--png", svg}), 2);
  EXPECT_EQ(Run({trace, trace}), 2);
}

}  // namespace
