// The timeline's writer: the stopped ring as Trace Event JSON (the format is
// described in include/kest2_timeline.h).  Runs on the caller's thread, off
// the engine's paths, through a 4 KiB buffer on its stack; the records are
// written in ring order, oldest first, one or three events each.

#include <cstdarg>
#include <cstring>

#include "core/system_calls.h"
#include "debug/dump.h"
#include "debug/format.h"
#include "debug/timeline.h"

namespace kest2 {
namespace {

constexpr size_t kPieceSize = 4096;
// Room a formatted fragment may take; a longer one is cut.
constexpr size_t kFragmentSize = 256;
constexpr uint32_t kOtherThreadsTid = ZUL_KEST_TIMELINE_THREADS + 1;

constexpr const char* kNativeCallNames[] = {"open", "read",     "write",    "close",    "stat",
                                            "sync", "dir open", "dir read", "dir close"};
constexpr uint8_t kNativeCallCount = sizeof(kNativeCallNames) / sizeof(kNativeCallNames[0]);

// Buffers the text and hands it to the sink in pieces; the first failure
// sticks and silences the rest.
class JsonOut {
 public:
  JsonOut(ZulKestTimelineSink sink, void* context) : m_sink(sink), m_context(context) {}

  void Text(const char* text) { Bytes(text, std::strlen(text)); }

  void Format(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    char fragment[kFragmentSize];
    va_list args;
    va_start(args, format);
    const int length = VFormatBounded(fragment, sizeof(fragment), format, args);
    va_end(args);
    Bytes(fragment, length < static_cast<int>(sizeof(fragment)) ? static_cast<size_t>(length)
                                                                : sizeof(fragment) - 1);
  }

  // A JSON string: quotes, backslashes and control characters escaped; a
  // byte that does not belong to valid UTF-8 (a path cut inside a
  // character, or a name in another encoding) becomes U+FFFD.
  void String(const char* text) {
    Text("\"");
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
    while (*s != 0) {
      const size_t valid = Utf8Length(s);
      if (valid > 1) {
        Bytes(reinterpret_cast<const char*>(s), valid);
        s += valid;
        continue;
      }
      const unsigned char c = *s++;
      if (c == '"' || c == '\\') {
        const char escaped[2] = {'\\', static_cast<char>(c)};
        Bytes(escaped, 2);
      } else if (c < 0x20) {
        Format("\\u%04x", c);
      } else if (c < 0x80) {
        Bytes(reinterpret_cast<const char*>(&c), 1);
      } else {
        Text("\\ufffd");
      }
    }
    Text("\"");
  }

  // Nanoseconds as microseconds with three decimals.
  void Micros(int64_t nanoseconds) {
    const char* sign = nanoseconds < 0 ? "-" : "";
    const uint64_t magnitude = nanoseconds < 0 ? 0 - static_cast<uint64_t>(nanoseconds)
                                               : static_cast<uint64_t>(nanoseconds);
    Format("%s%llu.%03llu", sign, static_cast<unsigned long long>(magnitude / 1000),
           static_cast<unsigned long long>(magnitude % 1000));
  }

  void Handle(uint32_t handle) { Format("\"0x%08x\"", handle); }

  void Result(int32_t code) {
    const char* name = ErrorName(code);
    if (name != nullptr) {
      Format("\"%s\"", name);
    } else {
      Format("\"0x%08X\"", static_cast<uint32_t>(code));
    }
  }

  int32_t Finish() {
    Flush();
    return m_status;
  }

 private:
  // The length of the multi-byte UTF-8 character at s, or 1 when s does
  // not start one (ASCII, or an invalid sequence).
  static size_t Utf8Length(const unsigned char* s) {
    size_t length;
    uint32_t code;
    if ((s[0] & 0xE0) == 0xC0) {
      length = 2;
      code = s[0] & 0x1Fu;
    } else if ((s[0] & 0xF0) == 0xE0) {
      length = 3;
      code = s[0] & 0x0Fu;
    } else if ((s[0] & 0xF8) == 0xF0) {
      length = 4;
      code = s[0] & 0x07u;
    } else {
      return 1;
    }
    for (size_t i = 1; i < length; ++i) {
      if ((s[i] & 0xC0) != 0x80) return 1;  // also stops at the NUL
      code = (code << 6) | (s[i] & 0x3Fu);
    }
    static const uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 1;
    return length;
  }

  void Bytes(const char* bytes, size_t length) {
    while (length != 0 && m_status == ZUL_KEST_OK) {
      const size_t room = kPieceSize - m_used;
      const size_t take = length < room ? length : room;
      std::memcpy(m_buffer + m_used, bytes, take);
      m_used += take;
      bytes += take;
      length -= take;
      if (m_used == kPieceSize) Flush();
    }
  }

  void Flush() {
    if (m_used != 0 && m_status == ZUL_KEST_OK) m_status = m_sink(m_context, m_buffer, m_used);
    m_used = 0;
  }

