// kest2: file commands carried out through the kest2 library.
//
//   kest2 [OPTIONS] COMMAND [ARGUMENTS...]
//
// Exit codes: 0 success, 1 an operation failed, 2 bad usage or the library
// could not start.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kest2.h"
#include "kest2/commands.h"
#include "kest2/error_words.h"
#include "kest2/library_session.h"
#include "kest2/progress.h"
#include "kest2/timeline_recording.h"

namespace {

using kest2_cli::Arguments;
using kest2_cli::Command;

constexpr int kUsageError = 2;

struct TraceModule {
  const char* name;
  uint32_t bit;
};

const TraceModule kTraceModules[] = {
    {"api", 0x01},  {"sched", 0x02}, {"op", 0x04},    {"chunk", 0x08},
    {"io", 0x10},   {"cache", 0x20}, {"zorba", 0x40}, {"ovrly", 0x80},
};

void PrintUsage(FILE* out) {
  std::fprintf(out,
               "Usage: kest2 [OPTIONS] COMMAND [ARGUMENTS...]\n"
               "\n"
               "File commands carried out through the kest2 I/O scheduling library.\n"
               "\n"
               "Commands:\n");
  int nameWidth = 0;
  int usageWidth = 0;
  for (const Command* command = kest2_cli::Commands(); command->name != nullptr; ++command) {
    nameWidth = std::max(nameWidth, static_cast<int>(std::strlen(command->name)));
    usageWidth = std::max(usageWidth, static_cast<int>(std::strlen(command->usage)));
  }
  for (const Command* command = kest2_cli::Commands(); command->name != nullptr; ++command) {
    std::fprintf(out, "  %-*s %-*s %s\n", nameWidth, command->name, usageWidth, command->usage,
                 command->summary);
  }
  std::fprintf(out,
               "\n"
               "Options:\n"
               "  --stats            print the library's storage and queue statistics at the end\n"
               "  --trace MODULES    trace library modules to standard error: a comma-separated\n"
               "                     list of api, sched, op, chunk, io, cache, zorba, ovrly, or\n"
               "                     all, or a number of debug flags (e.g. 0x12)\n"
               "  --io-threads N     I/O threads of the library (1-3, default 2)\n"
               "  --overlay LOWER=UPPER[:MODE]\n"
               "                     lay directory UPPER over LOWER: paths under LOWER are looked\n"
               "                     up under UPPER first.  MODE is translucent (default: UPPER\n"
               "                     wins where its file exists), opaque (UPPER always wins),\n"
               "                     newer (UPPER wins where its file is newer) or writable\n"
               "                     (opaque for writes, translucent for reads).  Repeatable;\n"
               "                     later overlays apply on top of earlier ones.\n"
               "  --timeline FILE    record what the library did during the command (each\n"
               "                     chunk, system call, block read and inflate on its thread,\n"
               "                     each operation with its deadline) and write it to FILE as\n"
               "                     Trace Event JSON when the command ends, also when it\n"
               "                     fails (exit status 1 when FILE cannot be written);\n"
               "                     draw it with 'kest2 timeline FILE --svg OUT'\n"
               "  --progress         show the progress of pack, unpack, verify and cp on\n"
               "                     standard error even when it is not a terminal\n"
               "  --no-progress      never show progress (default: shown on a terminal when\n"
               "                     the work takes more than a second)\n"
               "  --version          print the library version\n"
               "  -h, --help         show this help; 'kest2 COMMAND --help' for one command\n"
               "\n"
               "Exit status: 0 on success, 1 when an operation failed, 2 on bad usage.\n");
}

void PrintCommandHelp(const Command& command) {
  std::printf("Usage: kest2 [OPTIONS] %s %s\n\n%s", command.name, command.usage, command.help);
}

bool ParseTrace(const std::string& text, uint32_t* flags) {
  char* end = nullptr;
  const unsigned long number = std::strtoul(text.c_str(), &end, 0);
  if (!text.empty() && *end == '\0') {
    *flags = static_cast<uint32_t>(number);
    return true;
  }
  *flags = 0;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    const std::string name = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    bool known = name == "all";
    if (known) *flags |= 0xFF;
    for (const TraceModule& module : kTraceModules) {
      if (name == module.name) {
        *flags |= module.bit;
        known = true;
      }
    }
    if (!known) return false;
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return true;
}

// --progress and --no-progress: true when `option` was one of them.
bool TakeProgressOption(const std::string& option) {
  if (option != "--progress" && option != "--no-progress") return false;
  kest2_cli::SetProgressMode(option == "--progress" ? kest2_cli::ProgressMode::kAlways
                                                    : kest2_cli::ProgressMode::kNever);
  return true;
}

int UsageError(const char* message, const std::string& detail) {
  std::fprintf(stderr, "kest2: %s%s\nTry 'kest2 --help'.\n", message, detail.c_str());
  return kUsageError;
}

}  // namespace

