#include "test_support.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

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

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
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

ZulKestParams MakeParams(TestStorage* storage, uint32_t opUnits,
                         uint32_t fhUnits, uint32_t dhUnits, uint32_t pathMax,
                         uint32_t chunkUnits) {
  const uint32_t effectivePathMax = pathMax == 0 || pathMax > 1024 ? 1024 : pathMax;
  storage->op.assign(
      ZUL_KEST_STORAGE_SIZE(opUnits, ZUL_KEST_OP_UNIT_SIZE(effectivePathMax)) / 8, 0);
  storage->fh.assign(
      ZUL_KEST_STORAGE_SIZE(fhUnits, ZUL_KEST_FH_UNIT_SIZE(effectivePathMax)) / 8, 0);
  storage->dh.assign(
      ZUL_KEST_STORAGE_SIZE(dhUnits, ZUL_KEST_DH_UNIT_SIZE(effectivePathMax)) / 8, 0);
  storage->chunk.assign(ZUL_KEST_STORAGE_SIZE(chunkUnits, ZUL_KEST_CHUNK_UNIT_SIZE) / 8, 0);
  ZulKestParams params{};
  params.header = ZUL_KEST_PARAMS_HEADER(pathMax);
  params.opStorage = storage->op.data();
  params.opStorageSize = storage->op.size() * 8;
  params.fhStorage = storage->fh.data();
  params.fhStorageSize = storage->fh.size() * 8;
  params.dhStorage = storage->dh.data();
  params.dhStorageSize = storage->dh.size() * 8;
  params.chunkStorage = storage->chunk.data();
  params.chunkStorageSize = storage->chunk.size() * 8;
  for (int i = 0; i < 3; ++i) params.threadPriority[i] = -1;
  return params;
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

TempDir::TempDir() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "kest2_test_XXXXXX").string();
  char* made = mkdtemp(pattern.data());
  if (made == nullptr) std::abort();
  m_path = made;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

size_t OpenDescriptors() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                           std::filesystem::directory_iterator()));
}

}  // namespace kest2_test
