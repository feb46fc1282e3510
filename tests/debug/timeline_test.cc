// The timeline end to end: real reads of real files (and of an archive)
// recorded, written as Trace Event JSON, parsed back and checked against
// the operations that ran: one span per operation with its type and
// result, chunk spans inside their operation's, every track named, a
// forced deadline miss marked and the met ones not; concurrent callers; a
// ring too small for the run; and the refusals of the entry points.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/library_storage.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "kest2/archive_writer.h"
#include "kest2/json_value.h"
#include "kest2_timeline.h"
#include "test_support.h"

namespace {

using kest2_cli::JsonValue;

int32_t AppendTo(void* context, const char* text, uint64_t length) {
  static_cast<std::string*>(context)->append(text, length);
  return ZUL_KEST_OK;
}

// One event of the trace, with its args.
struct Event {
  std::string ph, cat, name, id;
  int64_t tid;
  double ts, dur;
  const JsonValue* args;

  std::string Arg(const std::string& key) const { return args->StringOr(key, ""); }
  bool Contains(const Event& inner) const {
    constexpr double kSlack = 0.002;  // three decimals of microseconds
    return inner.ts >= ts - kSlack && inner.ts + inner.dur <= ts + dur + kSlack;
  }
};

// A written timeline, parsed.
class ParsedTimeline {
 public:
  explicit ParsedTimeline(const std::string& text) {
    std::string error;
    EXPECT_TRUE(kest2_cli::ParseJson(text, &json_, &error)) << error;
    const JsonValue* events = json_.Find("traceEvents");
    if (events == nullptr) return;
    static const JsonValue kNoArgs;
    for (const JsonValue& item : events->items()) {
      const JsonValue* args = item.Find("args");
      Event event{item.StringOr("ph", ""),
                  item.StringOr("cat", ""),
                  item.StringOr("name", ""),
                  item.StringOr("id", ""),
                  static_cast<int64_t>(item.NumberOr("tid", -1)),
                  item.NumberOr("ts", -1),
                  item.NumberOr("dur", 0),
                  args != nullptr ? args : &kNoArgs};
      if (event.ph == "M" && event.name == "thread_name") {
        threadNames_[event.tid] = event.Arg("name");
      } else if (event.ph != "M") {
        events_.push_back(event);
      }
    }
  }

  const JsonValue& json() const { return json_; }
  const std::vector<Event>& events() const { return events_; }
  const std::map<int64_t, std::string>& threadNames() const { return threadNames_; }

  std::vector<Event> Where(const std::string& ph, const std::string& cat) const {
    std::vector<Event> found;
    for (const Event& event : events_) {
      if (event.ph == ph && event.cat == cat) found.push_back(event);
    }
    return found;
  }

  // The operation's begin and end, keyed by its handle's text.
  std::map<std::string, std::pair<Event, Event>> Operations() const {
    std::map<std::string, std::pair<Event, Event>> ops;
    for (const Event& event : Where("b", "op")) ops[event.id].first = event;
    for (const Event& event : Where("e", "op")) ops[event.id].second = event;
    return ops;
  }

  std::string ThreadName(int64_t tid) const {
    auto found = threadNames_.find(tid);
    return found != threadNames_.end() ? found->second : "";
  }

 private:
  JsonValue json_;
  std::vector<Event> events_;
  std::map<int64_t, std::string> threadNames_;
};

std::string HandleText(ZulKestOp op) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", op);
  return text;
}

class TimelineTest : public ::testing::Test {
 protected:
  void SetUp() override { StartLibrary(); }

  void TearDown() override {
    // Never leave the process recording into storage that goes with the test.
    zulKestTimelineStop();
    if (zulKestIsInitialized(nullptr)) zulKestTerminate();
  }

  void StartLibrary(ZulKestEventHook hook = nullptr) {
    ZulKestParams params = storage_.MakeParams(256, 64, 16, 1024, 8192);
    params.pVprintf = kest2_test::OutputCapture::Hook();
    params.ioThreadCount = 2;
    params.pEventCallback = hook;
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  }

  void StartTimeline(uint64_t records) {
    timeline_.assign(ZUL_KEST_TIMELINE_STORAGE_SIZE(records) / 8, 0);
    ASSERT_EQ(zulKestTimelineStart(timeline_.data(), timeline_.size() * 8), ZUL_KEST_OK);
  }