int main(int argc, char** argv) {
  kest2_cli::SessionOptions options;
  std::string timelinePath;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string option = argv[i];
    if (option == "-h" || option == "--help") {
      PrintUsage(stdout);
      return 0;
    } else if (option == "--version") {
      std::printf("kest2 %s\n", KEST2_VERSION_STRING);
      return 0;
    } else if (TakeProgressOption(option)) {
    } else if (option == "--stats") {
      options.printStatistics = true;
    } else if (option == "--overlay") {
      if (i + 1 >= argc) return UsageError("missing value for ", option);
      kest2_cli::OverlayOption overlay;
      if (!kest2_cli::ParseOverlayOption(argv[++i], &overlay))
        return UsageError("--overlay takes LOWER=UPPER[:opaque|translucent|newer|writable], not ", argv[i]);
      options.overlays.push_back(overlay);
    } else if (option == "--timeline") {
      if (i + 1 >= argc || argv[i + 1][0] == '\0') return UsageError("missing value for ", option);
      timelinePath = argv[++i];
    } else if (option == "--trace" || option == "--io-threads") {
      if (i + 1 >= argc) return UsageError("missing value for ", option);
      const std::string value = argv[++i];
      if (option == "--trace") {
        if (!ParseTrace(value, &options.debugFlags)) return UsageError("unknown trace module in ", value);
      } else {
        options.ioThreads = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
        if (options.ioThreads < 1 || options.ioThreads > 3) return UsageError("--io-threads takes 1 to 3, not ", value);
      }
    } else {
      return UsageError("unknown option ", option);
    }
  }
  if (i >= argc) {
    PrintUsage(stderr);
    return kUsageError;
  }
  std::string name = argv[i++];
  if (name == "help") {
    if (i >= argc) {
      PrintUsage(stdout);
      return 0;
    }
    name = argv[i];
    const Command* command = kest2_cli::FindCommand(name);
    if (command == nullptr) return UsageError("unknown command ", name);
    PrintCommandHelp(*command);
    return 0;
  }
  const Command* command = kest2_cli::FindCommand(name);
  if (command == nullptr) return UsageError("unknown command ", name);
  // --progress and --no-progress may also follow the command they are for.
  Arguments arguments;
  bool optionsEnded = false;
  for (int k = i; k < argc; ++k) {
    const std::string argument = argv[k];
    optionsEnded = optionsEnded || argument == "--";
    if (!optionsEnded && (argument == "-h" || argument == "--help")) {
      PrintCommandHelp(*command);
      return 0;
    }
    if (optionsEnded || !TakeProgressOption(argument)) arguments.push_back(argument);
  }
  if (arguments.size() < command->minArguments || arguments.size() > command->maxArguments) {
    std::fprintf(stderr, "Usage: kest2 [OPTIONS] %s %s\n", command->name, command->usage);
    return kUsageError;
  }
  if (!command->usesLibrary) {
    if (!timelinePath.empty())
      return UsageError("--timeline records the library's work, and this command does not use it: ",
                        name);
    return command->run(arguments);
  }
  // Started before the library and written after it has terminated, so
  // that the timeline holds all of the session.
  kest2_cli::TimelineRecording timeline(timelinePath);
  if (timeline.status() != ZUL_KEST_OK) {
    std::fprintf(stderr, "kest2: --timeline did not start: %s\n",
                 kest2_cli::DescribeError(timeline.status()).c_str());
    return kUsageError;
  }
  int status;
  {
    kest2_cli::LibrarySession session(options);
    if (session.status() != ZUL_KEST_OK) {
      std::fprintf(stderr, "kest2: the library did not start: %s\n",
                   kest2_cli::DescribeError(session.status()).c_str());
      status = kUsageError;
    } else {
      status = command->run(arguments);
    }
  }
  return timeline.Finish(status);
}
