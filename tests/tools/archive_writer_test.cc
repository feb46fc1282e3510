// The archive writer, checked only through the library's reader: every
// archive packed from a real temporary tree must pass the header, layout and
// TOC checks, list its files in the manifest, and give back every file byte
// for byte, its blocks located with and without the block offset index and
// inflated with zlib.

#include "kest2/archive_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "archive/zorba_format.h"
#include "common/random.h"
#include "common/temp_dir.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2_cli::PackOptions;
using Files = std::map<std::string, std::string>;  // archive name -> content
using Bytes = std::vector<uint8_t>;

std::string Random(size_t length, uint32_t seed) {
  const std::vector<uint8_t> bytes = kest2_common::RandomBytes(length, seed);
  return std::string(bytes.begin(), bytes.end());
}

std::string Text(size_t length) {
  std::string text;
  for (int line = 0; text.size() < length; ++line) text += "line " + std::to_string(line) + "\n";
  text.resize(length);
  return text;
}

Bytes ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class ArchiveWriterTest : public testing::Test {
 protected:
  std::string Tree() const { return dir_.path() + "/tree"; }
  std::string ArchivePath() const { return dir_.path() + "/out.zorba"; }

  void Write(const std::string& name, const std::string& content) {
    const std::filesystem::path path = Tree() + "/" + name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    files_[name] = content;
  }

  // A tree with the shapes the block rules distinguish.
  void WriteMixedTree(uint32_t blockSize) {
    Write("a/text.txt", Text(300000));                      // many compressed blocks
    Write("a/b/random.bin", Random(3 * blockSize + 7, 1));  // raw blocks, raw tail
    Write("one.bin", Random(blockSize / 2, 2));             // a single partial block
    Write("full.txt", Text(2 * blockSize));                 // last block full
    Write("tiny", "x");
    Write("empty", "");
  }

  bool Pack(const PackOptions& options, std::string* error = nullptr) {
    kest2_cli::PackSummary summary;
    std::string ignored;
    return kest2_cli::PackDirectory(Tree(), ArchivePath(), options, &summary,
                                    error != nullptr ? error : &ignored);
  }

  // Reads the archive back and checks it against files_ (names as packed).
  void Verify(const PackOptions& options) {
    const Bytes archive = ReadFile(ArchivePath());
    ASSERT_GE(archive.size(), kest2::kZorbaHeaderReadSize);
    kest2::ZorbaHeader header{};
    kest2::ParseHeader(archive.data(), &header);
    ASSERT_TRUE(kest2::IsHeaderValid(header));
    ASSERT_EQ(kest2::CheckArchiveLayout(header, archive.size()), ZUL_KEST_OK);
    EXPECT_EQ(header.version >> 16, options.version);
    EXPECT_EQ(header.blockSize, options.blockSize);
    EXPECT_EQ(header.tocEntryCount, files_.size() + 1);
    EXPECT_EQ((header.archiveFlags & kest2::ZORBA_FLAG_IGNORE_CASE) != 0, options.ignoreCase);
    EXPECT_EQ((header.archiveFlags & kest2::ZORBA_FLAG_ABSOLUTE_PATHS) != 0, options.absolutePaths);
    EXPECT_EQ(header.tocSorted != 0, !options.unsorted);

    Bytes toc(archive.begin() + header.tocOffset,
              archive.begin() + header.tocOffset + header.tocLength);
    ASSERT_EQ(kest2::CheckToc(header, toc.data(), archive.size()), ZUL_KEST_OK);
    // Queries need the manifest as the first entry, sorted or not.
    ASSERT_EQ(kest2::FindManifestEntry(header, toc.data()), toc.data());
    std::vector<Bytes> digests;
    for (uint32_t i = 0; i < header.tocEntryCount; ++i) {
      const uint8_t* d = toc.data() + i * header.tocEntrySize;
      digests.emplace_back(d, d + 16);
    }
    EXPECT_EQ(std::is_sorted(digests.begin(), digests.end()), !options.unsorted);
    Bytes index(kest2::BlockIndexSize(header));
    ASSERT_EQ(kest2::BuildBlockIndex(header, toc.data(), index.data()), ZUL_KEST_OK);
    kest2::SortToc(&header, toc.data());

    // The data is compact: every row belongs to one file and the stored
    // blocks fill the archive from the end of the TOC.
    uint64_t rows = 0, stored = 0;
    for (uint32_t i = 0; i < header.tocEntryCount; ++i) {
      const uint8_t* entry = toc.data() + i * header.tocEntrySize;
      if (!kest2::IsEntryStored(header, entry)) rows += kest2::GetEntryBlockCount(header, entry);
      stored += Content(header, toc, index, archive, entry).second;
    }
    EXPECT_EQ(rows, kest2::BlockRowCount(header));
    EXPECT_EQ(header.tocOffset + header.tocLength + stored, archive.size());

    compressed_ = raw_ = 0;
    std::vector<std::string> names;
    for (const auto& file : files_) {
      names.push_back((options.absolutePaths ? "/" : "") + file.first);
      const uint8_t* entry = kest2::FindEntryByPath(header, toc.data(), names.back().c_str());
      ASSERT_NE(entry, nullptr) << names.back();
      EXPECT_TRUE(Content(header, toc, index, archive, entry).first == file.second) << names.back();
    }
    const std::string manifest =
        Content(header, toc, index, archive, kest2::FindManifestEntry(header, toc.data())).first;
    kest2::ZorbaManifestCursor cursor;
    kest2::ManifestBegin(header, manifest.data(), manifest.size(), &cursor);
    std::vector<std::string> listed;
    const char* path = nullptr;
    size_t length = 0;
    while (kest2::ManifestNext(&cursor, &path, &length)) listed.emplace_back(path, length);
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, names);
    ASSERT_FALSE(manifest.empty());
    EXPECT_EQ(manifest.back(), '\n');
  }

  // A file's bytes as the reader finds them, and its stored size.  Every
  // block is located with and without the index, and a compressed block
  // must be one zlib stream of exactly its stored size.  The first bad
  // block ends the read with a failure naming it.
  std::pair<std::string, uint64_t> Content(const kest2::ZorbaHeader& header, const Bytes& toc,
                                           const Bytes& index, const Bytes& archive,
                                           const uint8_t* entry) {
    const uint64_t size = kest2::GetEntrySize(entry);
    if (kest2::IsEntryStored(header, entry)) {
      const uint64_t at = kest2::GetEntryOffset(entry);
      return {std::string(archive.begin() + at, archive.begin() + at + size), size};
    }
    std::string content;
    uint64_t stored = 0;
    for (uint64_t k = 0; k < kest2::GetEntryBlockCount(header, entry); ++k) {
      kest2::ZorbaBlock block{}, walked{};
      const uint64_t length = std::min<uint64_t>(header.blockSize, size - k * header.blockSize);
      std::string out(length, '\0');
      uLongf outLength = length;
      uLong inLength = 0;
      const bool located =
          kest2::LocateBlock(header, toc.data(), entry, index.data(), k, &block) == ZUL_KEST_OK &&
          kest2::LocateBlock(header, toc.data(), entry, nullptr, k, &walked) == ZUL_KEST_OK &&
          block.offset == walked.offset;
      inLength = block.storedSize;
      const bool read =
          located &&
          (block.compressed ? uncompress2(reinterpret_cast<Bytef*>(out.data()), &outLength,
                                          archive.data() + block.offset, &inLength) == Z_OK &&
                                  outLength == length && inLength == block.storedSize
                            : block.storedSize >= length);
      if (!read) {
        ADD_FAILURE() << "block " << k << " of an entry of " << size << " bytes: located "
                      << located << ", compressed " << block.compressed;
        return {};
      }
      if (block.compressed) {
        ++compressed_;
      } else {
        std::memcpy(out.data(), archive.data() + block.offset, length);
        if (length != 0) ++raw_;
      }
      stored += block.storedSize;
      content += out;
    }
    return {content, stored};
  }

  kest2_common::TempDir dir_;
  Files files_;
  int compressed_ = 0, raw_ = 0;
};

