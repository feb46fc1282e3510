// `kest2 timeline`'s picture: a trace in the Trace Event format (as the
// library's timeline writes it) read into threads, spans and operations,
// and drawn as one self-contained SVG: one row per thread with its name at
// the left, time across with tick labels, each span a rectangle coloured by
// its category, the operations as thin bars in a band below the threads
// with their deadlines as ticks, misses in red, and a legend.
#ifndef KEST2_TOOLS_KEST2_TIMELINE_SVG_H_
#define KEST2_TOOLS_KEST2_TIMELINE_SVG_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kest2/json_value.h"

namespace kest2_cli {

struct TraceThread {
  int64_t tid;
  std::string name;
};

// A complete ("X") event; times in microseconds, as in the trace.
struct TraceSpan {
  int64_t tid;
  double start;
  double end;
  std::string category;
  std::string name;
};

// An operation from its "b" to its "e" event.
struct TraceOperation {
  std::string id;
  std::string name;
  std::string path;
  std::string result;
  double begin = 0;
  double end = 0;
  bool hasDeadline = false;
  double deadline = 0;
  bool missed = false;
};

// An instant ("i") event, such as "deadline missed".
struct TraceMark {
  int64_t tid;
  double time;
  std::string name;
};

struct Trace {
  std::vector<TraceThread> threads;  // by tid; every tid that has events
  std::vector<TraceSpan> spans;
  std::vector<TraceOperation> operations;  // by begin
  std::vector<TraceMark> marks;
};

// Reads a parsed trace: an object with a "traceEvents" array, or a bare
// array of events.  Events of other phases are skipped, and so are events
// without the fields their phase needs.  False, with *error, when there is
// no array of events.
bool ReadTrace(const JsonValue& json, Trace* trace, std::string* error);

// The picture; `title` heads it.  Well-formed XML whatever the names hold.
std::string DrawTimelineSvg(const Trace& trace, const std::string& title);

}  // namespace kest2_cli

#endif  // KEST2_TOOLS_KEST2_TIMELINE_SVG_H_
