// The command-line program's library session: see library_session.h.

#include "kest2/library_session.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kest2/error_words.h"

namespace kest2_cli {
namespace {

constexpr uint32_t kPathMax = 1024;
constexpr uint32_t kOps = 256;
constexpr uint32_t kFileHandles = 512;  // the demo keeps every file of its data set open
constexpr uint32_t kDirHandles = 16;
constexpr uint32_t kChunks = 16384;

int ToStandardError(const char* format, va_list args) { return std::vfprintf(stderr, format, args); }

}  // namespace

LibrarySession::LibrarySession(const SessionOptions& options)
    : m_printStatistics(options.printStatistics) {
  ZulKestParams params = m_storage.MakeParams(kOps, kFileHandles, kDirHandles, kPathMax, kChunks);
  params.ioThreadCount = options.ioThreads;
  params.debugFlags = options.debugFlags;
  params.pVprintf = ToStandardError;
  m_status = zulKestInitialize(&params);
  for (size_t i = 0; i < options.overlays.size() && m_status == ZUL_KEST_OK; ++i) {
    const OverlayOption& option = options.overlays[i];
    ZulKestOverlay overlay;
    std::memset(&overlay, 0, sizeof(overlay));
    overlay.type = option.type;
    overlay.order = static_cast<int8_t>(i < 127 ? i : 127);
    if (option.lower.size() >= sizeof(overlay.dst) || option.upper.size() >= sizeof(overlay.src)) {
      m_status = ZUL_KEST_ERROR_PATH_TOO_LONG;
    } else {
      std::memcpy(overlay.dst, option.lower.c_str(), option.lower.size());
      std::memcpy(overlay.src, option.upper.c_str(), option.upper.size());
      int32_t id = 0;
      m_status = zulKestOverlayAdd(&overlay, &id);
    }
    if (m_status != ZUL_KEST_OK) {
      std::fprintf(stderr, "kest2: --overlay %s=%s: %s\n", option.lower.c_str(), option.upper.c_str(),
                   DescribeError(m_status).c_str());
      zulKestTerminate();
    }
  }
}

LibrarySession::~LibrarySession() {
  if (m_status != ZUL_KEST_OK) return;
  if (m_printStatistics) zulKestStatisticsPrint();
  zulKestTerminate();
}

bool ParseOverlayOption(const std::string& text, OverlayOption* overlay) {
  static const struct {
    const char* name;
    uint8_t type;
  } kModes[] = {{"opaque", ZUL_KEST_OVERLAY_TYPE_OPAQUE},
                {"translucent", ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT},
                {"newer", ZUL_KEST_OVERLAY_TYPE_NEWER},
                {"writable", ZUL_KEST_OVERLAY_TYPE_WRITABLE}};
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) return false;
  overlay->lower = text.substr(0, equals);
  overlay->upper = text.substr(equals + 1);
  overlay->type = ZUL_KEST_OVERLAY_TYPE_TRANSLUCENT;
  const size_t colon = overlay->upper.rfind(':');
  if (colon != std::string::npos) {
    const std::string mode = overlay->upper.substr(colon + 1);
    bool known = false;
    for (const auto& candidate : kModes) {
      if (mode == candidate.name) {
        overlay->type = candidate.type;
        known = true;
      }
    }
    if (!known) return false;
    overlay->upper.resize(colon);
  }
  return !overlay->upper.empty();
}

}  // namespace kest2_cli
