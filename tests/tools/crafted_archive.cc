// Archives written byte by byte: see crafted_archive.h.

#include "tools/crafted_archive.h"

#include <zlib.h>

#include <fstream>
#include <stdexcept>

#include "archive/zorba_format.h"
#include "core/md5.h"

namespace kest2_test {
namespace {

using Bytes = std::vector<uint8_t>;

void Put(Bytes* out, uint64_t at, uint64_t value, size_t width) {
  for (size_t i = width; i > 0; --i) {
    (*out)[at + i - 1] = static_cast<uint8_t>(value);
    value >>= 8;
  }
}

// One entry's bytes as stored and its rows.
struct Stored {
  Bytes data;
  std::vector<uint32_t> rows;  // none for a stored (empty) file
};

Stored Store(const std::string& content, uint32_t blockSize) {
  Stored stored;
  for (size_t at = 0; at < content.size(); at += blockSize) {
    const size_t length = std::min<size_t>(blockSize, content.size() - at);
    const auto* block = reinterpret_cast<const Bytef*>(content.data() + at);
    Bytes packed(compressBound(length));
    uLongf packedLength = packed.size();
    if (compress2(packed.data(), &packedLength, block, length, 9) == Z_OK &&
        packedLength < length) {
      stored.data.insert(stored.data.end(), packed.begin(), packed.begin() + packedLength);
      stored.rows.push_back(static_cast<uint32_t>(packedLength));
    } else {
      stored.data.insert(stored.data.end(), block, block + length);
      stored.rows.push_back(length == blockSize ? 0 : static_cast<uint32_t>(length));
    }
  }
  return stored;
}

}  // namespace

CraftedLayout WriteCraftedArchive(const std::string& path, const CraftedArchive& archive) {
  constexpr uint32_t kEntrySize = kest2::kZorbaMinEntrySize;
  const uint32_t width = kest2::SizeWidthForBlockSize(archive.blockSize);
  std::string manifest;
  for (const CraftedFile& file : archive.files) {
    if (file.inManifest) manifest += file.name + "\n";
  }
  // Entry 0 is the manifest; entries 1.. are the files in the TOC.
  std::vector<Stored> stored{Store(manifest, archive.blockSize)};
  std::vector<const std::string*> names{nullptr};
  std::vector<size_t> fileOf{0};
  for (size_t f = 0; f < archive.files.size(); ++f) {
    if (!archive.files[f].inToc) continue;
    stored.push_back(Store(archive.files[f].content, archive.blockSize));
    names.push_back(&archive.files[f].name);
    fileOf.push_back(f);
  }
  size_t rows = 0;
  for (const Stored& s : stored) rows += s.rows.size();
  const uint64_t tocLength = uint64_t{kEntrySize} * stored.size() + uint64_t{width} * rows;

  CraftedLayout layout;
  layout.tocOffset = kest2::kZorbaHeaderV3Size;
  layout.rowsOffset = layout.tocOffset + uint64_t{kEntrySize} * stored.size();
  layout.sizeWidth = width;
  layout.entryOffset.assign(archive.files.size(), 0);
  layout.dataOffset.assign(archive.files.size(), 0);
  layout.firstRow.assign(archive.files.size(), 0);
  uint64_t dataSize = 0;
  for (const Stored& s : stored) dataSize += s.data.size();
  Bytes out(layout.tocOffset + tocLength + dataSize, 0);
  Put(&out, 0, kest2::kZorbaMagic, 4);
  Put(&out, 4, 0x00030000, 4);
  Put(&out, 8, kest2::kZorbaCompressionZlib, 4);
  Put(&out, 12, tocLength, 4);
  Put(&out, 16, kEntrySize, 4);
  Put(&out, 20, stored.size(), 4);
  Put(&out, 24, archive.blockSize, 4);
  Put(&out, 28, archive.flags & ~kest2::ZORBA_FLAG_TOC_SORTED, 4);
  Put(&out, 32, layout.tocOffset, 8);
  Put(&out, 40, tocLength, 8);
  uint64_t data = layout.tocOffset + tocLength;
  uint64_t row = 0;
  for (size_t e = 0; e < stored.size(); ++e) {
    const uint64_t entry = layout.tocOffset + uint64_t{kEntrySize} * e;
    if (names[e] != nullptr) {
      std::string keyed = *names[e];
      if ((archive.flags & kest2::ZORBA_FLAG_IGNORE_CASE) != 0) {
        for (char& c : keyed) {
          if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        }
      }
      kest2::PathDigest(keyed.data(), keyed.size(), out.data() + entry);
    }
    const Stored& s = stored[e];
    const uint64_t size = e == 0 ? manifest.size() : archive.files[fileOf[e]].content.size();
    Put(&out, entry + 16, s.rows.empty() ? kest2::ZORBA_STORED_FIRST_BLOCK : row, 4);
    Put(&out, entry + 20, size, 5);
    Put(&out, entry + 25, data, 5);
    if (e == 0) {
      layout.manifestOffset = data;
    } else {
      layout.entryOffset[fileOf[e]] = entry;
      layout.dataOffset[fileOf[e]] = data;
      layout.firstRow[fileOf[e]] = s.rows.empty() ? 0 : row;
    }
    for (uint32_t value : s.rows) Put(&out, layout.rowsOffset + width * row++, value, width);
    std::copy(s.data.begin(), s.data.end(), out.begin() + data);
    data += s.data.size();
  }
  layout.size = out.size();
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(out.data()), static_cast<std::streamsize>(out.size()));
  if (!file) throw std::runtime_error("cannot write " + path);
  return layout;
}

}  // namespace kest2_test
