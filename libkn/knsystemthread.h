// KnSystemThread: one kernel system thread running one start routine, held by a
// reference on its thread object so that its owner can wait for it to end.
#pragma once
#include <ntddk.h>

class KnSystemThread {
 public:
  KnSystemThread();
  // The owner must have waited for the thread: the object must be empty by now.
  ~KnSystemThread();

  // Starts startRoutine(context) in a new system thread. Fails with
  // STATUS_UNSUCCESSFUL while a thread is held. PASSIVE_LEVEL only.
  NTSTATUS CreateSystemThread(PKSTART_ROUTINE StartRoutine, PVOID Context, ACCESS_MASK desiredAccess = THREAD_ALL_ACCESS,
                              HANDLE processHandle = NULL);

  // Waits for the thread to end and lets it go. A negative time-out waits without
  // limit; on STATUS_TIMEOUT (or any other failure) the thread stays held, so a
  // later wait still works. STATUS_SUCCESS at once when no thread is held.
  // PASSIVE_LEVEL only.
  NTSTATUS WaitForThreadToTerminate(LONG timeoutMs);

  // Sets the priority of the calling thread (meant to be called by the start
  // routine itself). PASSIVE_LEVEL only.
  void SetPriority(KPRIORITY priority);

 private:
  KnSystemThread(const KnSystemThread&);
  KnSystemThread& operator=(const KnSystemThread&);

  static KSTART_ROUTINE ThreadStartRoutine;

  PVOID mThreadObject;  // referenced thread object, NULL while no thread is held
  PKSTART_ROUTINE mThreadStartRoutine;
  PVOID mThreadContext;
};
