// `kest2 timeline`'s picture: see timeline_svg.h.
//
// A trace of a busy second holds far more spans than a picture has pixels,
// so spans of one kind on one row that lie closer than a pixel apart are
// drawn as one rectangle (its tooltip counts them).  That keeps the file
// small and the picture readable at any length of trace.

#include "kest2/timeline_svg.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <set>

namespace kest2_cli {
namespace {

// --- Reading --------------------------------------------------------------------

std::string IdText(const JsonValue* id) {
  if (id == nullptr) return "";
  if (id->type() == JsonValue::Type::kString) return id->string();
  if (id->type() == JsonValue::Type::kNumber) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.0f", id->number());
    return text;
  }
  return "";
}

const JsonValue& ArgsOf(const JsonValue& event) {
  static const JsonValue kNone;
  const JsonValue* args = event.Find("args");
  return args != nullptr && args->IsObject() ? *args : kNone;
}

// --- Drawing ----------------------------------------------------------------------

constexpr double kWidth = 1200;
constexpr double kLeft = 200;  // the labels' column
constexpr double kRight = 24;
constexpr double kTop = 58;  // title and time axis
constexpr double kRowHeight = 26;
constexpr double kLanePitch = 7;
constexpr double kLaneHeight = 5;
constexpr size_t kMaxLanes = 60;
constexpr size_t kMaxOperationTooltips = 1500;

const char kOperationColour[] = "#76b7b2";
const char kMissedColour[] = "#e15759";
const char kDeadlineColour[] = "#333333";

// How the spans of one kind look: colour and how far inside the row.
struct SpanStyle {
  const char* label;  // for the legend
  const char* colour;
  double inset;
};

const SpanStyle kBlockRead{"archive block read", "#b07aa1", 1};
const SpanStyle kChunk{"chunk executed", "#4e79a7", 4};
const SpanStyle kInflate{"block inflated", "#59a14f", 4};
const SpanStyle kOther{"other span", "#9c9c9c", 4};
const SpanStyle kNative{"system call", "#f28e2b", 9};
// Drawing order: the outer spans first, so that the nested ones show.
const SpanStyle* const kStyles[] = {&kBlockRead, &kChunk, &kInflate, &kOther, &kNative};

const SpanStyle* StyleOf(const TraceSpan& span) {
  if (span.category == "chunk") return &kChunk;
  if (span.category == "native") return &kNative;
  if (span.name == "block read") return &kBlockRead;
  if (span.name == "inflate") return &kInflate;
  return &kOther;
}

void Append(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Append(std::string* out, const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (length > 0)
    out->append(text, std::min<size_t>(static_cast<size_t>(length), sizeof(text) - 1));
}

// The length of the UTF-8 character that starts at text[i], or 0 when no
// valid one does.
size_t Utf8Length(const std::string& text, size_t i) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 && lead <= 0xF4  ? 4
                        : lead >= 0xE0                ? 3
                        : lead >= 0xC2 && lead < 0xE0 ? 2
                                                      : 0;
  if (length == 0 || i + length > text.size()) return 0;
  uint32_t code = lead & (0x7Fu >> length);
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3Fu);
  }
  static const uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

// Text for XML content and attribute values: the five special characters
// escaped, and what XML does not allow (control characters, bytes that are
// not UTF-8) replaced by '?'.
std::string Xml(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const char c = text[i];
    const size_t length = Utf8Length(text, i);
    if (length > 1) {
      out.append(text, i, length);
      i += length;
      continue;
    }
    ++i;
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        const bool allowed =
            length == 1 && (static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n');
        out += allowed ? c : '?';
    }
  }
  return out;
}

// A time in microseconds in the unit that suits `scale` (seconds from a
// second up, milliseconds from a millisecond), with as many decimals as a
// step of `scale` needs (at least `decimals`).
std::string TimeText(double micros, double scale, int decimals) {
  double unit = 1;
  const char* name = "\u00b5s";
  if (scale >= 1e6) {
    unit = 1e6;
    name = "s";
  } else if (scale >= 1e3) {
    unit = 1e3;
    name = "ms";
  }
  const double step = scale / unit;
  const int needed = step >= 1 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
  char text[48];
  std::snprintf(text, sizeof(text), "%.*f %s", std::max(needed, decimals), micros / unit, name);
  return text;
}