TEST_F(ArchiveWriterTest, EveryVersionAndBlockSizeReadsBack) {
  for (uint32_t version : {1u, 3u}) {
    for (uint32_t blockSize : {256u, 65536u, 65537u}) {
      SCOPED_TRACE("version " + std::to_string(version) + ", block " + std::to_string(blockSize));
      std::filesystem::remove_all(Tree());
      files_.clear();
      WriteMixedTree(blockSize);
      PackOptions options;
      options.version = version;
      options.blockSize = blockSize;
      options.jobs = 3;
      ASSERT_TRUE(Pack(options));
      Verify(options);
      EXPECT_GT(compressed_, 0);
      EXPECT_GE(raw_, 5);  // the random blocks, its tail and one.bin
    }
  }
}

TEST_F(ArchiveWriterTest, StoreDropsRowsOfIncompressibleFilesOnly) {
  WriteMixedTree(256);
  Write("mixed.bin", Text(1 << 20) + Random(1000, 3));  // compresses in its first piece only
  PackOptions options;
  options.blockSize = 256;
  options.storeIncompressible = true;
  ASSERT_TRUE(Pack(options));
  Verify(options);
  const Bytes archive = ReadFile(ArchivePath());
  kest2::ZorbaHeader header{};
  kest2::ParseHeader(archive.data(), &header);
  const uint8_t* toc = archive.data() + header.tocOffset;
  auto stored = [&](const char* name) {
    return kest2::IsEntryStored(header, kest2::FindEntryByPath(header, toc, name));
  };
  EXPECT_TRUE(stored("a/b/random.bin"));
  EXPECT_TRUE(stored("empty"));
  EXPECT_FALSE(stored("a/text.txt"));
  EXPECT_FALSE(stored("mixed.bin"));

  // Level 0 never compresses: every file is stored and no rows are left.
  options.level = 0;
  ASSERT_TRUE(Pack(options));
  Verify(options);
  kest2::ParseHeader(ReadFile(ArchivePath()).data(), &header);
  EXPECT_EQ(kest2::BlockRowCount(header), 0u);
}