  ZulKestTimelineSink m_sink;
  void* m_context;
  char m_buffer[kPieceSize];
  size_t m_used = 0;
  int32_t m_status = ZUL_KEST_OK;
};

uint32_t TraceTid(uint16_t thread) {
  return thread < ZUL_KEST_TIMELINE_THREADS ? thread + 1u : kOtherThreadsTid;
}

class TimelineJson {
 public:
  TimelineJson(const TimelineStorage* timeline, JsonOut* out)
      : m_timeline(timeline), m_out(out), m_start(timeline->startTime) {}

  void Write() {
    m_out->Text("{\"traceEvents\":[\n");
    m_out->Text(
        "{\"ph\":\"M\",\"pid\":1,\"tid\":0,\"name\":\"process_name\","
        "\"args\":{\"name\":\"kest2\"}}");
    WriteThreadNames();
    const uint64_t claimed = m_timeline->claimed;
    const uint64_t capacity = m_timeline->capacity;
    // Oldest first: once the ring has wrapped, the slot the next note would
    // take holds the oldest record.
    const uint64_t first = claimed > capacity ? claimed % capacity : 0;
    const uint64_t used = claimed < capacity ? claimed : capacity;
    for (uint64_t i = 0; i < used; ++i) {
      const TimelineRecord& record = m_timeline->records[(first + i) % capacity];
      const uint64_t sequence = __atomic_load_n(&record.sequence, __ATOMIC_ACQUIRE);
      if (sequence == 0 || sequence == kTimelineBusy) continue;
      WriteRecord(record);
    }
    const uint64_t kept = CountKeptRecords(m_timeline);
    m_out->Format(
        "\n],\n\"displayTimeUnit\":\"ms\",\n\"otherData\":{\"capacity\":%llu,\"recorded\":%llu,"
        "\"kept\":%llu,\"lost\":%llu,\"threads\":%u}}\n",
        static_cast<unsigned long long>(capacity), static_cast<unsigned long long>(claimed),
        static_cast<unsigned long long>(kept), static_cast<unsigned long long>(claimed - kept),
        m_timeline->threadsClaimed);
  }

 private:
  void WriteThreadNames() {
    const uint32_t claimed = m_timeline->threadsClaimed;
    const uint32_t named =
        claimed < ZUL_KEST_TIMELINE_THREADS ? claimed : ZUL_KEST_TIMELINE_THREADS;
    for (uint32_t i = 0; i < named; ++i) {
      const TimelineThread& thread = m_timeline->threads[i];
      if (__atomic_load_n(&thread.ready, __ATOMIC_ACQUIRE) == 0) continue;
      char name[sizeof(thread.name) + 1];
      std::memcpy(name, thread.name, sizeof(thread.name));
      name[sizeof(thread.name)] = '\0';
      WriteThreadName(i + 1, name);
    }
    if (claimed > ZUL_KEST_TIMELINE_THREADS) WriteThreadName(kOtherThreadsTid, "other threads");
  }

  void WriteThreadName(uint32_t tid, const char* name) {
    m_out->Format(
        ",\n{\"ph\":\"M\",\"pid\":1,\"tid\":%u,\"name\":\"thread_name\",\"args\":{\"name\":", tid);
    m_out->String(name);
    m_out->Format(
        "}},\n{\"ph\":\"M\",\"pid\":1,\"tid\":%u,\"name\":\"thread_sort_index\","
        "\"args\":{\"sort_index\":%u}}",
        tid, tid);
  }

  // ,{"ph":PH,"cat":CAT,"name":NAME,"pid":1,"tid":T,"ts":TS
  void Open(const char* phase, const char* category, const char* name, uint16_t thread,
            int64_t time) {
    m_out->Format(",\n{\"ph\":\"%s\",\"cat\":\"%s\",\"name\":", phase, category);
    m_out->String(name);
    m_out->Format(",\"pid\":1,\"tid\":%u,\"ts\":", TraceTid(thread));
    m_out->Micros(time - m_start);
  }

  void Span(const TimelineRecord& record, const char* category, const char* name) {
    Open("X", category, name, record.thread, record.begin);
    m_out->Text(",\"dur\":");
    m_out->Micros(record.end - record.begin);
    m_out->Text(",\"args\":{");
  }

  void Deadline(ZulKestTime deadline) {
    m_out->Text(",\"deadline\":");
    m_out->Micros(deadline - m_start);
  }

