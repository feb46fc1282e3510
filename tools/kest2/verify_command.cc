// "kest2 verify": see verify_command.h.

#include "kest2/verify_command.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "kest2/archive_reader.h"
#include "kest2/error_words.h"
#include "kest2/progress.h"
#include "kest2/safe_names.h"

namespace kest2_cli {

const char kVerifyHelp[] =
    "Reads all of ARCHIVE, without the library, and checks it: the header and\n"
    "the TOC region against the file; each file's block-size rows inside the\n"
    "table and its blocks inside the file; every block read, and inflated to\n"
    "exactly its length; the header's flags (a TOC said to be sorted is, names\n"
    "said to begin with '/' do); and the manifest against the TOC: every name\n"
    "has an entry, every entry a name, no name comes twice, and no name is one\n"
    "that 'kest2 unpack' refuses (absolute, climbing out with '..', empty, or\n"
    "holding a NUL or a control character; given with its place in the\n"
    "manifest).  An intact archive gets one summary line on standard output.\n"
    "Damage is reported on standard error: the first problem found, with the\n"
    "archive offset it concerns, and the number of further problems.\n"
    "\n"
    "Exit status: 0 when the archive is intact; 1 when it is damaged, missing\n"
    "or unreadable; 2 on bad usage.\n";

namespace {

using Digest = std::array<uint8_t, kest2::kMd5DigestSize>;

std::string Number(uint64_t value) { return std::to_string(value); }

class Verifier {
 public:
  explicit Verifier(const std::string& path) : m_path(path) {}
  int Run();

 private:
  // The manifest against the TOC; fills m_labels.
  void CheckNames(const std::vector<std::string>& names);
  bool CheckBlocks();  // false on a host error (already reported)
  void Damage(const std::string& what);
  int HostError(const ReadProblem& problem);
  int Report();