  // Runs every queued chunk to the end (termination drains the queues),
  // then stops and writes the timeline.
  ParsedTimeline Finish() {
    zulKestTerminate();
    zulKestTimelineStop();
    std::string text;
    EXPECT_EQ(zulKestTimelineWriteTo(AppendTo, &text), ZUL_KEST_OK);
    return ParsedTimeline(text);
  }

  std::string MakeFile(const std::string& name, size_t size, uint32_t seed) {
    const std::string path = dir_.path() + "/" + name;
    kest2_test::WriteFile(path, kest2_common::RandomBytes(size, seed));
    return path;
  }

  kest2_test::OutputCapture output_;
  kest2_common::TempDir dir_;
  kest2_common::LibraryStorage storage_;
  std::vector<uint64_t> timeline_;
};

// Every event's thread has a name, and (unless only the newest few records
// were kept) the library's threads are there.
void ExpectEveryTrackNamed(const ParsedTimeline& parsed, bool libraryThreads = true) {
  for (const Event& event : parsed.events())
    EXPECT_NE(parsed.ThreadName(event.tid), "")
        << event.ph << " " << event.name << " on " << event.tid;
  if (!libraryThreads) return;
  std::set<std::string> names;
  for (const auto& [tid, name] : parsed.threadNames()) names.insert(name);
  EXPECT_EQ(names.count("ZulKestIO"), 1u);
  EXPECT_EQ(names.count("ZulKestCallback"), 1u);
}

TEST_F(TimelineTest, OperationsChunksThreadsAndAForcedMissReadBack) {
  std::vector<std::string> paths;
  for (int i = 0; i < 4; ++i) paths.push_back(MakeFile("f" + std::to_string(i), 200000 + i, i));
  StartTimeline(4096);

  std::vector<std::vector<char>> buffers(8, std::vector<char>(300000));
  struct Issued {
    ZulKestOp op;
    bool deadline;
    bool missed;
  };
  std::vector<Issued> issued;
  for (int i = 0; i < 4; ++i) {
    ZulKestOpAttr attr{};
    attr.deadline = zulKestTimeGetCurrent() + 60'000'000'000;  // a minute: met
    attr.priority = 5;
    issued.push_back(
        {zulKestFileRead(&attr, paths[i].c_str(), buffers[i].data(), 300000, 0), true, false});
  }
  {
    ZulKestOpAttr attr{};
    attr.deadline = zulKestTimeGetCurrent() + 1;  // 1 ns after it is asked for: missed
    issued.push_back(
        {zulKestFileRead(&attr, paths[0].c_str(), buffers[4].data(), 300000, 0), true, true});
  }
  issued.push_back(
      {zulKestFileRead(nullptr, paths[1].c_str(), buffers[5].data(), 300000, 0), false, false});
  const std::string missing = dir_.path() + "/missing";
  const ZulKestOp failed = zulKestFileRead(nullptr, missing.c_str(), buffers[6].data(), 10, 0);
  // Refused before it is accepted: a span of its completion alone.
  const ZulKestOp refused = zulKestFileRead(nullptr, nullptr, buffers[7].data(), 10, 0);
  std::map<std::string, int32_t> results;
  for (const Issued& one : issued) results[HandleText(one.op)] = zulKestOpWait(one.op);
  results[HandleText(failed)] = zulKestOpWait(failed);
  results[HandleText(refused)] = zulKestOpWait(refused);
  EXPECT_EQ(results[HandleText(failed)], ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(results[HandleText(refused)], ZUL_KEST_ERROR_BAD_PATH);
  for (const Issued& one : issued) zulKestOpDelete(one.op);
  zulKestOpDelete(failed);
  zulKestOpDelete(refused);

  const ParsedTimeline parsed = Finish();
  ExpectEveryTrackNamed(parsed);
  const auto ops = parsed.Operations();
  ASSERT_EQ(ops.size(), results.size());
  std::set<std::string> missedMarks;
  for (const Event& mark : parsed.Where("i", "deadline")) {
    EXPECT_EQ(mark.name, "deadline missed");
    missedMarks.insert(mark.Arg("op"));
  }
  for (const auto& [handle, result] : results) {
    SCOPED_TRACE(handle);
    ASSERT_EQ(ops.count(handle), 1u);
    const Event& begin = ops.at(handle).first;
    const Event& end = ops.at(handle).second;
    EXPECT_EQ(begin.name, "OP_PATH_READ");
    EXPECT_EQ(end.name, "OP_PATH_READ");
    EXPECT_EQ(end.Arg("result"), zulKestDebugDumpError(result, nullptr, 0));
    EXPECT_LE(begin.ts, end.ts);
    EXPECT_EQ(begin.args->BoolOr("accepted", false), handle != HandleText(refused));
  }
  for (const Issued& one : issued) {
    const std::string handle = HandleText(one.op);
    SCOPED_TRACE(handle);
    const Event& begin = ops.at(handle).first;
    const Event& end = ops.at(handle).second;
    EXPECT_EQ(begin.args->Find("deadline") != nullptr, one.deadline);
    EXPECT_EQ(end.args->BoolOr("missed", !one.missed), one.missed);
    EXPECT_EQ(missedMarks.count(handle), one.missed ? 1u : 0u);
    EXPECT_NE(begin.Arg("path").find("/f"), std::string::npos);
    if (!one.missed) {
      EXPECT_EQ(end.args->NumberOr("bytes", -1), 200000 + (&one - &issued[0]) % 4);
    }
  }

  // Chunks sit inside their operation; the root starts inside it (the
  // completion runs within the root).  A system call sits inside a chunk of
  // its own thread.
  const std::vector<Event> chunks = parsed.Where("X", "chunk");
  size_t ofIssued = 0;
  for (const Event& chunk : chunks) {
    const auto op = ops.find(chunk.Arg("op"));
    if (op == ops.end()) continue;
    ++ofIssued;
    const Event& begin = op->second.first;
    const Event& end = op->second.second;
    EXPECT_GE(chunk.ts, begin.ts - 0.002) << chunk.name;
    if (chunk.name != "CHUNK_ROOT") {
      EXPECT_LE(chunk.ts + chunk.dur, end.ts + 0.002) << chunk.name;
    }
  }
  EXPECT_GE(ofIssued, 6u * 3);  // open, read, close at least for each read that ran
  const std::vector<Event> calls = parsed.Where("X", "native");
  EXPECT_FALSE(calls.empty());
  for (const Event& call : calls) {
    bool inside = false;
    for (const Event& chunk : chunks)
      inside = inside || (chunk.tid == call.tid && chunk.Contains(call));
    EXPECT_TRUE(inside) << call.name << " at " << call.ts;
  }
  const JsonValue* other = parsed.json().Find("otherData");
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->NumberOr("lost", -1), 0);
}