// A duration as people read it: three decimals in its own unit.
std::string Duration(double micros) { return TimeText(micros, std::fabs(micros), 3); }

class Picture {
 public:
  Picture(const Trace& trace, const std::string& title) : m_trace(trace), m_title(title) {
    FindTimeRange();
    AssignLanes();
  }

  std::string Draw() {
    const double threadsBottom = kTop + static_cast<double>(m_trace.threads.size()) * kRowHeight;
    m_operationsTop = threadsBottom + 28;
    const double operationsBottom =
        m_operationsTop + static_cast<double>(std::max<size_t>(m_laneCount, 1)) * kLanePitch;
    m_legendTop = operationsBottom + 26;
    const double height = m_legendTop + 44;

    Append(&m_out,
           "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
           "viewBox=\"0 0 %.0f %.0f\" font-family=\"sans-serif\" font-size=\"12\">\n",
           kWidth, height, kWidth, height);
    Append(&m_out, "<rect width=\"%.0f\" height=\"%.0f\" fill=\"#ffffff\"/>\n", kWidth, height);
    DrawTitle();
    DrawRows(threadsBottom);
    DrawAxis(threadsBottom, operationsBottom);
    DrawSpans();
    DrawMarks();
    DrawOperations();
    DrawLegend();
    m_out += "</svg>\n";
    return m_out;
  }

 private:
  void FindTimeRange() {
    bool any = false;
    auto see = [&](double t) {
      if (!any || t < m_first) m_first = t;
      if (!any || t > m_last) m_last = t;
      any = true;
    };
    for (const TraceSpan& span : m_trace.spans) {
      see(span.start);
      see(span.end);
    }
    for (const TraceOperation& op : m_trace.operations) {
      see(op.begin);
      see(op.end);
    }
    for (const TraceMark& mark : m_trace.marks) see(mark.time);
    if (!any) m_first = m_last = 0;
    if (m_last <= m_first) m_last = m_first + 1;
  }

  double X(double t) const { return kLeft + (t - m_first) / (m_last - m_first) * PlotWidth(); }
  static double PlotWidth() { return kWidth - kLeft - kRight; }
  double MicrosPerPixel() const { return (m_last - m_first) / PlotWidth(); }

  // Each operation takes the first lane free at its begin.
  void AssignLanes() {
    std::vector<double> laneEnds;
    const double gap = MicrosPerPixel();
    for (const TraceOperation& op : m_trace.operations) {
      size_t lane = laneEnds.size();
      for (size_t i = 0; i < laneEnds.size(); ++i) {
        if (laneEnds[i] + gap <= op.begin) {
          lane = i;
          break;
        }
      }
      if (lane == laneEnds.size() && laneEnds.size() == kMaxLanes) {
        // Full: share the lane that frees first.
        lane = static_cast<size_t>(std::min_element(laneEnds.begin(), laneEnds.end()) -
                                   laneEnds.begin());
      } else if (lane == laneEnds.size()) {
        laneEnds.push_back(op.end);
      }
      laneEnds[lane] = std::max(laneEnds[lane], op.end);
      m_lanes.push_back(lane);
    }
    m_laneCount = laneEnds.size();
  }

  double RowTop(size_t row) const { return kTop + static_cast<double>(row) * kRowHeight; }

  void DrawTitle() {
    size_t missed = 0;
    for (const TraceOperation& op : m_trace.operations) missed += op.missed ? 1 : 0;
    Append(&m_out, "<text x=\"12\" y=\"20\" font-size=\"15\" font-weight=\"bold\">%s</text>\n",
           Xml(m_title).c_str());
    Append(&m_out,
           "<text x=\"12\" y=\"37\" fill=\"#555555\">%zu threads, %zu spans, %zu operations, "
           "%zu missed their deadline; %s in all</text>\n",
           m_trace.threads.size(), m_trace.spans.size(), m_trace.operations.size(), missed,
           Duration(m_last - m_first).c_str());
  }