TEST_F(ArchiveWriterTest, CaseAndAbsoluteNames) {
  Write("Dir/Mixed.TXT", Text(1000));
  Write("dir2/lower.txt", "lower");
  Write("B.txt", "B");  // before "a.txt" in byte order, after it ignoring case
  Write("a.txt", "a");
  PackOptions options;
  options.ignoreCase = true;
  options.absolutePaths = true;
  ASSERT_TRUE(Pack(options));
  Verify(options);
  const Bytes archive = ReadFile(ArchivePath());
  kest2::ZorbaHeader header{};
  kest2::ParseHeader(archive.data(), &header);
  const uint8_t* toc = archive.data() + header.tocOffset;
  EXPECT_NE(kest2::FindEntryByPath(header, toc, "/DIR/mixed.txt"), nullptr);
  EXPECT_EQ(kest2::FindEntryByPath(header, toc, "Dir/Mixed.TXT"), nullptr);

  // Names that differ only in case cannot both be found.
  Write("dir/mixed.txt", "other");
  std::string error;
  EXPECT_FALSE(Pack(options, &error));
  EXPECT_NE(error.find("when case is ignored"), std::string::npos) << error;
  options.ignoreCase = false;
  ASSERT_TRUE(Pack(options));
  Verify(options);
}

TEST_F(ArchiveWriterTest, UnsortedTocIsFoundAfterTheReaderSorts) {
  for (const char* name : {"a", "b", "c", "d", "e", "f"}) Write(name, Text(700));
  PackOptions options;
  options.unsorted = true;
  ASSERT_TRUE(Pack(options));
  Verify(options);
}

TEST_F(ArchiveWriterTest, OutputDoesNotDependOnThreadCount) {
  WriteMixedTree(256);
  Write("big.txt", Text(3 << 20));  // several pieces
  PackOptions options;
  options.blockSize = 256;
  options.jobs = 1;
  ASSERT_TRUE(Pack(options));
  const Bytes single = ReadFile(ArchivePath());
  for (unsigned jobs : {2u, 7u}) {
    options.jobs = jobs;
    ASSERT_TRUE(Pack(options));
    EXPECT_TRUE(ReadFile(ArchivePath()) == single) << jobs << " threads";
  }
  Verify(options);
}

TEST_F(ArchiveWriterTest, ErrorsNameThePathAndLeaveNothingBehind) {
  PackOptions options;
  std::string error;
  kest2_cli::PackSummary summary;
  EXPECT_FALSE(Pack(options, &error));  // no tree yet
  EXPECT_EQ(error, Tree() + ": No such file or directory");
  std::filesystem::create_directories(Tree() + "/only/dirs");
  EXPECT_FALSE(Pack(options, &error));
  EXPECT_EQ(error, Tree() + ": no regular files to pack");
  Write("file", "data");
  EXPECT_FALSE(
      kest2_cli::PackDirectory(Tree() + "/file", ArchivePath(), options, &summary, &error));
  EXPECT_EQ(error, Tree() + "/file: not a directory");
  EXPECT_FALSE(
      kest2_cli::PackDirectory(Tree(), dir_.path() + "/no/such.zorba", options, &summary, &error));
  EXPECT_EQ(error, dir_.path() + "/no/such.zorba: No such file or directory");
  if (geteuid() != 0) {  // root reads anything
    Write("locked", "secret");
    chmod((Tree() + "/locked").c_str(), 0);
    EXPECT_FALSE(Pack(options, &error));
    EXPECT_EQ(error, Tree() + "/locked: Permission denied");
    std::filesystem::remove(Tree() + "/locked");
    files_.erase("locked");
  }
  // Only the tree is left: no archive, no temporary file.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 1);

  // An archive written into the tree does not pack itself or its
  // predecessor.
  const std::string inside = Tree() + "/self.zorba";
  ASSERT_TRUE(kest2_cli::PackDirectory(Tree(), inside, options, &summary, &error));
  ASSERT_TRUE(kest2_cli::PackDirectory(Tree(), inside, options, &summary, &error));
  EXPECT_EQ(summary.files, 1u);
}

}  // namespace