TEST_F(TimelineTest, ConcurrentCallersLoseNothingWhenTheRingIsBigEnough) {
  constexpr int kThreads = 4;
  constexpr int kReadsEach = 40;
  const std::string path = MakeFile("shared", 4096, 7);
  StartTimeline(65536);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      pthread_setname_np(pthread_self(), ("tl-caller-" + std::to_string(t)).c_str());
      // Eight in flight per thread: each path read holds a file handle.
      std::vector<char> buffer(4096 * 8);
      for (int round = 0; round < kReadsEach / 8; ++round) {
        ZulKestOp ops[8];
        for (int i = 0; i < 8; ++i)
          ops[i] = zulKestFileRead(nullptr, path.c_str(), buffer.data() + 4096 * i, 4096, 0);
        for (ZulKestOp op : ops) failures += zulKestOpSyncWait(op) != ZUL_KEST_OK;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  const ParsedTimeline parsed = Finish();

  ZulKestTimelineInfo info;
  ASSERT_EQ(zulKestTimelineGetInfo(&info), ZUL_KEST_OK);
  EXPECT_EQ(info.lost, 0u);
  EXPECT_EQ(info.kept, info.recorded);
  EXPECT_EQ(info.recording, 0u);
  ExpectEveryTrackNamed(parsed);
  // Each operation starts on the thread that asked for it.
  std::map<std::string, int> perCaller;
  for (const Event& begin : parsed.Where("b", "op")) ++perCaller[parsed.ThreadName(begin.tid)];
  for (int t = 0; t < kThreads; ++t)
    EXPECT_EQ(perCaller["tl-caller-" + std::to_string(t)], kReadsEach);
  EXPECT_EQ(parsed.Where("e", "op").size(), static_cast<size_t>(kThreads * kReadsEach));
}

TEST_F(TimelineTest, ATooSmallRingKeepsTheNewestAndCountsWhatItLost) {
  const std::string path = MakeFile("small", 1000, 3);
  StartTimeline(ZUL_KEST_TIMELINE_MIN_RECORDS);
  char buffer[1000];
  for (int i = 0; i < 30; ++i)
    ASSERT_EQ(zulKestFileReadSync(nullptr, path.c_str(), buffer, 1000, 0), 1000);
  const ParsedTimeline parsed = Finish();

  ZulKestTimelineInfo info;
  ASSERT_EQ(zulKestTimelineGetInfo(&info), ZUL_KEST_OK);
  EXPECT_EQ(info.capacity, ZUL_KEST_TIMELINE_MIN_RECORDS);
  EXPECT_GT(info.lost, 0u);
  EXPECT_EQ(info.kept + info.lost, info.recorded);
  EXPECT_LE(info.kept, info.capacity);
  const JsonValue* other = parsed.json().Find("otherData");
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->NumberOr("lost", -1), static_cast<double>(info.lost));
  // Every record kept is whole: one complete span, or one operation's
  // begin and end; nothing else.
  size_t records = 0;
  for (const Event& event : parsed.events()) {
    EXPECT_GE(event.ts, 0) << event.name;
    EXPECT_FALSE(event.name.empty());
    if (event.ph == "X" || event.ph == "b") ++records;
  }
  EXPECT_EQ(records, info.kept);
  EXPECT_EQ(parsed.Where("b", "op").size(), parsed.Where("e", "op").size());
  ExpectEveryTrackNamed(parsed, false);
}