  void DrawRows(double threadsBottom) {
    for (size_t row = 0; row < m_trace.threads.size(); ++row) {
      const TraceThread& thread = m_trace.threads[row];
      const double top = RowTop(row);
      Append(&m_out, "<g class=\"thread\" data-tid=\"%lld\">", static_cast<long long>(thread.tid));
      Append(&m_out, "<rect x=\"%.0f\" y=\"%.1f\" width=\"%.0f\" height=\"%.0f\" fill=\"%s\"/>",
             kLeft, top, PlotWidth(), kRowHeight, row % 2 == 0 ? "#f4f4f4" : "#fbfbfb");
      Append(&m_out, "<text x=\"%.0f\" y=\"%.1f\" text-anchor=\"end\">%s (%lld)</text></g>\n",
             kLeft - 8, top + kRowHeight / 2 + 4, Xml(thread.name).c_str(),
             static_cast<long long>(thread.tid));
    }
    Append(&m_out, "<text x=\"%.0f\" y=\"%.1f\" text-anchor=\"end\">operations</text>\n", kLeft - 8,
           threadsBottom + 28 + 4);
  }

  // Ticks at 1, 2 or 5 times a power of ten, about eight across.
  void DrawAxis(double threadsBottom, double operationsBottom) {
    const double range = m_last - m_first;
    const double rough = range / 8;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    double step = power;
    for (const double multiple : {1.0, 2.0, 5.0, 10.0}) {
      step = multiple * power;
      if (step >= rough) break;
    }
    m_out += "<g class=\"axis\" fill=\"#555555\">\n";
    for (double t = 0; t <= range + step * 1e-9; t += step) {
      const double x = X(m_first + t);
      Append(&m_out,
             "<line x1=\"%.1f\" y1=\"%.0f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#dddddd\"/>"
             "<text x=\"%.1f\" y=\"%.0f\" text-anchor=\"middle\">%s</text>\n",
             x, kTop - 4, x, operationsBottom, x, kTop - 8,
             t == 0 ? "0" : TimeText(t, step, 0).c_str());
    }
    Append(&m_out, "<line x1=\"%.0f\" y1=\"%.1f\" x2=\"%.0f\" y2=\"%.1f\" stroke=\"#999999\"/>\n",
           kLeft, threadsBottom + 12, kWidth - kRight, threadsBottom + 12);
    m_out += "</g>\n";
  }

  void DrawSpans() {
    std::map<int64_t, size_t> rowOf;
    for (size_t row = 0; row < m_trace.threads.size(); ++row) rowOf[m_trace.threads[row].tid] = row;
    for (const SpanStyle* style : kStyles) {
      // Per row, this style's spans by start.
      std::map<size_t, std::vector<const TraceSpan*>> byRow;
      for (const TraceSpan& span : m_trace.spans) {
        if (StyleOf(span) == style) byRow[rowOf[span.tid]].push_back(&span);
      }
      Append(&m_out, "<g fill=\"%s\">\n", style->colour);
      for (auto& [row, spans] : byRow) {
        std::sort(spans.begin(), spans.end(),
                  [](const TraceSpan* a, const TraceSpan* b) { return a->start < b->start; });
        DrawMerged(spans, RowTop(row), *style);
      }
      m_out += "</g>\n";
    }
  }

  // Spans less than a pixel apart become one rectangle.
  void DrawMerged(const std::vector<const TraceSpan*>& spans, double top, const SpanStyle& style) {
    const double pixel = MicrosPerPixel();
    size_t i = 0;
    while (i < spans.size()) {
      double start = spans[i]->start;
      double end = spans[i]->end;
      size_t count = 1;
      while (i + count < spans.size() && spans[i + count]->start <= end + pixel) {
        end = std::max(end, spans[i + count]->end);
        ++count;
      }
      const double x = X(start);
      const double width = std::max(X(end) - x, 0.8);
      std::string tooltip = spans[i]->name + ", " + Duration(spans[i]->end - spans[i]->start);
      if (count > 1) {
        tooltip = std::to_string(count) + " spans from " + spans[i]->name + " over " +
                  Duration(end - start);
      }
      Append(
          &m_out,
          "<rect x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.1f\"><title>%s</title></rect>\n",
          x, top + style.inset, width, kRowHeight - 2 * style.inset, Xml(tooltip).c_str());
      i += count;
    }
  }