  void WriteRecord(const TimelineRecord& record) {
    switch (static_cast<TimelineKind>(record.kind)) {
      case TimelineKind::kChunk:
        Span(record, "chunk", record.label != nullptr ? record.label : "chunk");
        m_out->Format("\"chunk\":%u", record.chunk);
        if (record.op != 0) {
          m_out->Text(",\"op\":");
          m_out->Handle(record.op);
        }
        m_out->Format(",\"priority\":%d", record.priority);
        if (record.deadline != 0) Deadline(record.deadline);
        m_out->Text(",\"result\":");
        m_out->Result(record.result);
        m_out->Text("}}");
        break;
      case TimelineKind::kNative:
        Span(record, "native",
             record.type < kNativeCallCount ? kNativeCallNames[record.type] : "call");
        m_out->Format("\"chunk\":%u,\"path\":", record.chunk);
        m_out->String(record.text);
        if (record.type == 1 || record.type == 2) {
          m_out->Format(",\"offset\":%lld,\"length\":%lld", static_cast<long long>(record.offset),
                        static_cast<long long>(record.amount));
        }
        m_out->Text("}}");
        break;
      case TimelineKind::kInflate:
        Span(record, "archive", "inflate");
        m_out->Format("\"compressed\":%lld,\"inflated\":%lld,\"result\":%d}}",
                      static_cast<long long>(record.offset), static_cast<long long>(record.amount),
                      record.result);
        break;
      case TimelineKind::kBlockRead:
        Span(record, "archive", "block read");
        m_out->Format("\"chunk\":%u,\"offset\":%lld,\"bytes\":%lld}}", record.chunk,
                      static_cast<long long>(record.offset), static_cast<long long>(record.amount));
        break;
      case TimelineKind::kOperation:
        WriteOperation(record);
        break;
    }
  }

  // An operation: its async span, and a mark where it missed its deadline.
  void WriteOperation(const TimelineRecord& record) {
    const char* name = OpTypeName(record.type);
    const bool accepted = (record.flags & kTimelineAccepted) != 0;
    const bool missed = record.deadline != 0 && record.end > record.deadline;
    Open("b", "op", name, accepted ? record.chunk : record.thread, record.begin);
    m_out->Text(",\"id\":");
    m_out->Handle(record.op);
    m_out->Text(",\"args\":{\"op\":");
    m_out->Handle(record.op);
    m_out->Text(",\"path\":");
    m_out->String(record.text);
    m_out->Format(",\"priority\":%d", record.priority);
    if (record.deadline != 0) Deadline(record.deadline);
    m_out->Format(",\"accepted\":%s}}", accepted ? "true" : "false");

    Open("e", "op", name, record.thread, record.end);
    m_out->Text(",\"id\":");
    m_out->Handle(record.op);
    m_out->Text(",\"args\":{\"result\":");
    m_out->Result(record.result);
    m_out->Format(",\"bytes\":%lld,\"missed\":%s}}", static_cast<long long>(record.amount),
                  missed ? "true" : "false");
    if (!missed) return;

    Open("i", "deadline", "deadline missed", record.thread, record.end);
    m_out->Text(",\"s\":\"t\",\"args\":{\"op\":");
    m_out->Handle(record.op);
    Deadline(record.deadline);
    m_out->Text(",\"late\":");
    m_out->Micros(record.end - record.deadline);
    m_out->Text("}}");
  }

  const TimelineStorage* m_timeline;
  JsonOut* m_out;
  int64_t m_start;
};

// The file sink of zulKestTimelineWrite: the descriptor, and the first
// failure of a write.
struct FileSink {
  int32_t fd;
};

int32_t WriteToFile(void* context, const char* text, uint64_t length) {
  const int32_t fd = static_cast<FileSink*>(context)->fd;
  while (length != 0) {
    const int64_t written = SystemCallTable().write(fd, text, length);
    if (written == -kErrnoInterrupted) continue;
    if (written < 0) return CodeFromErrno(static_cast<int>(-written));
    if (written == 0) return ZUL_KEST_ERROR_BAD_SIZE;  // no room, and no reason given
    text += written;
    length -= static_cast<uint64_t>(written);
  }
  return ZUL_KEST_OK;
}

}  // namespace
}  // namespace kest2

using namespace kest2;

extern "C" int32_t zulKestTimelineWriteTo(ZulKestTimelineSink sink, void* context) {
  if (sink == nullptr) return ZUL_KEST_ERROR_BAD_PTR;
  const TimelineStorage* timeline = CurrentTimeline();
  if (timeline == nullptr) return ZUL_KEST_ERROR_BAD_ARGUMENT;
  if (TimelineRecording()) return ZUL_KEST_ERROR_BUSY;
  JsonOut out(sink, context);
  TimelineJson(timeline, &out).Write();
  return out.Finish();
}

extern "C" int32_t zulKestTimelineWrite(const char* path) {
  if (path == nullptr || path[0] == '\0') return ZUL_KEST_ERROR_BAD_PATH;
  if (CurrentTimeline() == nullptr) return ZUL_KEST_ERROR_BAD_ARGUMENT;
  if (TimelineRecording()) return ZUL_KEST_ERROR_BUSY;
  const int32_t fd = SystemCallTable().open(
      path, SystemOpenFlags(ZUL_KEST_O_WRITE | ZUL_KEST_O_CREAT | ZUL_KEST_O_TRUNC), 0644);
  if (fd < 0) return CodeFromErrno(-fd);
  FileSink sink{fd};
  int32_t result = zulKestTimelineWriteTo(WriteToFile, &sink);
  const int32_t closed = SystemCallTable().close(fd);
  if (result == ZUL_KEST_OK && closed < 0 && closed != -kErrnoInterrupted)
    result = CodeFromErrno(-closed);
  return result;
}