TEST_F(TimelineTest, EntryPointsRefuseWhatTheyCannotDo) {
  std::vector<uint64_t> storage(ZUL_KEST_TIMELINE_STORAGE_SIZE(ZUL_KEST_TIMELINE_MIN_RECORDS) / 8 +
                                1);
  const uint64_t size = ZUL_KEST_TIMELINE_STORAGE_SIZE(ZUL_KEST_TIMELINE_MIN_RECORDS);
  EXPECT_EQ(zulKestTimelineStart(nullptr, size), ZUL_KEST_ERROR_BAD_PTR);
  EXPECT_EQ(zulKestTimelineStart(reinterpret_cast<char*>(storage.data()) + 4, size),
            ZUL_KEST_ERROR_BAD_ALIGNMENT);
  EXPECT_EQ(zulKestTimelineStart(storage.data(), size - 1), ZUL_KEST_ERROR_BAD_SIZE);
  ASSERT_EQ(zulKestTimelineStart(storage.data(), size), ZUL_KEST_OK);
  EXPECT_EQ(zulKestTimelineStart(storage.data(), size), ZUL_KEST_ERROR_BUSY);
  std::string text;
  EXPECT_EQ(zulKestTimelineWriteTo(AppendTo, &text), ZUL_KEST_ERROR_BUSY);
  EXPECT_EQ(zulKestTimelineWrite((dir_.path() + "/t.json").c_str()), ZUL_KEST_ERROR_BUSY);
  ZulKestTimelineInfo info;
  ASSERT_EQ(zulKestTimelineGetInfo(&info), ZUL_KEST_OK);
  EXPECT_EQ(info.recording, 1u);
  EXPECT_EQ(zulKestTimelineGetInfo(nullptr), ZUL_KEST_ERROR_BAD_PTR);
  zulKestTimelineStop();
  zulKestTimelineStop();  // nothing to stop: nothing happens

  EXPECT_EQ(zulKestTimelineWriteTo(nullptr, nullptr), ZUL_KEST_ERROR_BAD_PTR);
  EXPECT_EQ(zulKestTimelineWrite(""), ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(zulKestTimelineWrite((dir_.path() + "/no/such/dir/t.json").c_str()),
            ZUL_KEST_ERROR_BAD_PATH);
  EXPECT_EQ(zulKestTimelineWrite(dir_.path().c_str()), ZUL_KEST_ERROR_NOT_A_FILE);
  // A sink's failure stops the writing and is the answer.
  int calls = 0;
  auto failing = [](void* context, const char*, uint64_t) -> int32_t {
    ++*static_cast<int*>(context);
    return ZUL_KEST_ERROR_ACCESS;
  };
  EXPECT_EQ(zulKestTimelineWriteTo(failing, &calls), ZUL_KEST_ERROR_ACCESS);
  EXPECT_EQ(calls, 1);
  // Written twice, the same text.
  const std::string file = dir_.path() + "/t.json";
  ASSERT_EQ(zulKestTimelineWrite(file.c_str()), ZUL_KEST_OK);
  ASSERT_EQ(zulKestTimelineWriteTo(AppendTo, &text), ZUL_KEST_OK);
  const std::vector<uint8_t> written = kest2_test::ReadFile(file);
  EXPECT_EQ(std::string(written.begin(), written.end()), text);
  JsonValue json;
  std::string error;
  EXPECT_TRUE(kest2_cli::ParseJson(text, &json, &error)) << error;
}

// The caller's profiling hook gets what it got without a timeline.
std::atomic<int> g_eventKinds[256];

void CountEvent(const ZulKestIOEvent* event) { g_eventKinds[event->kind]++; }

TEST_F(TimelineTest, TheProfilingHookSeesTheSameCallsWithTheTimelineOn) {
  zulKestTerminate();
  StartLibrary(CountEvent);
  const std::string path = MakeFile("hooked", 100000, 9);
  std::vector<char> buffer(100000);
  auto countRun = [&] {
    for (std::atomic<int>& kind : g_eventKinds) kind = 0;
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(zulKestFileReadSync(nullptr, path.c_str(), buffer.data(), 100000, 0), 100000);
    std::vector<int> kinds;
    for (std::atomic<int>& kind : g_eventKinds) kinds.push_back(kind.load());
    return kinds;
  };
  const std::vector<int> without = countRun();
  StartTimeline(4096);
  const std::vector<int> with = countRun();
  zulKestTimelineStop();
  for (int kind = 0; kind <= 8; ++kind) EXPECT_EQ(with[kind], without[kind]) << "kind " << kind;
  EXPECT_GT(with[1], 0);
  for (int kind = 14; kind < 256; ++kind) EXPECT_EQ(with[kind], 0) << "kind " << kind;
}

TEST_F(TimelineTest, ArchiveReadsShowBlockReadsAndInflatesOnTheirThreads) {
  kest2_test::DearchiverWork work;
  ASSERT_EQ(zulKestIOFilterAdd(0, zulKestIOFilterZorbaDearchiver, work.context()), ZUL_KEST_OK);
  const std::string tree = dir_.path() + "/tree";
  std::string text;
  for (int line = 0; text.size() < 300000; ++line)
    text += "timeline line " + std::to_string(line) + "\n";
  kest2_test::WriteFile(tree + "/big.txt", std::vector<uint8_t>(text.begin(), text.end()));
  const std::string archive = dir_.path() + "/a.zorba";
  std::string error;
  kest2_cli::PackSummary summary;
  ASSERT_TRUE(kest2_cli::PackDirectory(tree, archive, kest2_cli::PackOptions{}, &summary, &error))
      << error;
  const int64_t need = zulKestArchiveGetMountBufferSizeSync(nullptr, archive.c_str(), nullptr);
  ASSERT_GT(need, 0);
  std::vector<uint64_t> mount(static_cast<size_t>(need + 7) / 8);
  ZulKestFH fh = 0;
  ASSERT_EQ(
      zulKestArchiveMountSync(nullptr, &fh, archive.c_str(), "/tl", mount.data(), need, nullptr),
      ZUL_KEST_OK);

  StartTimeline(8192);
  std::vector<char> buffer(text.size());
  ASSERT_EQ(zulKestFileReadSync(nullptr, "/tl/big.txt", buffer.data(),
                                static_cast<int64_t>(text.size()), 0),
            static_cast<int64_t>(text.size()));
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), text);
  zulKestArchiveUnmountSync(nullptr, fh);
  zulKestIOFilterRemove(0);
  const ParsedTimeline parsed = Finish();

  ExpectEveryTrackNamed(parsed);
  double inflated = 0;
  size_t inflates = 0;
  size_t blockReads = 0;
  for (const Event& span : parsed.Where("X", "archive")) {
    const std::string thread = parsed.ThreadName(span.tid);
    if (span.name == "inflate") {
      ++inflates;
      EXPECT_EQ(thread.rfind("ZulKestZlib", 0), 0u) << thread;
      EXPECT_EQ(span.args->NumberOr("result", -1), 0);
      inflated += span.args->NumberOr("inflated", 0);
    } else {
      EXPECT_EQ(span.name, "block read");
      ++blockReads;
      EXPECT_EQ(thread, "ZulKestIO");
      EXPECT_GT(span.args->NumberOr("bytes", 0), 0);
    }
  }
  // 64 KiB blocks of text: every one compresses, and is read and inflated.
  const size_t blocks = (text.size() + 65535) / 65536;
  EXPECT_EQ(inflates, blocks);
  EXPECT_EQ(blockReads, blocks);
  EXPECT_EQ(inflated, static_cast<double>(text.size()));
}

}  // namespace
