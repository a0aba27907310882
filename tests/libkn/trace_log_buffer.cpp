// The trace log buffer: its memory block as tools read it, its sizes, the global
// create/delete with their failure paths, and messages in the ring (placement, the end
// marker behind the newest message, wrapping at the data end, writers on several threads).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <ntddk.h>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>

#include "knsystemthread.h"
#include "kntrace.h"
#include "kntracelogbuffer.h"

namespace {

const char kMarker[] = "VELDORAN-*TRCLOGBUFFER*-VELDORAN";
const std::string kEndMarker = "################\n";
const ULONG kDataStart = 256;
const ULONG kBlock = 4096;
const ULONG kRing = kBlock - kDataStart;  // 3840 bytes

ULONG ReadUlong(const UCHAR* block, size_t offset) {
  ULONG value;
  memcpy(&value, block + offset, sizeof(value));
  return value;
}

const KnTraceLogControlBlock* Head(const KnTraceLogBuffer& log) {
  return (const KnTraceLogControlBlock*)log.GetMemory();
}

std::string Bytes(const KnTraceLogBuffer& log, ULONG offset, ULONG count) {
  return std::string((const char*)log.GetMemory() + offset, count);
}

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
  EXPECT_EQ(std::string(size - 56, '\0'), std::string((const char*)block + 56, size - 56)) << "reserved and data";
}

class TraceLogTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    wdmsim::TakeDebugOutput();
    ASSERT_TRUE(mLog.Create(kBlock));
  }
  void TearDown() override {
    KnTraceDeleteLogBuffer();
    wdmsim::ClearPoolFaults();
    wdmsim::FailContiguousAllocations(false);
  }
  ULONG WriteOffset() const { return Head(mLog)->WriteOffset; }
  ULONG EndOffset() const { return Head(mLog)->EndOffset; }

  wdmsim::Kernel mKernel;
  KnTraceLogBuffer mLog;
};

TEST_F(TraceLogTest, BlockSizesAreWholePagesOfAtLeastOne) {
  const ULONG cases[][2] = {{0, 4096},    {1, 4096},    {4095, 4096},           {4096, 4096},
                            {4097, 8192}, {8192, 8192}, {1024 * 1024, 1024 * 1024}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0]);
    KnTraceLogBuffer log;
    ASSERT_TRUE(log.Create(c[0]));
    ExpectFreshBlock(log, c[1]);
    EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 2u);  // with the fixture's
  }
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 1u);  // the destructor frees the block
}

TEST_F(TraceLogTest, CreateAgainStartsEmptyAndFreeOrNoMemoryLeavesAnEmptyObject) {
  mLog.WriteMessage("old text\n", NULL);
  ASSERT_TRUE(mLog.Create(8192));
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 1u);
  ExpectFreshBlock(mLog, 8192);

  mLog.Free();
  EXPECT_EQ(mLog.GetSize(), 0u);
  EXPECT_EQ(mLog.GetMemory(), nullptr);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);
  mLog.Free();  // twice is harmless
  // Writing into an object without memory is a framework error: it is reported, not done.
  ULONG savedMask = gKnTraceMask;
  gKnTraceMask = 0x1;
  mLog.WriteMessage("lost\n", NULL);
  gKnTraceMask = savedMask;
  EXPECT_NE(wdmsim::TakeDebugOutput().find("ASSERTION FAILED: (mControlBlock!=NULL)"), std::string::npos);

  wdmsim::FailContiguousAllocations(true);
  EXPECT_FALSE(mLog.Create(4096));
  EXPECT_EQ(mLog.GetSize(), 0u);
  EXPECT_EQ(mLog.GetMemory(), nullptr);
}