  // Instants on their thread: a red triangle for a missed deadline.
  void DrawMarks() {
    std::map<int64_t, size_t> rowOf;
    for (size_t row = 0; row < m_trace.threads.size(); ++row) rowOf[m_trace.threads[row].tid] = row;
    for (const TraceMark& mark : m_trace.marks) {
      const double x = X(mark.time);
      const double top = RowTop(rowOf[mark.tid]);
      const bool miss = mark.name == "deadline missed";
      Append(&m_out, "<path d=\"M%.2f %.1f l-4 -6 h8 z\" fill=\"%s\"><title>%s</title></path>\n", x,
             top + 7, miss ? kMissedColour : kDeadlineColour, Xml(mark.name).c_str());
    }
  }

  void DrawOperations() {
    const bool tooltips = m_trace.operations.size() <= kMaxOperationTooltips;
    m_out += "<g class=\"operations\">\n";
    for (size_t i = 0; i < m_trace.operations.size(); ++i) {
      const TraceOperation& op = m_trace.operations[i];
      const double y = m_operationsTop + static_cast<double>(m_lanes[i]) * kLanePitch;
      const double x = X(op.begin);
      const double width = std::max(X(op.end) - x, 0.8);
      Append(&m_out, "<rect x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.0f\" fill=\"%s\">", x,
             y, width, kLaneHeight, op.missed ? kMissedColour : kOperationColour);
      if (tooltips) {
        std::string text = op.name + " " + op.id;
        if (!op.path.empty()) text += " " + op.path;
        text += ": " + Duration(op.end - op.begin);
        if (!op.result.empty()) text += ", " + op.result;
        if (op.hasDeadline) {
          text += op.missed ? ", deadline missed by " + Duration(op.end - op.deadline)
                            : ", deadline met with " + Duration(op.deadline - op.end) + " to spare";
        }
        Append(&m_out, "<title>%s</title>", Xml(text).c_str());
      }
      m_out += "</rect>\n";
      if (op.hasDeadline && op.deadline >= m_first && op.deadline <= m_last) {
        const double dx = X(op.deadline);
        Append(&m_out,
               "<line x1=\"%.2f\" y1=\"%.1f\" x2=\"%.2f\" y2=\"%.1f\" stroke=\"%s\" "
               "stroke-width=\"1.5\"/>\n",
               dx, y - 1, dx, y + kLaneHeight + 1, op.missed ? kMissedColour : kDeadlineColour);
      }
    }
    m_out += "</g>\n";
  }

  void DrawLegend() {
    double x = kLeft;
    const double y = m_legendTop;
    auto box = [&](const char* colour, const char* label) {
      Append(&m_out,
             "<rect x=\"%.0f\" y=\"%.0f\" width=\"14\" height=\"10\" fill=\"%s\"/>"
             "<text x=\"%.0f\" y=\"%.0f\">%s</text>\n",
             x, y, colour, x + 19, y + 9, label);
      x += 19 + 7.0 * static_cast<double>(std::char_traits<char>::length(label)) + 18;
    };
    m_out += "<g class=\"legend\">\n";
    for (const SpanStyle* style : kStyles) box(style->colour, style->label);
    x = kLeft;
    Append(&m_out, "<g transform=\"translate(0 18)\">\n");
    box(kOperationColour, "operation, accepted to completed");
    box(kMissedColour, "operation that missed its deadline");
    Append(
        &m_out,
        "<line x1=\"%.0f\" y1=\"%.0f\" x2=\"%.0f\" y2=\"%.0f\" stroke=\"%s\" stroke-width=\"1.5\"/>"
        "<text x=\"%.0f\" y=\"%.0f\">deadline</text>\n",
        x + 7, y - 1, x + 7, y + 11, kDeadlineColour, x + 19, y + 9);
    m_out += "</g>\n</g>\n";
  }

