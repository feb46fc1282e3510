// "kest2 pack": see pack_command.h.

#include "kest2/pack_command.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kest2/archive_writer.h"
#include "kest2/error_words.h"
#include "kest2/progress.h"

namespace kest2_cli {

const char kPackHelp[] =
    "Packs the regular files below DIR into the archive ARCHIVE.  Links to files\n"
    "are followed, links to directories are not.  Each file is cut into blocks\n"
    "that are stored zlib-compressed, or raw when compression does not make them\n"
    "smaller.  The archive is written to a temporary file beside ARCHIVE and\n"
    "renamed into place when complete.\n"
    "\n"
    "Options:\n"
    "  --block-size N    uncompressed bytes per block, 256 to 64M; a k or M suffix\n"
    "                    counts in KiB or MiB (default 64k)\n"
    "  --level N         zlib compression level, 0 to 9 (default 9)\n"
    "  --version 1|3     archive format version (default 3)\n"
    "  --store           store files none of whose blocks compress whole and raw,\n"
    "                    without block-size rows\n"
    "  --ignore-case     look names up case-insensitively\n"
    "  --absolute-paths  names inside the archive begin with '/'\n"
    "  --unsorted        leave the table of contents unsorted (readers sort it)\n"
    "  -j, --jobs N      compression threads (default: one per processor); the\n"
    "                    archive is the same for any N\n";

namespace {

// A decimal number in [low, high], with an optional k or M suffix when
// `suffixes` is set.
bool ParseNumber(const std::string& text, uint64_t low, uint64_t high, bool suffixes,
                 uint64_t* value) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  uint64_t number = std::strtoull(text.c_str(), &end, 10);
  const std::string suffix = end;
  if (suffixes && (suffix == "k" || suffix == "K")) {
    number <<= 10;
  } else if (suffixes && suffix == "M") {
    number <<= 20;
  } else if (!suffix.empty()) {
    return false;
  }
  if (number < low || number > high) return false;
  *value = number;
  return true;
}

}  // namespace

int Pack(const Arguments& arguments) {
  PackOptions options;
  options.jobs = std::max(1u, std::thread::hardware_concurrency());
  std::vector<std::string> operands;
  bool optionsEnded = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
      operands.push_back(argument);
    } else if (argument == "--") {
      optionsEnded = true;
    } else if (argument == "--store") {
      options.storeIncompressible = true;
    } else if (argument == "--ignore-case") {
      options.ignoreCase = true;
    } else if (argument == "--absolute-paths") {
      options.absolutePaths = true;
    } else if (argument == "--unsorted") {
      options.unsorted = true;
    } else if (argument == "--block-size" || argument == "--level" || argument == "--version" ||
               argument == "-j" || argument == "--jobs" || argument.compare(0, 2, "-j") == 0) {
      std::string value;
      if (argument.size() > 2 && argument[1] == 'j') {
        value = argument.substr(2);
      } else if (i + 1 < arguments.size()) {
        value = arguments[++i];
      } else {
        return UsageError("pack", "missing value for " + argument);
      }
      uint64_t number = 0;
      if (argument == "--block-size") {
        if (!ParseNumber(value, 256, kMaxPackBlockSize, true, &number)) {
          return UsageError("pack", "--block-size takes 256 to 64M, not " + value);
        }
        options.blockSize = static_cast<uint32_t>(number);
      } else if (argument == "--level") {
        if (!ParseNumber(value, 0, 9, false, &number)) {
          return UsageError("pack", "--level takes 0 to 9, not " + value);
        }
        options.level = static_cast<int>(number);
      } else if (argument == "--version") {
        if (!ParseNumber(value, 1, 3, false, &number) || number == 2) {
          return UsageError("pack", "--version takes 1 or 3, not " + value);
        }
        options.version = static_cast<uint32_t>(number);
      } else {
        if (!ParseNumber(value, 1, 256, false, &number)) {
          return UsageError("pack", "-j takes 1 to 256, not " + value);
        }
        options.jobs = static_cast<unsigned>(number);
      }
    } else {
      return UsageError("pack", "unknown option " + argument);
    }
  }
  if (operands.size() != 2) return UsageError("pack", "expects DIR and ARCHIVE");

  std::unique_ptr<Progress> shown;
  uint64_t bytesShown = 0, filesShown = 0;
  options.progress = [&](const PackProgress& done) {
    if (!shown) shown.reset(new Progress("pack", done.totalBytes, done.totalFiles));
    shown->Add(done.bytes - bytesShown, done.files - filesShown);
    bytesShown = done.bytes;
    filesShown = done.files;
  };
  PackSummary summary;
  std::string error;
  if (!PackDirectory(operands[0], operands[1], options, &summary, &error)) {
    std::fprintf(stderr, "kest2 pack: %s\n", error.c_str());
    return 1;
  }
  if (shown) shown->Finish();
  std::printf("%s: %llu files, %llu bytes packed into %llu bytes\n", operands[1].c_str(),
              static_cast<unsigned long long>(summary.files),
              static_cast<unsigned long long>(summary.inputBytes),
              static_cast<unsigned long long>(summary.archiveBytes));
  return 0;
}

}  // namespace kest2_cli
