#include "bench_support.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

namespace kest2_bench {
namespace {

[[noreturn]] void Die(const char* what, const std::string& path) {
  std::perror((std::string(what) + " " + path).c_str());
  std::exit(2);
}

// What the stall watchdog watches.
std::atomic<int64_t> g_progress{0};
std::atomic<const char*> g_running{nullptr};

}  // namespace

void WriteFile(const std::string& path, int64_t size, uint32_t seed) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Die("open", path);
  std::vector<uint64_t> block(1 << 17);  // 1 MiB
  kest2_common::Random random(seed);
  for (int64_t done = 0; done < size;) {
    for (uint64_t& word : block) word = random.Next();
    const int64_t want = std::min<int64_t>(size - done, static_cast<int64_t>(block.size() * 8));
    if (::write(fd, block.data(), static_cast<size_t>(want)) != want) Die("write", path);
    done += want;
  }
  ::close(fd);
}

void FlushToDevice() { ::sync(); }

void WarmFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Die("open", path);
  std::vector<char> buffer(1 << 20);
  for (off_t offset = 0;; offset += static_cast<off_t>(buffer.size())) {
    const ssize_t got = ::pread(fd, buffer.data(), buffer.size(), offset);
    if (got < 0) Die("pread", path);
    if (got == 0) break;
  }
  ::close(fd);
}

TextMaker::TextMaker() {
  static const char* const kSyllables[] = {"ka", "lo",  "mi",  "ne",  "sta", "ri", "on", "ve",
                                           "tu", "pa",  "zor", "ba",  "ex",  "in", "de", "gra",
                                           "ul", "shi", "qua", "te",  "mo",  "ar", "fi", "ly",
                                           "se", "cro", "pu",  "dan", "el",  "wo", "ti", "nu"};
  kest2_common::Random random(7);
  for (int w = 0; w < kWords; ++w) {
    std::string word;
    const int parts = 1 + static_cast<int>(random.Below(4));
    for (int p = 0; p < parts; ++p) word += kSyllables[random.Below(32)];
    if (random.Below(8) == 0) word[0] = static_cast<char>(word[0] - 'a' + 'A');
    m_words.push_back(word);
  }
}

void TextMaker::Fill(char* out, int64_t size, uint64_t seed) const {
  kest2_common::Random random(seed);
  std::vector<std::string> recent(kRecentLines);
  std::string line;
  for (int64_t done = 0; done < size;) {
    std::string& old = recent[random.Below(kRecentLines)];
    if (!old.empty() && random.Below(8) < 5) {
      // Most lines echo a recent one with a new tail, as in logs and code.
      line.assign(old, 0, old.size() / 2 + random.Below(old.size() / 2 + 1));
      AddWords(&line, 1 + static_cast<int>(random.Below(3)), &random);
    } else {
      line.clear();
      AddWords(&line, 6 + static_cast<int>(random.Below(8)), &random);
    }
    old = line;
    line += '\n';
    const int64_t n = std::min<int64_t>(static_cast<int64_t>(line.size()), size - done);
    std::memcpy(out + done, line.data(), static_cast<size_t>(n));
    done += n;
  }
}

void TextMaker::AddWords(std::string* line, int count, kest2_common::Random* random) const {
  for (int i = 0; i < count; ++i) {
    if (!line->empty() && line->back() != ' ') *line += ' ';
    if (random->Below(24) == 0) {
      *line += std::to_string(random->Below(100000));
      continue;
    }
    // The product of two uniforms favours low indices, like word frequency.
    const uint64_t a = random->Below(kWords), b = random->Below(kWords);
    *line += m_words[a * b / kWords];
  }
}

void SleepUntil(ZulKestTime when) {
  // kest2's clock is CLOCK_MONOTONIC in nanoseconds.
  timespec until{static_cast<time_t>(when / 1000000000), static_cast<long>(when % 1000000000)};
  while (Now() < when &&
         clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

double MiBPerSecond(int64_t bytes, ZulKestTime nanoseconds) {
  return nanoseconds <= 0
             ? 0.0
             : static_cast<double>(bytes) / kMiB / (static_cast<double>(nanoseconds) / 1e9);
}

double Median(std::vector<double> values) { return Percentile(std::move(values), 0.5); }

double Percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const double rank = std::ceil(fraction * static_cast<double>(values.size()));
  const size_t index = rank < 1.0 ? 0 : static_cast<size_t>(rank) - 1;
  return values[std::min(index, values.size() - 1)];
}

void StartStallWatchdog(const std::string& scratch, int seconds, const char* unit) {
  std::thread([scratch, seconds, unit] {
    int64_t seen = -1;
    int still = 0;
    for (;;) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      const char* running = g_running.load();
      const int64_t done = g_progress.load();
      still = running != nullptr && done == seen ? still + 1 : 0;
      seen = done;
      if (still < seconds) continue;
      std::fprintf(stderr, "\n%s: no %s finished for %d s; the run is stopped as stalled\n",
                   running, unit, seconds);
      std::error_code ignored;
      std::filesystem::remove_all(scratch, ignored);
      std::_Exit(3);
    }
  }).detach();
}

void SetRunning(const char* name) { g_running = name; }

void NoteProgress() { g_progress.fetch_add(1, std::memory_order_relaxed); }

void SummaryRow(const char* benchmark, const char* what, const std::string& baseline,
                const std::string& kest2, double ratio, const char* target, const char* verdict) {
  const char* path = std::getenv("KEST2_BENCH_SUMMARY");
  if (path == nullptr || path[0] == 0) return;
  FILE* out = std::fopen(path, "a");
  if (out == nullptr) return;
  std::fprintf(out, "%s\t%s\t%s\t%s\t%.2f\t%s\t%s\n", benchmark, what, baseline.c_str(), kest2.c_str(), ratio,
               target, verdict);
  std::fclose(out);
}

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof(text), format, value);
  return text;
}

}  // namespace kest2_bench