  const Trace& m_trace;
  std::string m_title;
  std::string m_out;
  double m_first = 0;
  double m_last = 1;
  std::vector<size_t> m_lanes;  // per operation
  size_t m_laneCount = 0;
  double m_operationsTop = 0;
  double m_legendTop = 0;
};

}  // namespace

bool ReadTrace(const JsonValue& json, Trace* trace, std::string* error) {
  *trace = Trace();
  const JsonValue* events = json.IsArray() ? &json : json.Find("traceEvents");
  if (events == nullptr || !events->IsArray()) {
    *error = "no \"traceEvents\" array: not a trace of the Trace Event format";
    return false;
  }
  std::map<int64_t, std::string> names;
  std::set<int64_t> busyThreads;
  std::map<std::string, size_t> openOperations;  // category and id -> index
  for (const JsonValue& event : events->items()) {
    if (!event.IsObject()) continue;
    const std::string phase = event.StringOr("ph", "");
    const JsonValue& args = ArgsOf(event);
    const int64_t tid = static_cast<int64_t>(event.NumberOr("tid", 0));
    const double ts = event.NumberOr("ts", NAN);
    const std::string name = event.StringOr("name", "");
    const std::string key = event.StringOr("cat", "") + "\n" + IdText(event.Find("id"));
    if (phase == "M") {
      if (name == "thread_name") names[tid] = args.StringOr("name", "");
    } else if (std::isnan(ts)) {
      continue;  // every other event needs its time
    } else if (phase == "X") {
      const double duration = std::max(event.NumberOr("dur", 0), 0.0);
      trace->spans.push_back(TraceSpan{tid, ts, ts + duration, event.StringOr("cat", ""), name});
      busyThreads.insert(tid);
    } else if (phase == "i" || phase == "I") {
      trace->marks.push_back(TraceMark{tid, ts, name});
      busyThreads.insert(tid);
    } else if (phase == "b") {
      TraceOperation op;
      op.id = IdText(event.Find("id"));
      op.name = name;
      op.path = args.StringOr("path", "");
      op.begin = op.end = ts;
      const double deadline = args.NumberOr("deadline", NAN);
      op.hasDeadline = !std::isnan(deadline);
      op.deadline = op.hasDeadline ? deadline : 0;
      openOperations[key] = trace->operations.size();
      trace->operations.push_back(op);
    } else if (phase == "e") {
      auto found = openOperations.find(key);
      if (found == openOperations.end()) {
        // Its begin is missing: a span of its end alone.
        TraceOperation op;
        op.id = IdText(event.Find("id"));
        op.name = name;
        op.begin = ts;
        found = openOperations.emplace(key, trace->operations.size()).first;
        trace->operations.push_back(op);
      }
      TraceOperation& op = trace->operations[found->second];
      op.end = std::max(ts, op.begin);
      op.result = args.StringOr("result", "");
      op.missed = args.BoolOr("missed", op.hasDeadline && op.end > op.deadline);
      openOperations.erase(found);
    }
  }
  for (const auto& [tid, name] : names) trace->threads.push_back(TraceThread{tid, name});
  for (const int64_t tid : busyThreads) {
    if (names.count(tid) == 0)
      trace->threads.push_back(TraceThread{tid, "thread " + std::to_string(tid)});
  }
  std::sort(trace->threads.begin(), trace->threads.end(),
            [](const TraceThread& a, const TraceThread& b) { return a.tid < b.tid; });
  std::stable_sort(
      trace->operations.begin(), trace->operations.end(),
      [](const TraceOperation& a, const TraceOperation& b) { return a.begin < b.begin; });
  return true;
}

std::string DrawTimelineSvg(const Trace& trace, const std::string& title) {
  return Picture(trace, title).Draw();
}

}  // namespace kest2_cli
