#include "test_support.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>

#include "core/globals.h"

namespace kest2_test {
namespace {

std::mutex g_captureMutex;
std::string g_captured;

int CaptureHook(const char* format, va_list args) {
  char line[8192];
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(line, sizeof(line), format, copy);
  va_end(copy);
  std::lock_guard<std::mutex> lock(g_captureMutex);
  g_captured.append(line);
  return n;
}

}  // namespace

OutputCapture::OutputCapture() : m_previous(kest2::g_KestParams.pVprintf) {
  Clear();
  kest2::g_KestParams.pVprintf = CaptureHook;
}

OutputCapture::~OutputCapture() { kest2::g_KestParams.pVprintf = m_previous; }

ZulKestVprintfHook OutputCapture::Hook() { return CaptureHook; }

std::string OutputCapture::text() const {
  std::lock_guard<std::mutex> lock(g_captureMutex);
  return g_captured;
}

void OutputCapture::Clear() {
  std::lock_guard<std::mutex> lock(g_captureMutex);
  g_captured.clear();
}

uint32_t TestSeed() {
  if (const char* replay = std::getenv("KEST2_TEST_SEED"))
    return static_cast<uint32_t>(std::strtoul(replay, nullptr, 10));
  return std::random_device{}();
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

namespace {

void WriteBytes(const std::string& path, const char* data, size_t size) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary).write(data, static_cast<std::streamsize>(size));
}

}  // namespace

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  WriteBytes(path, reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

void WriteFile(const std::string& path, const std::string& text) {
  WriteBytes(path, text.data(), text.size());
}

pid_t SystemThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool AsleepInFutex(pid_t thread) {
  // /proc names the system call a sleeping thread is in, and says
  // "running" for one that is not in any.
  std::ifstream call("/proc/self/task/" + std::to_string(thread) + "/syscall");
  long number = -1;
  return static_cast<bool>(call >> number) && number == SYS_futex;
}

void SetDebugFlags(uint32_t flags) {
  __atomic_store_n(&kest2::g_KestParams.debugFlags, flags, __ATOMIC_RELAXED);
}

DearchiverWork::DearchiverWork() {
  constexpr uint64_t kBytes = 3 * 70000;
  constexpr uintptr_t kAlignment = 64;
  m_buffer.assign((kBytes + kAlignment) / 8 + 8, 0);
  m_context.sizeOfContext = sizeof(m_context);
  m_context.workBufferSize = kBytes;
  m_context.pWorkBuffer = reinterpret_cast<void*>(
      (reinterpret_cast<uintptr_t>(m_buffer.data()) + kAlignment - 1) & ~(kAlignment - 1));
}

size_t OpenDescriptors() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                           std::filesystem::directory_iterator()));
}

}  // namespace kest2_test
