// Messages in the trace log ring: placement, the end marker behind the newest message,
// wrapping at the data end, and writers on several threads.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <ntddk.h>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>

#include "knsystemthread.h"
#include "kntrace.h"
#include "kntracelogbuffer.h"

namespace {

const std::string kEndMarker = "################\n";
const ULONG kDataStart = 256;
const ULONG kBlock = 4096;
const ULONG kRing = kBlock - kDataStart;  // 3840 bytes

class TraceLogRingTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    ASSERT_TRUE(mLog.Create(kBlock));
  }

  ULONG WriteOffset() const { return Head()->WriteOffset; }
  ULONG EndOffset() const { return Head()->EndOffset; }
  const KnTraceLogControlBlock* Head() const { return (const KnTraceLogControlBlock*)mLog.GetMemory(); }
  std::string Bytes(ULONG offset, ULONG count) const {
    return std::string((const char*)mLog.GetMemory() + offset, count);
  }

  wdmsim::Kernel mKernel;
  KnTraceLogBuffer mLog;
};

TEST_F(TraceLogRingTest, MessageThenEndMarkerAndTheNextMessageOverwritesIt) {
  mLog.WriteMessage("hello\n", "   12345  ");
  EXPECT_EQ(Bytes(256, 16 + 17), "   12345  hello\n" + kEndMarker);
  EXPECT_EQ(WriteOffset(), 256u + 16);
  EXPECT_EQ(EndOffset(), 256u + 16 + 17);

  // The second message starts where the first one's end marker began.
  mLog.WriteMessage("second\n", NULL);
  EXPECT_EQ(Bytes(256, 16 + 7 + 17), "   12345  hello\nsecond\n" + kEndMarker);
  EXPECT_EQ(WriteOffset(), 256u + 23);
  EXPECT_EQ(EndOffset(), 256u + 23 + 17);
  EXPECT_EQ(Bytes(256 + 40, 1), std::string(1, '\0')) << "nothing written past the end marker";

  // Empty and missing messages are ignored, prefix or not.
  mLog.WriteMessage("", "stamp  ");
  mLog.WriteMessage(NULL, "stamp  ");
  EXPECT_EQ(WriteOffset(), 256u + 23);
  EXPECT_EQ(EndOffset(), 256u + 23 + 17);
  EXPECT_EQ(Bytes(256 + 23, 17), kEndMarker);
}

TEST_F(TraceLogRingTest, MessageThatReachesTheDataEndContinuesAtTheDataStart) {
  // Leave 10 bytes before the data end.
  std::string filler(kRing - 10, 'f');
  mLog.WriteMessage(filler.c_str(), NULL);
  ASSERT_EQ(WriteOffset(), kBlock - 10);
  // The end marker itself wraps: 10 bytes at the end, 7 at the data start.
  EXPECT_EQ(Bytes(kBlock - 10, 10), kEndMarker.substr(0, 10));
  EXPECT_EQ(Bytes(kDataStart, 7), kEndMarker.substr(10));
  EXPECT_EQ(Bytes(kDataStart + 7, 1), "f");
  EXPECT_EQ(EndOffset(), kDataStart + 7);

  // The next message is split at the data end without any other mark.
  mLog.WriteMessage("0123456789ABCDEFGHIJ", NULL);
  EXPECT_EQ(Bytes(kBlock - 10, 10), "0123456789");
  EXPECT_EQ(Bytes(kDataStart, 10 + 17), "ABCDEFGHIJ" + kEndMarker);
  EXPECT_EQ(WriteOffset(), kDataStart + 10);
  EXPECT_EQ(EndOffset(), kDataStart + 27);
  EXPECT_EQ(Bytes(kDataStart + 27, 1), "f") << "the oldest text follows the end marker";
}