TEST_F(TraceLogTest, GlobalBufferIsCreatedReplacedAndDeleted) {
  ASSERT_EQ(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(KnTraceGetLogBufferSizeKb(), 0u);
  ASSERT_TRUE(KnTraceCreateLogBuffer(1024));
  ASSERT_NE(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(KnTraceGetLogBufferSizeKb(), 1024u);
  // The object itself comes from the non-paged pool with its own tag.
  EXPECT_EQ(wdmsim::TagText(gKnTraceLogBufferTag), "BcrT");
  size_t objects = 0;
  for (const wdmsim::PoolBlockInfo& info : wdmsim::LivePoolBlocks()) {
    if (info.tag != gKnTraceLogBufferTag) continue;
    objects++;
    EXPECT_EQ(info.address, gKnTraceLogBuffer);
    EXPECT_EQ(info.poolType, NonPagedPool);
  }
  EXPECT_EQ(objects, 1u);
  ExpectFreshBlock(*gKnTraceLogBuffer, 1024 * 1024);

  // A second create keeps the object and replaces its block.
  KnTraceLogBuffer* first = gKnTraceLogBuffer;
  ASSERT_TRUE(KnTraceCreateLogBuffer(8));
  EXPECT_EQ(gKnTraceLogBuffer, first);
  EXPECT_EQ(KnTraceGetLogBufferSizeKb(), 8u);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 2u);  // with the fixture's

  KnTraceDeleteLogBuffer();
  EXPECT_EQ(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(KnTraceGetLogBufferSizeKb(), 0u);
  EXPECT_EQ(wdmsim::LivePoolBlockCount(gKnTraceLogBufferTag), 0u);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 1u);
  KnTraceDeleteLogBuffer();  // without a buffer: nothing happens
}

TEST_F(TraceLogTest, GlobalCreateFailuresLeaveNothingBehind) {
  mLog.Free();
  // No pool for the object.
  wdmsim::FailPoolAllocationsWithTag(gKnTraceLogBufferTag);
  EXPECT_FALSE(KnTraceCreateLogBuffer(1024));
  EXPECT_GE(wdmsim::InjectedPoolFailures(), 1);
  wdmsim::ClearPoolFaults();
  EXPECT_EQ(gKnTraceLogBuffer, nullptr);
  EXPECT_EQ(wdmsim::LiveContiguousBlockCount(), 0u);

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

TEST_F(TraceLogTest, MessageThenEndMarkerAndTheNextMessageOverwritesIt) {
  mLog.WriteMessage("hello\n", "   12345  ");
  EXPECT_EQ(Bytes(mLog, 256, 16 + 17), "   12345  hello\n" + kEndMarker);
  EXPECT_EQ(WriteOffset(), 256u + 16);
  EXPECT_EQ(EndOffset(), 256u + 16 + 17);

  // The second message starts where the first one's end marker began.
  mLog.WriteMessage("second\n", NULL);
  EXPECT_EQ(Bytes(mLog, 256, 16 + 7 + 17 + 1), "   12345  hello\nsecond\n" + kEndMarker + '\0');
  EXPECT_EQ(WriteOffset(), 256u + 23);
  EXPECT_EQ(EndOffset(), 256u + 23 + 17);

  // Empty and missing messages are ignored, prefix or not.
  mLog.WriteMessage("", "stamp  ");
  mLog.WriteMessage(NULL, "stamp  ");
  EXPECT_EQ(WriteOffset(), 256u + 23);
  EXPECT_EQ(EndOffset(), 256u + 23 + 17);
  EXPECT_EQ(Bytes(mLog, 256 + 23, 17), kEndMarker);
}

TEST_F(TraceLogTest, MessageThatReachesTheDataEndContinuesAtTheDataStart) {
  // Leave 10 bytes before the data end: the end marker itself wraps, 10 bytes and 7.
  mLog.WriteMessage(std::string(kRing - 10, 'f').c_str(), NULL);
  ASSERT_EQ(WriteOffset(), kBlock - 10);
  EXPECT_EQ(Bytes(mLog, kBlock - 10, 10), kEndMarker.substr(0, 10));
  EXPECT_EQ(Bytes(mLog, kDataStart, 8), kEndMarker.substr(10) + "f");
  EXPECT_EQ(EndOffset(), kDataStart + 7);

  // The next message is split at the data end without any other mark; the oldest text
  // follows its end marker.
  mLog.WriteMessage("0123456789ABCDEFGHIJ", NULL);
  EXPECT_EQ(Bytes(mLog, kBlock - 10, 10), "0123456789");
  EXPECT_EQ(Bytes(mLog, kDataStart, 10 + 17 + 1), "ABCDEFGHIJ" + kEndMarker + "f");
  EXPECT_EQ(WriteOffset(), kDataStart + 10);
  EXPECT_EQ(EndOffset(), kDataStart + 27);

  // A prefix and its message wrap together.
  KnTraceLogBuffer log;
  ASSERT_TRUE(log.Create(kBlock));
  log.WriteMessage(std::string(kRing - 4, 'f').c_str(), NULL);
  log.WriteMessage("message\n", "12345678  ");
  EXPECT_EQ(Bytes(log, kBlock - 4, 4), "1234");
  EXPECT_EQ(Bytes(log, kDataStart, 6 + 8 + 17), "5678  message\n" + kEndMarker);
  EXPECT_EQ(Head(log)->WriteOffset, kDataStart + 14);
}

TEST_F(TraceLogTest, MessagesEndingExactlyAtJustBeforeAndBeyondTheDataEnd) {
  // One byte short of the end: the write offset stays in the last byte.
  mLog.WriteMessage(std::string(kRing - 1, 'a').c_str(), NULL);
  EXPECT_EQ(WriteOffset(), kBlock - 1);
  EXPECT_EQ(Bytes(mLog, kBlock - 1, 1), "#");
  EXPECT_EQ(EndOffset(), kDataStart + 16);

  // Filling the ring exactly: the write offset wraps to the data start at once.
  KnTraceLogBuffer exact;
  ASSERT_TRUE(exact.Create(kBlock));
  exact.WriteMessage(std::string(kRing, 'b').c_str(), NULL);
  EXPECT_EQ(Head(exact)->WriteOffset, kDataStart);
  EXPECT_EQ(Head(exact)->EndOffset, kDataStart + 17);
  EXPECT_EQ(Bytes(exact, kDataStart, 18), kEndMarker + "b");

  // A message longer than the ring overwrites its own beginning and still ends in place.
  KnTraceLogBuffer longer;
  ASSERT_TRUE(longer.Create(kBlock));
  std::string text;
  for (ULONG i = 0; i < kRing + 100; i++) text += (char)('a' + i % 26);
  longer.WriteMessage(text.c_str(), NULL);
  EXPECT_EQ(Head(longer)->WriteOffset, kDataStart + 100);
  EXPECT_EQ(Bytes(longer, kDataStart, 117), text.substr(kRing, 100) + kEndMarker);
}

// Each message (prefix, text, end marker) stays whole, and none is lost or written twice.
TEST_F(TraceLogTest, WritersOnSeveralThreadsKeepMessagesWhole) {
  KnTraceLogBuffer log;
  ASSERT_TRUE(log.Create(1024 * 1024));  // no wrap: everything stays readable
  const int kThreads = 4, kMessages = 200;
  struct Writer {
    KnTraceLogBuffer* log;
    int id;
  } writers[kThreads];
  KnSystemThread threads[kThreads];
  for (int t = 0; t < kThreads; t++) {
    writers[t] = {&log, t};
    ASSERT_EQ(STATUS_SUCCESS, threads[t].CreateSystemThread(
                                  [](PVOID context) {
                                    Writer* w = (Writer*)context;
                                    for (int i = 0; i < kMessages; i++) {
                                      char text[64];
                                      snprintf(text, sizeof(text), "<%d:%d>\n", w->id, i);
                                      w->log->WriteMessage(text, "[");
                                    }
                                  },
                                  &writers[t]));
  }
  for (KnSystemThread& thread : threads) ASSERT_EQ(thread.WaitForThreadToTerminate(-1), STATUS_SUCCESS);

  std::string ring = Bytes(log, kDataStart, Head(log)->WriteOffset - kDataStart);
  EXPECT_EQ(Bytes(log, Head(log)->WriteOffset, 17), kEndMarker);
  std::map<int, int> next;  // per writer, the next message number expected
  size_t position = 0;
  int count = 0;
  while (position < ring.size()) {
    int id = -1, number = -1, consumed = 0;
    ASSERT_EQ(sscanf(ring.c_str() + position, "[<%d:%d>\n%n", &id, &number, &consumed), 2)
        << "torn message at " << position << ": " << ring.substr(position, 20);
    ASSERT_GT(consumed, 0);
    EXPECT_EQ(number, next[id]) << "writer " << id;
    next[id] = number + 1;
    position += consumed;
    count++;
  }
  EXPECT_EQ(count, kThreads * kMessages);
}

}  // namespace