  const std::string& m_path;
  ArchiveReader m_reader;
  int64_t m_manifest = -1;
  std::vector<std::string> m_labels;  // per entry: how messages name it
  uint64_t m_problems = 0;
  uint64_t m_files = 0;
  uint64_t m_blocks = 0;
  uint64_t m_bytes = 0;
};

void Verifier::Damage(const std::string& what) {
  if (m_problems++ == 0)
    std::fprintf(stderr, "kest2 verify: %s: %s\n", m_path.c_str(), what.c_str());
}

int Verifier::HostError(const ReadProblem& problem) {
  std::fprintf(stderr, "kest2 verify: %s: %s\n", m_path.c_str(), problem.what.c_str());
  return 1;
}

int Verifier::Report() {
  if (m_problems == 0) {
    std::printf("%s: intact: %llu files, %llu blocks, %llu bytes\n", m_path.c_str(),
                static_cast<unsigned long long>(m_files), static_cast<unsigned long long>(m_blocks),
                static_cast<unsigned long long>(m_bytes));
    return 0;
  }
  if (m_problems > 1) {
    const uint64_t more = m_problems - 1;
    std::fprintf(stderr, "kest2 verify: %s: %llu further %s\n", m_path.c_str(),
                 static_cast<unsigned long long>(more), more == 1 ? "problem" : "problems");
  }
  return 1;
}

int Verifier::Run() {
  ReadProblem problem;
  if (!m_reader.Open(m_path, &problem)) {
    if (!problem.damaged) return HostError(problem);
    Damage(problem.what);
    return Report();
  }
  const uint32_t count = m_reader.entryCount();
  m_manifest = m_reader.FindManifest();
  m_labels.resize(count);
  for (uint32_t i = 0; i < count; ++i) m_labels[i] = "TOC entry " + Number(i + 1);

  // Two entries with one digest: a lookup finds only one of them.  A TOC
  // the header calls sorted is searched by halves: one entry out of order
  // hides others.
  const bool sorted = (m_reader.header().archiveFlags & kest2::ZORBA_FLAG_TOC_SORTED) != 0;
  std::map<Digest, uint32_t> byDigest;
  for (uint32_t i = 0; i < count; ++i) {
    Digest digest;
    std::memcpy(digest.data(), m_reader.Entry(i), digest.size());
    if (sorted && i > 0 && std::memcmp(m_reader.Entry(i - 1), digest.data(), digest.size()) > 0) {
      Damage("TOC entry " + Number(i + 1) + " at offset " + Number(m_reader.EntryOffset(i)) +
             " is out of digest order, and the header says the TOC is sorted");
    }
    const auto placed = byDigest.emplace(digest, i);
    if (!placed.second) {
      const uint32_t first = placed.first->second;
      Damage("TOC entries " + Number(first + 1) + " and " + Number(i + 1) + " (at offsets " +
             Number(m_reader.EntryOffset(first)) + " and " + Number(m_reader.EntryOffset(i)) +
             ") have the same digest");
    }
  }
  std::vector<std::string> names;
  if (m_reader.ReadManifest(&names, &problem)) {
    CheckNames(names);
  } else if (!problem.damaged) {
    return HostError(problem);
  } else {
    Damage(problem.what);
  }
  if (!CheckBlocks()) return 1;
  return Report();
}

void Verifier::CheckNames(const std::vector<std::string>& names) {
  const bool absolute = (m_reader.header().archiveFlags & kest2::ZORBA_FLAG_ABSOLUTE_PATHS) != 0;
  std::vector<int64_t> namedBy(m_reader.entryCount(), -1);
  if (names.empty()) Damage("the manifest names no file");
  for (size_t p = 0; p < names.size(); ++p) {
    const std::string quoted = "\"" + EscapeName(names[p]) + "\"";
    const std::string shown = "manifest name " + Number(p + 1) + " " + quoted;
    const CheckedName checked = CheckName(names[p], absolute);
    if (checked.verdict != NameVerdict::kSafe) {
      Damage(shown + " is unsafe to unpack: " + VerdictWords(checked.verdict));
    } else if (absolute && names[p][0] != '/') {
      // Lookups keep the "/" of the requested path, so this name is never
      // found by it.
      Damage(shown + " does not begin with '/', and the header says the names do");
    }
    const int64_t found = m_reader.FindByName(names[p]);
    if (found < 0) {
      Damage(shown + " has no entry in the TOC");
      continue;
    }
    const uint32_t entry = static_cast<uint32_t>(found);
    if (namedBy[entry] >= 0) {
      Damage(shown + " names the same file as manifest name " + Number(namedBy[entry] + 1));
      continue;
    }
    namedBy[entry] = static_cast<int64_t>(p);
    m_labels[entry] = quoted;
  }
  for (uint32_t i = 0; i < m_reader.entryCount(); ++i) {
    if (i != m_manifest && namedBy[i] < 0) {
      Damage("TOC entry " + Number(i + 1) + " at offset " + Number(m_reader.EntryOffset(i)) +
             " has no name in the manifest");
    }
  }
}

bool Verifier::CheckBlocks() {
  ReadProblem problem;
  std::vector<bool> laidOut(m_reader.entryCount(), false);
  uint64_t totalBytes = 0, totalFiles = 0;
  for (uint32_t i = 0; i < m_reader.entryCount(); ++i) {
    if (i == m_manifest) continue;
    ++totalFiles;
    laidOut[i] = m_reader.CheckEntry(i, m_labels[i], &problem);
    if (laidOut[i]) {
      totalBytes += kest2::GetEntrySize(m_reader.Entry(i));
    } else {
      Damage(problem.what);
    }
  }
  Progress progress("verify", totalBytes, totalFiles);
  std::vector<uint8_t> bytes;
  bool hostError = false;
  for (uint32_t i = 0; i < m_reader.entryCount() && !hostError; ++i) {
    if (!laidOut[i]) continue;
    m_reader.ForEachBlock(i, [&](const StoredBlock& block) {
      if (!m_reader.ReadBlock(block, m_labels[i], &bytes, &problem)) {
        if (!problem.damaged) {
          hostError = true;
          return false;
        }
        Damage(problem.what);
      }
      ++m_blocks;
      m_bytes += block.length;
      progress.Add(block.length);
      return true;
    });
    ++m_files;
    progress.Add(0, 1);
  }
  if (hostError) {
    HostError(problem);
    return false;
  }
  if (m_problems == 0) progress.Finish();
  return true;
}

}  // namespace

int Verify(const Arguments& arguments) {
  std::vector<std::string> operands;
  if (const int status = ParseFlags("verify", arguments, {}, &operands)) return status;
  if (operands.size() != 1) return UsageError("verify", "expects one ARCHIVE");
  Verifier verifier(operands[0]);
  return verifier.Run();
}

}  // namespace kest2_cli