TEST_F(TraceLogRingTest, MessagesEndingExactlyAtAndJustBeforeTheDataEnd) {
  // One byte short of the end: the write offset stays in the last byte.
  std::string shortOfEnd(kRing - 1, 'a');
  mLog.WriteMessage(shortOfEnd.c_str(), NULL);
  EXPECT_EQ(WriteOffset(), kBlock - 1);
  EXPECT_EQ(Bytes(kBlock - 1, 1), "#");
  EXPECT_EQ(EndOffset(), kDataStart + 16);

  // Filling the ring exactly: the write offset wraps to the data start at once.
  KnTraceLogBuffer exact;
  ASSERT_TRUE(exact.Create(kBlock));
  std::string whole(kRing, 'b');
  exact.WriteMessage(whole.c_str(), NULL);
  const KnTraceLogControlBlock* head = (const KnTraceLogControlBlock*)exact.GetMemory();
  EXPECT_EQ(head->WriteOffset, kDataStart);
  EXPECT_EQ(head->EndOffset, kDataStart + 17);
  EXPECT_EQ(std::string((const char*)exact.GetMemory() + kDataStart, 17), kEndMarker);
  EXPECT_EQ(std::string((const char*)exact.GetMemory() + kDataStart + 17, 1), "b");

  // A message longer than the ring overwrites its own beginning and still ends in place.
  KnTraceLogBuffer longer;
  ASSERT_TRUE(longer.Create(kBlock));
  std::string text;
  for (ULONG i = 0; i < kRing + 100; i++) text += (char)('a' + i % 26);
  longer.WriteMessage(text.c_str(), NULL);
  head = (const KnTraceLogControlBlock*)longer.GetMemory();
  EXPECT_EQ(head->WriteOffset, kDataStart + 100);
  EXPECT_EQ(std::string((const char*)longer.GetMemory() + kDataStart, 100), text.substr(kRing, 100));
  EXPECT_EQ(std::string((const char*)longer.GetMemory() + kDataStart + 100, 17), kEndMarker);
}

TEST_F(TraceLogRingTest, PrefixAndMessageWrapTogether) {
  std::string filler(kRing - 4, 'f');
  mLog.WriteMessage(filler.c_str(), NULL);
  mLog.WriteMessage("message\n", "12345678  ");
  EXPECT_EQ(Bytes(kBlock - 4, 4), "1234");
  EXPECT_EQ(Bytes(kDataStart, 6 + 8 + 17), "5678  message\n" + kEndMarker);
  EXPECT_EQ(WriteOffset(), kDataStart + 14);
}

// Several threads write at once: each message (prefix, text, end marker) stays whole, and
// none is lost or written twice.
TEST_F(TraceLogRingTest, WritersOnSeveralThreadsKeepMessagesWhole) {
  KnTraceLogBuffer log;
  ASSERT_TRUE(log.Create(1024 * 1024));  // no wrap: everything stays readable
  const int kThreads = 4;
  const int kMessages = 200;
  struct Writer {
    KnTraceLogBuffer* log;
    int id;
  };
  std::vector<Writer> writers;
  for (int t = 0; t < kThreads; t++) writers.push_back({&log, t});
  KnSystemThread threads[kThreads];
  for (int t = 0; t < kThreads; t++) {
    NTSTATUS status = threads[t].CreateSystemThread(
        [](PVOID context) {
          Writer* w = (Writer*)context;
          for (int i = 0; i < kMessages; i++) {
            char text[64];
            snprintf(text, sizeof(text), "<%d:%d>\n", w->id, i);
            w->log->WriteMessage(text, "[");
          }
        },
        &writers[t]);
    ASSERT_EQ(status, STATUS_SUCCESS);
  }
  for (KnSystemThread& thread : threads) {
    ASSERT_EQ(thread.WaitForThreadToTerminate(-1), STATUS_SUCCESS);
  }

  const KnTraceLogControlBlock* head = (const KnTraceLogControlBlock*)log.GetMemory();
  std::string ring((const char*)log.GetMemory() + kDataStart, head->WriteOffset - kDataStart);
  EXPECT_EQ(std::string((const char*)log.GetMemory() + head->WriteOffset, 17), kEndMarker);
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
