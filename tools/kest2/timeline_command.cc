// "kest2 timeline": see timeline_command.h.

#include "kest2/timeline_command.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "kest2/error_words.h"
#include "kest2/json_value.h"
#include "kest2/timeline_svg.h"

namespace kest2_cli {

const char kTimelineHelp[] =
    "Reads FILE, a trace in the Trace Event JSON format as 'kest2 --timeline FILE\n"
    "COMMAND' writes it, and with --svg draws it into OUT, a self-contained SVG\n"
    "picture: one row per thread (its name at the left), time across, each chunk\n"
    "executed, system call, archive block read and block inflated a rectangle on\n"
    "the thread that ran it, every operation a thin bar from its acceptance to its\n"
    "completion below the threads with its deadline as a tick, and the operations\n"
    "that missed their deadline in red.  Spans of a kind closer together than a\n"
    "pixel are drawn as one.  Without --svg it prints how many threads, spans and\n"
    "operations the trace holds and which operations missed their deadline.\n"
    "\n"
    "  --svg OUT    write the picture to OUT (replaced if it exists)\n"
    "\n"
    "Exit status 1 when FILE cannot be read or is not such a trace, or OUT\n"
    "cannot be written; 2 on bad usage.\n";

namespace {

int FailWithWords(const std::string& path, const std::string& words) {
  std::fprintf(stderr, "kest2 timeline: %s: %s\n", path.c_str(), words.c_str());
  return 1;
}

bool ReadWhole(const std::string& path, std::string* text, std::string* error) {
  std::FILE* in = std::fopen(path.c_str(), "rb");
  if (in == nullptr) {
    *error = std::string("cannot read: ") + std::strerror(errno);
    return false;
  }
  char buffer[1 << 16];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof(buffer), in)) > 0) text->append(buffer, got);
  const bool failed = std::ferror(in) != 0;
  const int savedErrno = errno;
  std::fclose(in);
  if (failed) *error = std::string("cannot read: ") + std::strerror(savedErrno);
  return !failed;
}

bool WriteWhole(const std::string& path, const std::string& text, std::string* error) {
  std::FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) {
    *error = std::string("cannot write: ") + std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
  const int savedErrno = errno;
  if (std::fclose(out) != 0 || !written) {
    *error = std::string("cannot write: ") + std::strerror(written ? errno : savedErrno);
    return false;
  }
  return true;
}

// The text summary: counts, spans per thread and kind, and every miss.
void PrintSummary(const std::string& path, const Trace& trace) {
  size_t missed = 0;
  for (const TraceOperation& op : trace.operations) missed += op.missed ? 1 : 0;
  std::printf("%s: %zu threads, %zu spans, %zu operations, %zu missed their deadline\n",
              path.c_str(), trace.threads.size(), trace.spans.size(), trace.operations.size(),
              missed);
  for (const TraceThread& thread : trace.threads) {
    std::map<std::string, size_t> kinds;
    for (const TraceSpan& span : trace.spans) {
      if (span.tid == thread.tid) ++kinds[span.category + " " + span.name];
    }
    std::printf("  %-16s (%lld):", thread.name.c_str(), static_cast<long long>(thread.tid));
    if (kinds.empty()) std::printf(" no spans");
    for (const auto& [kind, count] : kinds) std::printf(" %zu %s;", count, kind.c_str());
    std::printf("\n");
  }
  for (const TraceOperation& op : trace.operations) {
    if (!op.missed) continue;
    std::printf("  missed: %s %s %s, %.3f us late\n", op.name.c_str(), op.id.c_str(),
                op.path.c_str(), op.end - op.deadline);
  }
}

}  // namespace

int TimelineCommand(const Arguments& arguments) {
  std::string input;
  std::string svg;
  bool haveSvg = false;
  bool optionsEnded = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (!optionsEnded && argument == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && argument == "--svg") {
      if (i + 1 >= arguments.size() || arguments[i + 1].empty())
        return UsageError("timeline", "--svg needs a file name");
      svg = arguments[++i];
      haveSvg = true;
    } else if (!optionsEnded && argument.size() > 1 && argument[0] == '-') {
      return UsageError("timeline", "unknown option " + argument);
    } else if (input.empty()) {
      input = argument;
    } else {
      return UsageError("timeline", "one trace file at a time, not also " + argument);
    }
  }
  if (input.empty()) return UsageError("timeline", "which trace file?");

  std::string text;
  std::string error;
  if (!ReadWhole(input, &text, &error)) return FailWithWords(input, error);
  JsonValue json;
  if (!ParseJson(text, &json, &error)) return FailWithWords(input, "not valid JSON, " + error);
  Trace trace;
  if (!ReadTrace(json, &trace, &error)) return FailWithWords(input, error);
  if (!haveSvg) {
    PrintSummary(input, trace);
    return 0;
  }
  const size_t slash = input.find_last_of('/');
  const std::string title =
      "kest2 timeline: " + (slash == std::string::npos ? input : input.substr(slash + 1));
  if (!WriteWhole(svg, DrawTimelineSvg(trace, title), &error)) return FailWithWords(svg, error);
  return 0;
}

}  // namespace kest2_cli
