// Initialisation and termination: validation messages and codes, defaults
// and clamps, repeated initialisation, unwinding after a failure, and
// terminate/initialise cycles.

#include <gtest/gtest.h>

#include <cstring>

#include "common/library_storage.h"
#include "core/globals.h"
#include "core/handletable.h"
#include "core/records.h"
#include "kest2.h"
#include "test_support.h"

namespace {

using kest2_common::LibraryStorage;
using kest2_test::OutputCapture;

class InitializeTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (zulKestIsInitialized(nullptr)) zulKestTerminate();
    zulKestDataTerm();
  }

  LibraryStorage storage_;
};

TEST_F(InitializeTest, NullParametersAreRefused) {
  OutputCapture out;
  EXPECT_EQ(zulKestInitialize(nullptr), ZUL_KEST_ERROR_BAD_PTR);
  EXPECT_EQ(out.text(), "zulKestInitialize: NULL parameters.\n");
  EXPECT_FALSE(zulKestIsInitialized(nullptr));
}

TEST_F(InitializeTest, WrongRecordSizeIsRefused) {
  ZulKestParams params = storage_.MakeParams();
  params.paramsSize = 100;
  OutputCapture out;
  EXPECT_EQ(zulKestInitialize(&params), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_EQ(out.text(),
            "zulKestInitialize: Unsupported paramsSize (100, most recent is "
            "176).\n");
  EXPECT_FALSE(zulKestIsInitialized(nullptr));
  EXPECT_FALSE(kest2::LocksCreated());
}

TEST_F(InitializeTest, DefaultsAndClampsAreApplied) {
  ZulKestParams params = storage_.MakeParams(64, 32, 16, 0);
  params.schedulerCount = 7;
  params.ioThreadCount = 0;
  params.decompressorThreadCount = 9;
  params.threadStackSize[0] = 100;
  params.threadStackSize[1] = 0x20000;
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  ZulKestParams active;
  ASSERT_TRUE(zulKestIsInitialized(&active));
  EXPECT_EQ(active.initialized, 1u);
  EXPECT_EQ(active.pathMax, 1024u);
  EXPECT_EQ(active.schedulerCount, 2u);
  EXPECT_EQ(active.ioThreadCount, 1u);
  EXPECT_EQ(active.maxChunk, 0x80000u);
  EXPECT_EQ(active.decompressorThreadCount, 3u);
  EXPECT_EQ(active.threadPriority[0], 260);
  EXPECT_EQ(active.threadPriority[1], 700);
  EXPECT_EQ(active.threadPriority[2], 260);
  EXPECT_EQ(active.threadStackSize[0], 0x14000);
  EXPECT_EQ(active.threadStackSize[1], 0x20000);
  EXPECT_EQ(active.threadStackSize[2], 0x4000);
  EXPECT_NE(active.pMemcpy, nullptr);  // the library's own copy routine
  char overlap[] = "abcdef";
  active.pMemcpy(overlap + 1, overlap, 4);
  EXPECT_STREQ(overlap, "aabcdf");
}

TEST_F(InitializeTest, PathMaxAboveLimitIsClamped) {
  // Storage sized for 1024-byte paths; 2000 is cut back to that.
  ZulKestParams params = storage_.MakeParams(64, 32, 16, 1024);
  params.pathMax = 2000;
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  ZulKestParams active;
  zulKestIsInitialized(&active);
  EXPECT_EQ(active.pathMax, 1024u);
}

TEST_F(InitializeTest, ReservedFieldsMustBeZero) {
  struct Case {
    const char* name;
    void (*spoil)(ZulKestParams*);
  };
  const Case cases[] = {
      {"padding", [](ZulKestParams* p) { p->padding[1] = 1; }},
      {"extraFlags", [](ZulKestParams* p) { p->extraFlags = 4; }},
      {"reserved", [](ZulKestParams* p) { p->reserved = 1; }},
      {"reservedMode", [](ZulKestParams* p) { p->reservedMode = 2; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ZulKestParams params = storage_.MakeParams();
    c.spoil(&params);
    OutputCapture out;
    params.pVprintf = OutputCapture::Hook();  // the copy is made before the check
    EXPECT_EQ(zulKestInitialize(&params), ZUL_KEST_ERROR_BAD_SIZE);
    EXPECT_EQ(out.text(),
              "KEST2 ERROR: A reserved, padding, or extraFlags field is not "
              "zero.\n");
    EXPECT_FALSE(zulKestIsInitialized(nullptr));
  }
  ZulKestParams params = storage_.MakeParams();
  params.reservedMode = 1;
  params.spare = 0xAB;  // never checked
  EXPECT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
}

TEST_F(InitializeTest, StorageFailuresUnwindAndDestroyOwnLocks) {
  struct Case {
    const char* name;
    void (*spoil)(ZulKestParams*);
    int32_t expected;
  };
  const Case cases[] = {
      {"op too small", [](ZulKestParams* p) { p->opStorageSize = 100; },
       ZUL_KEST_ERROR_BAD_SIZE},
      {"fh null", [](ZulKestParams* p) { p->fhStorage = nullptr; },
       ZUL_KEST_ERROR_BAD_PTR},
      {"dh misaligned",
       [](ZulKestParams* p) {
         p->dhStorage = static_cast<char*>(p->dhStorage) + 4;
         p->dhStorageSize -= 8;
       },
       ZUL_KEST_ERROR_BAD_ALIGNMENT},
      {"chunk storage null", [](ZulKestParams* p) { p->chunkStorage = nullptr; },
       ZUL_KEST_ERROR_BAD_PTR},
      {"chunk storage without room for the global root",
       [](ZulKestParams* p) { p->chunkStorageSize = 24; }, ZUL_KEST_ERROR_BAD_SIZE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ZulKestParams params = storage_.MakeParams();
    c.spoil(&params);
    EXPECT_EQ(zulKestInitialize(&params), c.expected);
    EXPECT_FALSE(zulKestIsInitialized(nullptr));
    EXPECT_FALSE(kest2::LocksCreated());
    // Tables set up before the failure were torn down again.
    EXPECT_EQ(zulKestGetAllOps(nullptr, 0), 0);
  }
}

TEST_F(InitializeTest, FailureKeepsLocksCreatedByTheHost) {
  zulKestDataInit();
  ASSERT_TRUE(kest2::LocksCreated());
  ZulKestParams params = storage_.MakeParams();
  params.opStorageSize = 10;
  EXPECT_EQ(zulKestInitialize(&params), ZUL_KEST_ERROR_BAD_SIZE);
  EXPECT_TRUE(kest2::LocksCreated());
  // And a successful cycle keeps them across terminate as well.
  params = storage_.MakeParams();
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  zulKestTerminate();
  EXPECT_TRUE(kest2::LocksCreated());
  zulKestDataTerm();
  EXPECT_FALSE(kest2::LocksCreated());
}

TEST_F(InitializeTest, RepeatedInitialisationOnlyUpdatesAdjustableFields) {
  ZulKestParams params = storage_.MakeParams();
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);

  ZulKestParams again = params;
  again.debugFlags = 0;
  again.maxChunk = 0x1000;
  again.threadPriority[0] = -1;  // stored as given, no defaults
  again.schedulerCount = 2;      // not adjustable
  {
    OutputCapture out;
    EXPECT_EQ(zulKestInitialize(&again), ZUL_KEST_OK);
    EXPECT_EQ(out.text(),
              "zulKestInitialize: WARNING: KEST has already been initialized. "
              "Updating parameters with new values.\n");
  }
  ZulKestParams active;
  zulKestIsInitialized(&active);
  EXPECT_EQ(active.maxChunk, 0x1000u);
  EXPECT_EQ(active.threadPriority[0], -1);
  EXPECT_EQ(active.schedulerCount, 1u);

  // A record of the wrong size is reported and changes nothing.
  again.maxChunk = 0x2000;
  again.paramsSize = 12;
  EXPECT_EQ(zulKestInitialize(&again), ZUL_KEST_OK);
  zulKestIsInitialized(&active);
  EXPECT_EQ(active.maxChunk, 0x1000u);

  kest2::SetAutoInitialized(true);
  OutputCapture out;
  EXPECT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  EXPECT_NE(out.text().find("has already been auto-initialized"), std::string::npos);
}

TEST_F(InitializeTest, UpdateParametersIgnoresBadRecordsAndUninitialisedLibrary) {
  ZulKestParams params = storage_.MakeParams();
  params.maxChunk = 0x4000;
  zulKestUpdateParameters(&params);  // not initialised: ignored
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  zulKestUpdateParameters(nullptr);
  ZulKestParams update = params;
  update.maxChunk = 0x8000;
  update.pMemcpy = nullptr;
  zulKestUpdateParameters(&update);
  ZulKestParams active;
  zulKestIsInitialized(&active);
  EXPECT_EQ(active.maxChunk, 0x8000u);
  EXPECT_NE(active.pMemcpy, nullptr);
}

TEST_F(InitializeTest, TerminateWhileUninitialisedWarns) {
  OutputCapture out;
  zulKestTerminate();
  EXPECT_EQ(out.text(), "zulKestTerminate: WARNING: KEST is not initialized.\n");
}

TEST_F(InitializeTest, TerminateClearsHooksAndReportsLeakedOperations) {
  ZulKestParams params = storage_.MakeParams();
  params.debugFlags = 0;
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  // Two operation units left allocated: the table reports them at
  // termination (1272 bytes each).
  ASSERT_NE(kest2::AllocateHandle(kest2::kOpTable), 0u);
  ASSERT_NE(kest2::AllocateHandle(kest2::kOpTable), 0u);
  // File handles are released (one without a descriptor: -1).
  const uint32_t fh = kest2::AllocateHandle(kest2::kFhTable);
  ASSERT_NE(fh, 0u);
  kest2::Lookup<kest2::FileHandle>(kest2::kFhTable, fh)->nativeFH = -1;
  OutputCapture out;
  zulKestTerminate();
  EXPECT_EQ(out.text(),
            "kest2 warning: terminated with 2544 bytes (2 units) of ops still "
            "allocated\n");
  EXPECT_EQ(kest2::g_KestParams.pMemcpy, nullptr);
  EXPECT_EQ(kest2::g_KestParams.debugFlags, 0u);
}

TEST_F(InitializeTest, GetAllHandlesCountsAndFills) {
  ZulKestParams params = storage_.MakeParams();
  ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK);
  uint32_t made[3];
  for (uint32_t& h : made) {
    h = kest2::AllocateHandle(kest2::kFhTable);
    kest2::Lookup<kest2::FileHandle>(kest2::kFhTable, h)->nativeFH = -1;  // no descriptor
  }
  EXPECT_EQ(zulKestGetAllFHs(nullptr, 0), 3);
  ZulKestFH listed[5];
  std::memset(listed, 0xFF, sizeof(listed));
  EXPECT_EQ(zulKestGetAllFHs(listed, 2), 3);
  EXPECT_EQ(listed[0], made[0]);
  EXPECT_EQ(listed[1], made[1]);
  EXPECT_EQ(listed[2], 0xFFFFFFFFu);  // beyond length: untouched
  EXPECT_EQ(zulKestGetAllFHs(listed, 5), 3);
  EXPECT_EQ(listed[2], made[2]);
  EXPECT_EQ(listed[3], 0u);
  EXPECT_EQ(listed[4], 0u);
  EXPECT_EQ(zulKestGetAllOps(listed, 5), 0);
  EXPECT_EQ(zulKestGetAllDHs(nullptr, -1), 0);
}

TEST_F(InitializeTest, ThousandCyclesLeaveNothingBehind) {
  ZulKestParams params = storage_.MakeParams(16, 16, 16);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(zulKestInitialize(&params), ZUL_KEST_OK) << "cycle " << i;
    ASSERT_NE(kest2::AllocateHandle(kest2::kDhTable), 0u);
    zulKestTerminate();
    ASSERT_FALSE(kest2::LocksCreated());
  }
}

}  // namespace
