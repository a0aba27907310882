// The trace log buffer's memory block as tools read it, its sizes, and the global
// create/delete functions with their failure paths.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <ntddk.h>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "kntrace.h"
#include "kntracelogbuffer.h"

namespace {

const char kMarker[] = "VELDORAN-*TRCLOGBUFFER*-VELDORAN";

ULONG ReadUlong(const UCHAR* block, size_t offset) {
  ULONG value;
  memcpy(&value, block + offset, sizeof(value));
  return value;
}

bool AllZero(const UCHAR* bytes, size_t count) {
  for (size_t i = 0; i < count; i++) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

class TraceLogLayoutTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    wdmsim::TakeDebugOutput();
  }
  void TearDown() override {
    KnTraceDeleteLogBuffer();
    wdmsim::ClearPoolFaults();
  }

  wdmsim::Kernel mKernel;
};

// A freshly created block, checked byte for byte at its documented offsets.
void ExpectFreshBlock(const KnTraceLogBuffer& log, ULONG size) {
  ASSERT_EQ(log.GetSize(), size);
  const UCHAR* block = log.GetMemory();
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::string((const char*)block, 32), kMarker);
  EXPECT_EQ(ReadUlong(block, 32), 256u) << "control block size";
  EXPECT_EQ(ReadUlong(block, 36), 1u) << "version";
  EXPECT_EQ(ReadUlong(block, 40), 256u) << "data start";
  EXPECT_EQ(ReadUlong(block, 44), size) << "data end";
  EXPECT_EQ(ReadUlong(block, 48), 256u) << "write offset";
  EXPECT_EQ(ReadUlong(block, 52), 256u) << "end offset";
  EXPECT_TRUE(AllZero(block + 56, 200)) << "reserved";
  EXPECT_TRUE(AllZero(block + 256, size - 256)) << "data";
}

TEST_F(TraceLogLayoutTest, BlockSizesAreWholePagesOfAtLeastOne) {
  const struct {
    ULONG requested;
    ULONG size;
  } cases[] = {
      {0, 4096}, {1, 4096}, {4095, 4096}, {4096, 4096}, {4097, 8192}, {8192, 8192}, {1024 * 1024, 1024 * 1024},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.requested);
    KnTraceLogBuffer log;
    ASSERT_TRUE(log.Create(c.requested));
    ExpectFreshBlock(log, c.size);
    EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 1u);
  }
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);  // the destructor frees the block
}

TEST_F(TraceLogLayoutTest, CreateAgainReplacesTheBlockAndStartsEmpty) {
  KnTraceLogBuffer log;
  ASSERT_TRUE(log.Create(4096));
  log.WriteMessage("old text\n", NULL);
  ASSERT_TRUE(log.Create(8192));
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 1u);
  ExpectFreshBlock(log, 8192);
}

TEST_F(TraceLogLayoutTest, FreeGivesTheBlockBackAndLeavesAnEmptyObject) {
  KnTraceLogBuffer log;
  ASSERT_TRUE(log.Create(4096));
  log.Free();
  EXPECT_EQ(log.GetSize(), 0u);
  EXPECT_EQ(log.GetMemory(), nullptr);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);
  log.Free();  // twice is harmless

  // Writing into an object without memory is a framework error: it is reported, not done.
  ULONG savedMask = gKnTraceMask;
  gKnTraceMask = 0x1;
  log.WriteMessage("lost\n", NULL);
  gKnTraceMask = savedMask;
  EXPECT_NE(wdmsim::TakeDebugOutput().find("ASSERTION FAILED: (mControlBlock!=NULL)"), std::string::npos);
}

TEST_F(TraceLogLayoutTest, NoContiguousMemoryMeansNoBlock) {
  KnTraceLogBuffer log;
  wdmsim::FailContiguousAllocations(true);
  EXPECT_FALSE(log.Create(4096));
  EXPECT_EQ(log.GetSize(), 0u);
  EXPECT_EQ(log.GetMemory(), nullptr);
  wdmsim::FailContiguousAllocations(false);
}

TEST_F(TraceLogLayoutTest, GlobalBufferOfOneMegabyte) {
  ASSERT_EQ(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(KnTraceGetLogBufferSizeKb(), 0u);
  ASSERT_TRUE(KnTraceCreateLogBuffer(1024));
  ASSERT_NE(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(KnTraceGetLogBufferSizeKb(), 1024u);
  // The object itself comes from the non-paged pool with its own tag.
  EXPECT_EQ(wdmsim::LivePoolBlockCount(gKnTraceLogBufferTag), 1u);
  EXPECT_EQ(wdmsim::TagText(gKnTraceLogBufferTag), "BcrT");
  for (const wdmsim::PoolBlockInfo& info : wdmsim::LivePoolBlocks()) {
    if (info.address == gKnTraceLogBuffer) {
      EXPECT_EQ(info.poolType, NonPagedPool);
    }
  }
  const UCHAR* block = gKnTraceLogBuffer->GetMemory();
  EXPECT_EQ(ReadUlong(block, 44) - ReadUlong(block, 40), 1048320u) << "bytes of ring";
  ExpectFreshBlock(*gKnTraceLogBuffer, 1024 * 1024);

  // A second create keeps the object and replaces its block.
  KnTraceLogBuffer* first = gKnTraceLogBuffer;
  ASSERT_TRUE(KnTraceCreateLogBuffer(8));
  EXPECT_EQ(gKnTraceLogBuffer, first);
  EXPECT_EQ(KnTraceGetLogBufferSizeKb(), 8u);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 1u);

  KnTraceDeleteLogBuffer();
  EXPECT_EQ(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(KnTraceGetLogBufferSizeKb(), 0u);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(gKnTraceLogBufferTag), 0u);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);
  KnTraceDeleteLogBuffer();  // without a buffer: nothing happens
}

// Disabled until the framework's operator new (libknnewdelete.h) is declared noexcept:
// without it the compiler may construct the object on the NULL that a failed allocation
// returns, and this case crashes instead of failing the create.
TEST_F(TraceLogLayoutTest, GlobalCreateWithoutPoolMemoryFails) {
  wdmsim::FailPoolAllocationsWithTag(gKnTraceLogBufferTag);
  EXPECT_FALSE(KnTraceCreateLogBuffer(1024));
  EXPECT_EQ(gKnTraceLogBuffer, nullptr);
  EXPECT_GE(wdmsim::InjectedPoolFailures(), 1);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);
}

TEST_F(TraceLogLayoutTest, GlobalCreateFailuresLeaveNothingBehind) {
  // An object but no block: the object goes again.
  wdmsim::FailContiguousAllocations(true);
  EXPECT_FALSE(KnTraceCreateLogBuffer(1024));
  wdmsim::FailContiguousAllocations(false);
  EXPECT_EQ(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(gKnTraceLogBufferTag), 0u);

  // Kilobytes that do not fit 32 bits of bytes.
  EXPECT_FALSE(KnTraceCreateLogBuffer(0x400000));
  EXPECT_EQ(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(gKnTraceLogBufferTag), 0u);

  // Tracing without a log buffer still reaches the debugger.
  KnTraceOutput("still here\n");
  EXPECT_EQ(wdmsim::TakeDebugOutput(), "still here\n");
}

}  // namespace
