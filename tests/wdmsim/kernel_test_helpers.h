// Small helpers shared by the kernel tests.
#pragma once
#include <wdm.h>

#include <atomic>
#include <mutex>
#include <vector>

namespace kernel_test {

inline LARGE_INTEGER RelativeMs(int64_t ms) {
  LARGE_INTEGER due;
  due.QuadPart = -ms * 10000;
  return due;
}

inline LARGE_INTEGER Units(int64_t hundredNanoseconds) {
  LARGE_INTEGER due;
  due.QuadPart = hundredNanoseconds;
  return due;
}

inline int64_t Now() { return static_cast<int64_t>(KeQueryInterruptTime()); }

// A record of events written by kernel threads and read by the test thread.
template <typename T>
class Log {
 public:
  void Add(const T& value) {
    std::lock_guard<std::mutex> guard(mLock);
    mEntries.push_back(value);
  }
  std::vector<T> Entries() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mEntries;
  }

 private:
  mutable std::mutex mLock;
  std::vector<T> mEntries;
};

// Creates a system thread running fn(context) and returns its referenced thread object.
inline PVOID StartSystemThread(PKSTART_ROUTINE routine, PVOID context) {
  HANDLE handle = nullptr;
  if (!NT_SUCCESS(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context))) {
    return nullptr;
  }
  PVOID thread = nullptr;
  ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, *PsThreadType, KernelMode, &thread, nullptr);
  ZwClose(handle);
  return thread;
}

// Waits for a thread from StartSystemThread to end and drops the reference.
inline NTSTATUS JoinSystemThread(PVOID thread) {
  NTSTATUS status = KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
  ObDereferenceObject(thread);
  return status;
}

}  // namespace kernel_test
