/*
 * wdm.h - wdmsim's host edition of the WDM kernel header.
 *
 * Same file name, type names, layouts (Win64) and function names as the DDK's
 * wdm.h, so that driver source compiles unchanged for Windows and for the host.
 * The whole host build uses -fshort-wchar: WCHAR is 16 bits, as on Windows.
 * Functions are implemented by wdmsim (kernel/, io/, registry/, rtl/ ...).
 */
#ifndef WDMSIM_WDM_H
#define WDMSIM_WDM_H

/* Pull in the C library's wide-character declarations first, so that the
 * kernel's own CRT names below can be redirected without clashing with them. */
#include <stddef.h>
#include <stdarg.h>
#include <stdint.h>
#include <string.h>
#include <wchar.h>

#ifdef __cplusplus
#define WDMSIM_EXTERN_C extern "C"
#define WDMSIM_BEGIN_C extern "C" {
#define WDMSIM_END_C }
#else
#define WDMSIM_EXTERN_C
#define WDMSIM_BEGIN_C
#define WDMSIM_END_C
#endif

#define _WIN64 1
#define _AMD64_ 1
#ifndef DBG
#define DBG 1
#endif

#define NTAPI
#define NTKERNELAPI
#define NTHALAPI
#define NTSYSAPI
#define DECLSPEC_IMPORT
#define FASTCALL
#define __cdecl
#define __stdcall
#define FORCEINLINE static inline
#define IN
#define OUT
#define OPTIONAL
#define CONST const
#define VOID void
#define UNREFERENCED_PARAMETER(P) ((void)(P))
/* Win64: parameter members so marked start on 8-byte boundaries (IO_STACK_LOCATION). */
#define POINTER_ALIGNMENT __attribute__((aligned(8)))
#define ANYSIZE_ARRAY 1
#ifndef FALSE
#define FALSE 0
#define TRUE 1
#endif
#ifndef NULL
#define NULL 0
#endif

/* ---------------------------------------------------------------- basic types */
typedef void *PVOID;
typedef char CHAR, CCHAR, *PCHAR, *PSZ, *PSTR;
typedef const char *PCSTR, *PCSZ;
typedef unsigned char UCHAR, *PUCHAR, BOOLEAN, *PBOOLEAN, KIRQL, *PKIRQL, KPROCESSOR_MODE;
typedef int16_t SHORT, CSHORT, *PSHORT;
typedef uint16_t USHORT, *PUSHORT;
typedef int32_t LONG, *PLONG, INT;
typedef uint32_t ULONG, *PULONG, UINT, DWORD, LCID;
typedef int64_t LONGLONG, *PLONGLONG, LONG64;
typedef uint64_t ULONGLONG, *PULONGLONG, ULONG64, DWORD64;
typedef int64_t LONG_PTR, INT_PTR;
typedef uint64_t ULONG_PTR, *PULONG_PTR, UINT_PTR, SIZE_T, *PSIZE_T, KAFFINITY;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR, *PWCH;
typedef const wchar_t *PCWSTR, *PCWCH;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef void *HANDLE, **PHANDLE;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef LONG KPRIORITY;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;
typedef PVOID PSECURITY_DESCRIPTOR;
typedef ULONG SECURITY_INFORMATION;
typedef PVOID PSID;

typedef union _LARGE_INTEGER {
  struct { ULONG LowPart; LONG HighPart; };
  struct { ULONG LowPart; LONG HighPart; } u;
  LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER, PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;

typedef union _ULARGE_INTEGER {
  struct { ULONG LowPart; ULONG HighPart; };
  struct { ULONG LowPart; ULONG HighPart; } u;
  ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _GUID {
  ULONG Data1;
  USHORT Data2;
  USHORT Data3;
  UCHAR Data4[8];
} GUID, *PGUID, *LPGUID;
typedef const GUID *LPCGUID;
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  static const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#ifdef __cplusplus
FORCEINLINE bool IsEqualGUID(const GUID &a, const GUID &b) { return memcmp(&a, &b, sizeof(GUID)) == 0; }
#endif

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field) \
  ((type *)((PCHAR)(address) - (ULONG_PTR)(&((type *)0)->field)))
#define ARGUMENT_PRESENT(p) ((p) != NULL)
#define RTL_NUMBER_OF(a) (sizeof(a) / sizeof((a)[0]))
#define ARRAYSIZE(a) RTL_NUMBER_OF(a)

#include <ntstatus.h>

/* ---------------------------------------------------------------- lists */
typedef struct _LIST_ENTRY {
  struct _LIST_ENTRY *Flink;
  struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
  struct _SINGLE_LIST_ENTRY *Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

FORCEINLINE void InitializeListHead(PLIST_ENTRY h) { h->Flink = h->Blink = h; }
FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY *h) { return h->Flink == h; }
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY e) {
  PLIST_ENTRY f = e->Flink, b = e->Blink;
  b->Flink = f; f->Blink = b;
  return f == b;
}
FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY h) {
  PLIST_ENTRY e = h->Flink; RemoveEntryList(e); return e;
}
FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY h) {
  PLIST_ENTRY e = h->Blink; RemoveEntryList(e); return e;
}
FORCEINLINE void InsertTailList(PLIST_ENTRY h, PLIST_ENTRY e) {
  PLIST_ENTRY b = h->Blink; e->Flink = h; e->Blink = b; b->Flink = e; h->Blink = e;
}
FORCEINLINE void InsertHeadList(PLIST_ENTRY h, PLIST_ENTRY e) {
  PLIST_ENTRY f = h->Flink; e->Flink = f; e->Blink = h; f->Blink = e; h->Flink = e;
}

/* ---------------------------------------------------------------- strings */
typedef struct _UNICODE_STRING {
  USHORT Length;        /* bytes, without terminator */
  USHORT MaximumLength; /* bytes */
  PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;

typedef struct _STRING {
  USHORT Length;
  USHORT MaximumLength;
  PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING;

/* ---------------------------------------------------------------- IRQL */
#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

#define KernelMode 0
#define UserMode 1

/* Thread priorities */
#define LOW_PRIORITY 0
#define LOW_REALTIME_PRIORITY 16
#define HIGH_PRIORITY 31
#define MAXIMUM_PRIORITY 32

/* Pseudo handles of the calling process and thread */
#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define NtCurrentThread() ((HANDLE)(LONG_PTR)-2)

/* DbgPrintEx component ids and levels */
#define DPFLTR_IHVDRIVER_ID 77
#define DPFLTR_IHVBUS_ID 80
#define DPFLTR_DEFAULT_ID 101
#define DPFLTR_ERROR_LEVEL 0
#define DPFLTR_WARNING_LEVEL 1
#define DPFLTR_TRACE_LEVEL 2
#define DPFLTR_INFO_LEVEL 3

/* ---------------------------------------------------------------- dispatcher objects */
typedef struct _DISPATCHER_HEADER {
  UCHAR Type;
  UCHAR Absolute;
  UCHAR Size;
  UCHAR Inserted;
  LONG SignalState;
  LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;
typedef enum _KWAIT_REASON {
  Executive, FreePage, PageIn, PoolAllocation, DelayExecution, Suspended, UserRequest,
  WrExecutive, WrFreePage, WrPageIn, WrPoolAllocation, WrDelayExecution, WrSuspended,
  WrUserRequest, WrEventPair, WrQueue, WrLpcReceive, WrLpcReply, WrVirtualMemory,
  WrPageOut, WrRendezvous, MaximumWaitReason = 37
} KWAIT_REASON;

typedef struct _KEVENT { DISPATCHER_HEADER Header; } KEVENT, *PKEVENT, *PRKEVENT;

struct _KTHREAD;
typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
struct _ETHREAD;
typedef struct _ETHREAD *PETHREAD;
struct _EPROCESS;
typedef struct _EPROCESS *PEPROCESS;

typedef struct _KMUTANT {
  DISPATCHER_HEADER Header;
  LIST_ENTRY MutantListEntry;
  struct _KTHREAD *OwnerThread;
  BOOLEAN Abandoned;
  UCHAR ApcDisable;
} KMUTANT, *PKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

typedef struct _KSEMAPHORE {
  DISPATCHER_HEADER Header;
  LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

struct _KDPC;
typedef void (NTAPI KDEFERRED_ROUTINE)(struct _KDPC *Dpc, PVOID DeferredContext,
                                       PVOID SystemArgument1, PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE *PKDEFERRED_ROUTINE;

typedef struct _KDPC {
  UCHAR Type;
  UCHAR Importance;
  volatile USHORT Number;
  SINGLE_LIST_ENTRY DpcListEntry;
  KAFFINITY ProcessorHistory;
  PKDEFERRED_ROUTINE DeferredRoutine;
  PVOID DeferredContext;
  PVOID SystemArgument1;
  PVOID SystemArgument2;
  volatile PVOID DpcData;
} KDPC, *PKDPC, *PRKDPC;

typedef struct _KTIMER {
  DISPATCHER_HEADER Header;
  ULARGE_INTEGER DueTime;
  LIST_ENTRY TimerListEntry;
  struct _KDPC *Dpc;
  ULONG Processor;
  ULONG Period;
} KTIMER, *PKTIMER, *PRKTIMER;

typedef struct _KDEVICE_QUEUE_ENTRY {
  LIST_ENTRY DeviceListEntry;
  ULONG SortKey;
  BOOLEAN Inserted;
} KDEVICE_QUEUE_ENTRY, *PKDEVICE_QUEUE_ENTRY;

typedef struct _KDEVICE_QUEUE {
  CSHORT Type;
  CSHORT Size;
  LIST_ENTRY DeviceListHead;
  KSPIN_LOCK Lock;
  union {
    BOOLEAN Busy;
    struct { LONG64 Reserved : 8; LONG64 Hint : 56; };
  };
} KDEVICE_QUEUE, *PKDEVICE_QUEUE;

typedef struct _KAPC {
  UCHAR Type;
  UCHAR SpareByte0;
  UCHAR Size;
  UCHAR SpareByte1;
  ULONG SpareLong0;
  struct _KTHREAD *Thread;
  LIST_ENTRY ApcListEntry;
  PVOID Reserved[3];
  PVOID NormalContext;
  PVOID SystemArgument1;
  PVOID SystemArgument2;
  CCHAR ApcStateIndex;
  KPROCESSOR_MODE ApcMode;
  BOOLEAN Inserted;
} KAPC, *PKAPC;

typedef struct _KWAIT_BLOCK {
  LIST_ENTRY WaitListEntry;
  UCHAR WaitType;
  volatile UCHAR BlockState;
  USHORT WaitKey;
  LONG SpareLong;
  PVOID Thread;
  PVOID Object;
  PVOID SparePtr;
} KWAIT_BLOCK, *PKWAIT_BLOCK;

#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64

typedef enum _POOL_TYPE {
  NonPagedPool = 0,
  PagedPool = 1,
  NonPagedPoolMustSucceed = 2,
  DontUseThisType = 3,
  NonPagedPoolCacheAligned = 4,
  PagedPoolCacheAligned = 5,
  NonPagedPoolNx = 512
} POOL_TYPE;

typedef enum _WORK_QUEUE_TYPE {
  CriticalWorkQueue = 0,
  DelayedWorkQueue = 1,
  HyperCriticalWorkQueue = 2
} WORK_QUEUE_TYPE;

/* ---------------------------------------------------------------- kernel services */
WDMSIM_BEGIN_C
/* IRQL */
NTHALAPI KIRQL KeGetCurrentIrql(void);
NTHALAPI void KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
NTHALAPI void KeLowerIrql(KIRQL NewIrql);
NTKERNELAPI KIRQL KeRaiseIrqlToDpcLevel(void);

/* Spin locks */
FORCEINLINE void KeInitializeSpinLock(PKSPIN_LOCK SpinLock) { *SpinLock = 0; }
NTKERNELAPI KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
NTKERNELAPI void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
NTKERNELAPI void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))

/* Events, mutexes, semaphores, waits */
NTKERNELAPI void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
NTKERNELAPI LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI void KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG KeResetEvent(PRKEVENT Event);
NTKERNELAPI LONG KeReadStateEvent(PRKEVENT Event);
NTKERNELAPI void KeInitializeMutex(PRKMUTEX Mutex, ULONG Level);
NTKERNELAPI LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
NTKERNELAPI LONG KeReadStateMutex(PRKMUTEX Mutex);
NTKERNELAPI void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit);
NTKERNELAPI LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait);
NTKERNELAPI NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                           KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                           PLARGE_INTEGER Timeout);
NTKERNELAPI NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                              KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                              BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                              PKWAIT_BLOCK WaitBlockArray);
#define KeWaitForMutexObject KeWaitForSingleObject
NTKERNELAPI NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                            PLARGE_INTEGER Interval);

/* Timers and DPCs */
NTKERNELAPI void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
NTKERNELAPI BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
NTKERNELAPI BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc);
NTKERNELAPI void KeFlushQueuedDpcs(void);
NTKERNELAPI void KeInitializeTimer(PKTIMER Timer);
NTKERNELAPI void KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
NTKERNELAPI BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
NTKERNELAPI BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
NTKERNELAPI BOOLEAN KeCancelTimer(PKTIMER Timer);
NTKERNELAPI BOOLEAN KeReadStateTimer(PKTIMER Timer);

/* Time */
NTKERNELAPI void KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
NTKERNELAPI void KeQueryTickCount(PLARGE_INTEGER TickCount);
NTKERNELAPI ULONG KeQueryTimeIncrement(void);
NTHALAPI LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);
NTKERNELAPI ULONGLONG KeQueryInterruptTime(void);

/* Threads */
NTKERNELAPI PKTHREAD KeGetCurrentThread(void);
NTKERNELAPI KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
NTKERNELAPI KPRIORITY KeQueryPriorityThread(PKTHREAD Thread);
NTKERNELAPI HANDLE PsGetCurrentThreadId(void);
NTKERNELAPI PETHREAD PsGetCurrentThread(void);
NTKERNELAPI HANDLE PsGetCurrentProcessId(void);
NTKERNELAPI void KeEnterCriticalRegion(void);
NTKERNELAPI void KeLeaveCriticalRegion(void);
NTKERNELAPI ULONG KeGetCurrentProcessorNumber(void);
WDMSIM_END_C

typedef void (NTAPI KSTART_ROUTINE)(PVOID StartContext);
typedef KSTART_ROUTINE *PKSTART_ROUTINE;

typedef struct _CLIENT_ID {
  HANDLE UniqueProcess;
  HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef struct _OBJECT_ATTRIBUTES {
  ULONG Length;
  HANDLE RootDirectory;
  PUNICODE_STRING ObjectName;
  ULONG Attributes;
  PVOID SecurityDescriptor;
  PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L

#define InitializeObjectAttributes(p, n, a, r, s) \
  do {                                            \
    (p)->Length = sizeof(OBJECT_ATTRIBUTES);      \
    (p)->RootDirectory = (r);                     \
    (p)->Attributes = (a);                        \
    (p)->ObjectName = (n);                        \
    (p)->SecurityDescriptor = (s);                \
    (p)->SecurityQualityOfService = NULL;         \
  } while (0)

typedef struct _OBJECT_TYPE *POBJECT_TYPE;
typedef struct _OBJECT_HANDLE_INFORMATION {
  ULONG HandleAttributes;
  ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

/* Access rights */
#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define WRITE_DAC 0x00040000L
#define WRITE_OWNER 0x00080000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define GENERIC_READ 0x80000000L
#define GENERIC_WRITE 0x40000000L
#define GENERIC_EXECUTE 0x20000000L
#define GENERIC_ALL 0x10000000L
#define MAXIMUM_ALLOWED 0x02000000L
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)

WDMSIM_BEGIN_C
NTKERNELAPI NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                          POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                          PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                          PVOID StartContext);
NTKERNELAPI NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus);
NTKERNELAPI NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                               POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                               PVOID *Object, POBJECT_HANDLE_INFORMATION HandleInformation);
NTKERNELAPI LONG_PTR FASTCALL ObfReferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(o) ObfReferenceObject(o)
#define ObDereferenceObject(o) ObfDereferenceObject(o)
NTSYSAPI NTSTATUS NTAPI ZwClose(HANDLE Handle);
WDMSIM_END_C
extern POBJECT_TYPE *PsThreadType;

/* ---------------------------------------------------------------- interlocked */
FORCEINLINE LONG InterlockedIncrement(volatile LONG *p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedDecrement(volatile LONG *p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedExchange(volatile LONG *p, LONG v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedExchangeAdd(volatile LONG *p, LONG v) { return __atomic_fetch_add(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedCompareExchange(volatile LONG *p, LONG v, LONG cmp) {
  __atomic_compare_exchange_n(p, &cmp, v, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return cmp;
}
FORCEINLINE LONG InterlockedOr(volatile LONG *p, LONG v) { return __atomic_fetch_or(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedAnd(volatile LONG *p, LONG v) { return __atomic_fetch_and(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile *p, PVOID v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile *p, PVOID v, PVOID cmp) {
  __atomic_compare_exchange_n(p, &cmp, v, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return cmp;
}

/* ---------------------------------------------------------------- memory */
WDMSIM_BEGIN_C
NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
NTKERNELAPI void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);
NTKERNELAPI void NTAPI ExFreePool(PVOID P);
NTKERNELAPI PVOID MmAllocateContiguousMemory(SIZE_T NumberOfBytes, PHYSICAL_ADDRESS HighestAcceptableAddress);
NTKERNELAPI void MmFreeContiguousMemory(PVOID BaseAddress);
NTKERNELAPI PHYSICAL_ADDRESS MmGetPhysicalAddress(PVOID BaseAddress);
WDMSIM_END_C

#define RtlCopyMemory(d, s, n) memcpy((d), (s), (n))
#define RtlMoveMemory(d, s, n) memmove((d), (s), (n))
#define RtlFillMemory(d, n, f) memset((d), (f), (n))
#define RtlZeroMemory(d, n) memset((d), 0, (n))
#define RtlEqualMemory(a, b, n) (!memcmp((a), (b), (n)))
WDMSIM_BEGIN_C
NTSYSAPI SIZE_T NTAPI RtlCompareMemory(const void *Source1, const void *Source2, SIZE_T Length);
WDMSIM_END_C

/* ---------------------------------------------------------------- runtime library */
WDMSIM_BEGIN_C
NTSYSAPI void NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI void NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
NTSYSAPI void NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
NTSYSAPI void NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
NTSYSAPI LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive);
NTSYSAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PANSI_STRING SourceString, BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString, BOOLEAN AllocateDestinationString);
NTSYSAPI void NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString);
NTSYSAPI NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);
NTSYSAPI WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
NTSYSAPI void NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message);
NTSYSAPI ULONG __cdecl DbgPrint(PCSTR Format, ...);
NTSYSAPI ULONG __cdecl DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...);
NTSYSAPI void NTAPI DbgBreakPoint(void);
WDMSIM_END_C

#if DBG
#define ASSERT(exp) ((!(exp)) ? (RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, NULL), FALSE) : TRUE)
#define ASSERTMSG(msg, exp) ((!(exp)) ? (RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, (PSTR)(msg)), FALSE) : TRUE)
#else
#define ASSERT(exp) ((void)0)
#define ASSERTMSG(msg, exp) ((void)0)
#endif

/* The kernel exports its own small C runtime with 16-bit wide characters; the
 * host's wide functions use 32-bit wchar_t, so the driver's calls go to
 * wdmsim's kernel-semantics versions instead. */
WDMSIM_BEGIN_C
int wdmsim_swprintf(wchar_t *Buffer, const wchar_t *Format, ...);
int wdmsim_vswprintf(wchar_t *Buffer, const wchar_t *Format, va_list Args);
int wdmsim__snwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, ...);
int wdmsim__vsnwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, va_list Args);
size_t wdmsim_wcslen(const wchar_t *String);
wchar_t *wdmsim_wcscpy(wchar_t *Destination, const wchar_t *Source);
wchar_t *wdmsim_wcscat(wchar_t *Destination, const wchar_t *Source);
int wdmsim_wcscmp(const wchar_t *A, const wchar_t *B);
int wdmsim__wcsicmp(const wchar_t *A, const wchar_t *B);
wchar_t *wdmsim_wcsncpy(wchar_t *Destination, const wchar_t *Source, size_t Count);
wchar_t *wdmsim_wcschr(const wchar_t *String, wchar_t Character);
wchar_t *wdmsim_wcsrchr(const wchar_t *String, wchar_t Character);
WDMSIM_END_C
#define swprintf wdmsim_swprintf
#define vswprintf wdmsim_vswprintf
#define _snwprintf wdmsim__snwprintf
#define _vsnwprintf wdmsim__vsnwprintf
#define wcslen wdmsim_wcslen
#define wcscpy wdmsim_wcscpy
#define wcscat wdmsim_wcscat
#define wcscmp wdmsim_wcscmp
#define _wcsicmp wdmsim__wcsicmp
#define wcsncpy wdmsim_wcsncpy
#define wcschr wdmsim_wcschr
#define wcsrchr wdmsim_wcsrchr

/* ---------------------------------------------------------------- I/O manager types */
struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;
struct _IRP;
struct _FILE_OBJECT;
struct _MDL;

typedef struct _IO_STATUS_BLOCK {
  union {
    NTSTATUS Status;
    PVOID Pointer;
  };
  ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef void (NTAPI IO_APC_ROUTINE)(PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG Reserved);
typedef IO_APC_ROUTINE *PIO_APC_ROUTINE;

typedef ULONG DEVICE_TYPE;

typedef void (NTAPI DRIVER_CANCEL)(struct _DEVICE_OBJECT *DeviceObject, struct _IRP *Irp);
typedef DRIVER_CANCEL *PDRIVER_CANCEL;
typedef NTSTATUS (NTAPI DRIVER_DISPATCH)(struct _DEVICE_OBJECT *DeviceObject, struct _IRP *Irp);
typedef DRIVER_DISPATCH *PDRIVER_DISPATCH;
typedef NTSTATUS (NTAPI DRIVER_ADD_DEVICE)(struct _DRIVER_OBJECT *DriverObject, struct _DEVICE_OBJECT *PhysicalDeviceObject);
typedef DRIVER_ADD_DEVICE *PDRIVER_ADD_DEVICE;
typedef void (NTAPI DRIVER_UNLOAD)(struct _DRIVER_OBJECT *DriverObject);
typedef DRIVER_UNLOAD *PDRIVER_UNLOAD;
typedef NTSTATUS (NTAPI DRIVER_INITIALIZE)(struct _DRIVER_OBJECT *DriverObject, PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE *PDRIVER_INITIALIZE;
typedef void (NTAPI DRIVER_STARTIO)(struct _DEVICE_OBJECT *DeviceObject, struct _IRP *Irp);
typedef DRIVER_STARTIO *PDRIVER_STARTIO;
typedef NTSTATUS (NTAPI IO_COMPLETION_ROUTINE)(struct _DEVICE_OBJECT *DeviceObject, struct _IRP *Irp, PVOID Context);
typedef IO_COMPLETION_ROUTINE *PIO_COMPLETION_ROUTINE;
typedef void (NTAPI IO_WORKITEM_ROUTINE)(struct _DEVICE_OBJECT *DeviceObject, PVOID Context);
typedef IO_WORKITEM_ROUTINE *PIO_WORKITEM_ROUTINE;
typedef struct _IO_WORKITEM *PIO_WORKITEM;

typedef struct _WAIT_CONTEXT_BLOCK {
  union {
    KDEVICE_QUEUE_ENTRY WaitQueueEntry;
    struct {
      LIST_ENTRY DmaWaitEntry;
      ULONG NumberOfChannels;
      ULONG SyncCallback : 1;
      ULONG DmaContext : 1;
      ULONG ZeroMapRegisters : 1;
      ULONG Reserved : 9;
      ULONG NumberOfRemapPages : 20;
    };
  };
  PVOID DeviceRoutine;
  PVOID DeviceContext;
  ULONG NumberOfMapRegisters;
  PVOID DeviceObject;
  PVOID CurrentIrp;
  PKDPC BufferChainingDpc;
} WAIT_CONTEXT_BLOCK, *PWAIT_CONTEXT_BLOCK;

typedef struct _DEVICE_OBJECT {
  CSHORT Type;
  USHORT Size;
  LONG ReferenceCount;
  struct _DRIVER_OBJECT *DriverObject;
  struct _DEVICE_OBJECT *NextDevice;
  struct _DEVICE_OBJECT *AttachedDevice;
  struct _IRP *CurrentIrp;
  PVOID Timer;
  ULONG Flags;
  ULONG Characteristics;
  volatile PVOID Vpb;
  PVOID DeviceExtension;
  DEVICE_TYPE DeviceType;
  CCHAR StackSize;
  union {
    LIST_ENTRY ListEntry;
    WAIT_CONTEXT_BLOCK Wcb;
  } Queue;
  ULONG AlignmentRequirement;
  KDEVICE_QUEUE DeviceQueue;
  KDPC Dpc;
  ULONG ActiveThreadCount;
  PSECURITY_DESCRIPTOR SecurityDescriptor;
  KEVENT DeviceLock;
  USHORT SectorSize;
  USHORT Spare1;
  struct _DEVOBJ_EXTENSION *DeviceObjectExtension;
  PVOID Reserved;
} DEVICE_OBJECT, *PDEVICE_OBJECT;

typedef struct _DRIVER_EXTENSION {
  struct _DRIVER_OBJECT *DriverObject;
  PDRIVER_ADD_DEVICE AddDevice;
  ULONG Count;
  UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CREATE_NAMED_PIPE 0x01
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_QUERY_INFORMATION 0x05
#define IRP_MJ_SET_INFORMATION 0x06
#define IRP_MJ_QUERY_EA 0x07
#define IRP_MJ_SET_EA 0x08
#define IRP_MJ_FLUSH_BUFFERS 0x09
#define IRP_MJ_QUERY_VOLUME_INFORMATION 0x0a
#define IRP_MJ_SET_VOLUME_INFORMATION 0x0b
#define IRP_MJ_DIRECTORY_CONTROL 0x0c
#define IRP_MJ_FILE_SYSTEM_CONTROL 0x0d
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_SHUTDOWN 0x10
#define IRP_MJ_LOCK_CONTROL 0x11
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_CREATE_MAILSLOT 0x13
#define IRP_MJ_QUERY_SECURITY 0x14
#define IRP_MJ_SET_SECURITY 0x15
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_DEVICE_CHANGE 0x18
#define IRP_MJ_QUERY_QUOTA 0x19
#define IRP_MJ_SET_QUOTA 0x1a
#define IRP_MJ_PNP 0x1b
#define IRP_MJ_PNP_POWER IRP_MJ_PNP
#define IRP_MJ_MAXIMUM_FUNCTION 0x1b

typedef struct _DRIVER_OBJECT {
  CSHORT Type;
  CSHORT Size;
  PDEVICE_OBJECT DeviceObject;
  ULONG Flags;
  PVOID DriverStart;
  ULONG DriverSize;
  PVOID DriverSection;
  PDRIVER_EXTENSION DriverExtension;
  UNICODE_STRING DriverName;
  PUNICODE_STRING HardwareDatabase;
  PVOID FastIoDispatch;
  PDRIVER_INITIALIZE DriverInit;
  PDRIVER_STARTIO DriverStartIo;
  PDRIVER_UNLOAD DriverUnload;
  PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT, *PDRIVER_OBJECT;

typedef struct _FILE_OBJECT {
  CSHORT Type;
  CSHORT Size;
  PDEVICE_OBJECT DeviceObject;
  PVOID Vpb;
  PVOID FsContext;
  PVOID FsContext2;
  PVOID SectionObjectPointer;
  PVOID PrivateCacheMap;
  NTSTATUS FinalStatus;
  struct _FILE_OBJECT *RelatedFileObject;
  BOOLEAN LockOperation;
  BOOLEAN DeletePending;
  BOOLEAN ReadAccess;
  BOOLEAN WriteAccess;
  BOOLEAN DeleteAccess;
  BOOLEAN SharedRead;
  BOOLEAN SharedWrite;
  BOOLEAN SharedDelete;
  ULONG Flags;
  UNICODE_STRING FileName;
  LARGE_INTEGER CurrentByteOffset;
  volatile ULONG Waiters;
  volatile ULONG Busy;
  PVOID LastLock;
  KEVENT Lock;
  KEVENT Event;
  PVOID CompletionContext;
  KSPIN_LOCK IrpListLock;
  LIST_ENTRY IrpList;
  volatile PVOID FileObjectExtension;
} FILE_OBJECT, *PFILE_OBJECT;

typedef struct _MDL {
  struct _MDL *Next;
  CSHORT Size;
  CSHORT MdlFlags;
  struct _EPROCESS *Process;
  PVOID MappedSystemVa;
  PVOID StartVa;
  ULONG ByteCount;
  ULONG ByteOffset;
} MDL, *PMDL;

/* Pages and MDLs: an MDL is followed by one page frame number per page it spans. */
typedef ULONG_PTR PFN_NUMBER, *PPFN_NUMBER;
#define PAGE_SIZE 0x1000
#define PAGE_SHIFT 12L
#define BYTE_OFFSET(Va) ((ULONG)((LONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~((ULONG_PTR)PAGE_SIZE - 1)))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
  ((ULONG)((((ULONG_PTR)(Va) & (PAGE_SIZE - 1)) + (Size) + (PAGE_SIZE - 1)) >> PAGE_SHIFT))
#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010
#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)
#define MmGetMdlPfnArray(Mdl) ((PPFN_NUMBER)((Mdl) + 1))

/* Type field of the I/O manager's objects */
#define IO_TYPE_DEVICE 0x00000003
#define IO_TYPE_DRIVER 0x00000004
#define IO_TYPE_IRP 0x00000006

typedef struct _IRP {
  CSHORT Type;
  USHORT Size;
  struct _MDL *MdlAddress;
  ULONG Flags;
  union {
    struct _IRP *MasterIrp;
    volatile LONG IrpCount;
    PVOID SystemBuffer;
  } AssociatedIrp;
  LIST_ENTRY ThreadListEntry;
  IO_STATUS_BLOCK IoStatus;
  KPROCESSOR_MODE RequestorMode;
  BOOLEAN PendingReturned;
  CHAR StackCount;
  CHAR CurrentLocation;
  BOOLEAN Cancel;
  KIRQL CancelIrql;
  CCHAR ApcEnvironment;
  UCHAR AllocationFlags;
  PIO_STATUS_BLOCK UserIosb;
  PKEVENT UserEvent;
  union {
    struct {
      union {
        PIO_APC_ROUTINE UserApcRoutine;
        PVOID IssuingProcess;
      };
      PVOID UserApcContext;
    } AsynchronousParameters;
    LARGE_INTEGER AllocationSize;
  } Overlay;
  volatile PDRIVER_CANCEL CancelRoutine;
  PVOID UserBuffer;
  union {
    struct {
      union {
        KDEVICE_QUEUE_ENTRY DeviceQueueEntry;
        struct {
          PVOID DriverContext[4];
        };
      };
      PETHREAD Thread;
      PCHAR AuxiliaryBuffer;
      struct {
        LIST_ENTRY ListEntry;
        union {
          struct _IO_STACK_LOCATION *CurrentStackLocation;
          ULONG PacketType;
        };
      };
      struct _FILE_OBJECT *OriginalFileObject;
    } Overlay;
    KAPC Apc;
    PVOID CompletionKey;
  } Tail;
} IRP, *PIRP;

/* IRP flags */
#define IRP_NOCACHE 0x00000001
#define IRP_PAGING_IO 0x00000002
#define IRP_MOUNT_COMPLETION 0x00000002
#define IRP_SYNCHRONOUS_API 0x00000004
#define IRP_ASSOCIATED_IRP 0x00000008
#define IRP_BUFFERED_IO 0x00000010
#define IRP_DEALLOCATE_BUFFER 0x00000020
#define IRP_INPUT_OPERATION 0x00000040
#define IRP_SYNCHRONOUS_PAGING_IO 0x00000040
#define IRP_CREATE_OPERATION 0x00000080
#define IRP_READ_OPERATION 0x00000100
#define IRP_WRITE_OPERATION 0x00000200
#define IRP_CLOSE_OPERATION 0x00000400
#define IRP_DEFER_IO_COMPLETION 0x00000800

/* PnP minor functions */
#define IRP_MN_START_DEVICE 0x00
#define IRP_MN_QUERY_REMOVE_DEVICE 0x01
#define IRP_MN_REMOVE_DEVICE 0x02
#define IRP_MN_CANCEL_REMOVE_DEVICE 0x03
#define IRP_MN_STOP_DEVICE 0x04
#define IRP_MN_QUERY_STOP_DEVICE 0x05
#define IRP_MN_CANCEL_STOP_DEVICE 0x06
#define IRP_MN_QUERY_DEVICE_RELATIONS 0x07
#define IRP_MN_QUERY_INTERFACE 0x08
#define IRP_MN_QUERY_CAPABILITIES 0x09
#define IRP_MN_QUERY_RESOURCES 0x0A
#define IRP_MN_QUERY_RESOURCE_REQUIREMENTS 0x0B
#define IRP_MN_QUERY_DEVICE_TEXT 0x0C
#define IRP_MN_FILTER_RESOURCE_REQUIREMENTS 0x0D
#define IRP_MN_READ_CONFIG 0x0F
#define IRP_MN_WRITE_CONFIG 0x10
#define IRP_MN_EJECT 0x11
#define IRP_MN_SET_LOCK 0x12
#define IRP_MN_QUERY_ID 0x13
#define IRP_MN_QUERY_PNP_DEVICE_STATE 0x14
#define IRP_MN_QUERY_BUS_INFORMATION 0x15
#define IRP_MN_DEVICE_USAGE_NOTIFICATION 0x16
#define IRP_MN_SURPRISE_REMOVAL 0x17
#define IRP_MN_QUERY_LEGACY_BUS_INFORMATION 0x18

/* Power minor functions */
#define IRP_MN_WAIT_WAKE 0x00
#define IRP_MN_POWER_SEQUENCE 0x01
#define IRP_MN_SET_POWER 0x02
#define IRP_MN_QUERY_POWER 0x03

/* WMI minor functions */
#define IRP_MN_QUERY_ALL_DATA 0x00
#define IRP_MN_REGINFO 0x08

/* ---------------------------------------------------------------- PnP and power types */
typedef enum _DEVICE_RELATION_TYPE {
  BusRelations,
  EjectionRelations,
  PowerRelations,
  RemovalRelations,
  TargetDeviceRelation,
  SingleBusRelations,
  TransportRelations
} DEVICE_RELATION_TYPE, *PDEVICE_RELATION_TYPE;

typedef struct _DEVICE_RELATIONS {
  ULONG Count;
  PDEVICE_OBJECT Objects[1];
} DEVICE_RELATIONS, *PDEVICE_RELATIONS;

typedef enum _BUS_QUERY_ID_TYPE {
  BusQueryDeviceID = 0,
  BusQueryHardwareIDs = 1,
  BusQueryCompatibleIDs = 2,
  BusQueryInstanceID = 3,
  BusQueryDeviceSerialNumber = 4,
  BusQueryContainerID = 5
} BUS_QUERY_ID_TYPE, *PBUS_QUERY_ID_TYPE;

typedef enum _DEVICE_TEXT_TYPE {
  DeviceTextDescription = 0,
  DeviceTextLocationInformation = 1
} DEVICE_TEXT_TYPE, *PDEVICE_TEXT_TYPE;

typedef enum _DEVICE_USAGE_NOTIFICATION_TYPE {
  DeviceUsageTypeUndefined,
  DeviceUsageTypePaging,
  DeviceUsageTypeHibernation,
  DeviceUsageTypeDumpFile
} DEVICE_USAGE_NOTIFICATION_TYPE;

typedef enum _SYSTEM_POWER_STATE {
  PowerSystemUnspecified = 0,
  PowerSystemWorking = 1,
  PowerSystemSleeping1 = 2,
  PowerSystemSleeping2 = 3,
  PowerSystemSleeping3 = 4,
  PowerSystemHibernate = 5,
  PowerSystemShutdown = 6,
  PowerSystemMaximum = 7
} SYSTEM_POWER_STATE, *PSYSTEM_POWER_STATE;

typedef enum _DEVICE_POWER_STATE {
  PowerDeviceUnspecified = 0,
  PowerDeviceD0,
  PowerDeviceD1,
  PowerDeviceD2,
  PowerDeviceD3,
  PowerDeviceMaximum
} DEVICE_POWER_STATE, *PDEVICE_POWER_STATE;

typedef union _POWER_STATE {
  SYSTEM_POWER_STATE SystemState;
  DEVICE_POWER_STATE DeviceState;
} POWER_STATE, *PPOWER_STATE;

typedef enum _POWER_STATE_TYPE {
  SystemPowerState = 0,
  DevicePowerState
} POWER_STATE_TYPE, *PPOWER_STATE_TYPE;

typedef enum _POWER_ACTION {
  PowerActionNone = 0,
  PowerActionReserved,
  PowerActionSleep,
  PowerActionHibernate,
  PowerActionShutdown,
  PowerActionShutdownReset,
  PowerActionShutdownOff,
  PowerActionWarmEject
} POWER_ACTION, *PPOWER_ACTION;

typedef struct _SYSTEM_POWER_STATE_CONTEXT {
  union {
    struct {
      ULONG Reserved1 : 8;
      ULONG TargetSystemState : 4;
      ULONG EffectiveSystemState : 4;
      ULONG CurrentSystemState : 4;
      ULONG IgnoreHibernationPath : 1;
      ULONG PseudoTransition : 1;
      ULONG Reserved2 : 10;
    };
    ULONG ContextAsUlong;
  };
} SYSTEM_POWER_STATE_CONTEXT, *PSYSTEM_POWER_STATE_CONTEXT;

typedef struct _DEVICE_CAPABILITIES {
  USHORT Size;
  USHORT Version;
  ULONG DeviceD1 : 1;
  ULONG DeviceD2 : 1;
  ULONG LockSupported : 1;
  ULONG EjectSupported : 1;
  ULONG Removable : 1;
  ULONG DockDevice : 1;
  ULONG UniqueID : 1;
  ULONG SilentInstall : 1;
  ULONG RawDeviceOK : 1;
  ULONG SurpriseRemovalOK : 1;
  ULONG WakeFromD0 : 1;
  ULONG WakeFromD1 : 1;
  ULONG WakeFromD2 : 1;
  ULONG WakeFromD3 : 1;
  ULONG HardwareDisabled : 1;
  ULONG NonDynamic : 1;
  ULONG WarmEjectSupported : 1;
  ULONG NoDisplayInUI : 1;
  ULONG Reserved : 14;
  ULONG Address;
  ULONG UINumber;
  DEVICE_POWER_STATE DeviceState[PowerSystemMaximum];
  SYSTEM_POWER_STATE SystemWake;
  DEVICE_POWER_STATE DeviceWake;
  ULONG D1Latency;
  ULONG D2Latency;
  ULONG D3Latency;
} DEVICE_CAPABILITIES, *PDEVICE_CAPABILITIES;

typedef struct _INTERFACE {
  USHORT Size;
  USHORT Version;
  PVOID Context;
  void (*InterfaceReference)(PVOID Context);
  void (*InterfaceDereference)(PVOID Context);
} INTERFACE, *PINTERFACE;

typedef struct _PNP_BUS_INFORMATION {
  GUID BusTypeGuid;
  ULONG LegacyBusType; /* INTERFACE_TYPE */
  ULONG BusNumber;
} PNP_BUS_INFORMATION, *PPNP_BUS_INFORMATION;

typedef ULONG PNP_DEVICE_STATE, *PPNP_DEVICE_STATE;
#define PNP_DEVICE_DISABLED 0x00000001
#define PNP_DEVICE_DONT_DISPLAY_IN_UI 0x00000002
#define PNP_DEVICE_FAILED 0x00000004
#define PNP_DEVICE_REMOVED 0x00000008
#define PNP_DEVICE_RESOURCE_REQUIREMENTS_CHANGED 0x00000010
#define PNP_DEVICE_NOT_DISABLEABLE 0x00000020

typedef struct _POWER_SEQUENCE {
  ULONG SequenceD1;
  ULONG SequenceD2;
  ULONG SequenceD3;
} POWER_SEQUENCE, *PPOWER_SEQUENCE;

/* ---------------------------------------------------------------- stack location */
typedef struct _IO_STACK_LOCATION {
  UCHAR MajorFunction;
  UCHAR MinorFunction;
  UCHAR Flags;
  UCHAR Control;
  union {
    struct {
      PVOID SecurityContext;
      ULONG Options;
      USHORT POINTER_ALIGNMENT FileAttributes;
      USHORT ShareAccess;
      ULONG POINTER_ALIGNMENT EaLength;
    } Create;
    struct {
      ULONG Length;
      ULONG POINTER_ALIGNMENT Key;
      ULONG Flags;
      LARGE_INTEGER ByteOffset;
    } Read;
    struct {
      ULONG Length;
      ULONG POINTER_ALIGNMENT Key;
      ULONG Flags;
      LARGE_INTEGER ByteOffset;
    } Write;
    struct {
      ULONG OutputBufferLength;
      ULONG POINTER_ALIGNMENT InputBufferLength;
      ULONG POINTER_ALIGNMENT IoControlCode;
      PVOID Type3InputBuffer;
    } DeviceIoControl;
    struct {
      DEVICE_RELATION_TYPE Type;
    } QueryDeviceRelations;
    struct {
      CONST GUID *InterfaceType;
      USHORT Size;
      USHORT Version;
      PINTERFACE Interface;
      PVOID InterfaceSpecificData;
    } QueryInterface;
    struct {
      PDEVICE_CAPABILITIES Capabilities;
    } DeviceCapabilities;
    struct {
      PVOID IoResourceRequirementList;
    } FilterResourceRequirements;
    struct {
      ULONG WhichSpace;
      PVOID Buffer;
      ULONG Offset;
      ULONG POINTER_ALIGNMENT Length;
    } ReadWriteConfig;
    struct {
      BOOLEAN Lock;
    } SetLock;
    struct {
      BUS_QUERY_ID_TYPE IdType;
    } QueryId;
    struct {
      DEVICE_TEXT_TYPE DeviceTextType;
      LCID POINTER_ALIGNMENT LocaleId;
    } QueryDeviceText;
    struct {
      BOOLEAN InPath;
      BOOLEAN Reserved[3];
      DEVICE_USAGE_NOTIFICATION_TYPE POINTER_ALIGNMENT Type;
    } UsageNotification;
    struct {
      SYSTEM_POWER_STATE PowerState;
    } WaitWake;
    struct {
      PPOWER_SEQUENCE PowerSequence;
    } PowerSequence;
    struct {
      union {
        ULONG SystemContext;
        SYSTEM_POWER_STATE_CONTEXT SystemPowerStateContext;
      };
      POWER_STATE_TYPE POINTER_ALIGNMENT Type;
      POWER_STATE POINTER_ALIGNMENT State;
      POWER_ACTION POINTER_ALIGNMENT ShutdownType;
    } Power;
    struct {
      PVOID AllocatedResources;
      PVOID AllocatedResourcesTranslated;
    } StartDevice;
    struct {
      ULONG_PTR ProviderId;
      PVOID DataPath;
      ULONG BufferSize;
      PVOID Buffer;
    } WMI;
    struct {
      PVOID Argument1;
      PVOID Argument2;
      PVOID Argument3;
      PVOID Argument4;
    } Others;
  } Parameters;
  PDEVICE_OBJECT DeviceObject;
  PFILE_OBJECT FileObject;
  PIO_COMPLETION_ROUTINE CompletionRoutine;
  PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

#define SL_PENDING_RETURNED 0x01
#define SL_ERROR_RETURNED 0x02
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

/* ---------------------------------------------------------------- device object constants */
#define FILE_DEVICE_BUS_EXTENDER 0x0000002a
#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_USB FILE_DEVICE_UNKNOWN
#define FILE_DEVICE_SECURE_OPEN 0x00000100
#define FILE_AUTOGENERATED_DEVICE_NAME 0x00000080
#define FILE_REMOVABLE_MEDIA 0x00000001

#define DO_VERIFY_VOLUME 0x00000002
#define DO_BUFFERED_IO 0x00000004
#define DO_EXCLUSIVE 0x00000008
#define DO_DIRECT_IO 0x00000010
#define DO_MAP_IO_BUFFER 0x00000020
#define DO_DEVICE_HAS_NAME 0x00000040
#define DO_DEVICE_INITIALIZING 0x00000080
#define DO_SHUTDOWN_REGISTERED 0x00000800
#define DO_BUS_ENUMERATED_DEVICE 0x00001000
#define DO_POWER_PAGABLE 0x00002000
#define DO_POWER_INRUSH 0x00004000

#define IO_NO_INCREMENT 0
#define IO_SERIAL_INCREMENT 2
#define IO_NETWORK_INCREMENT 2

#define CTL_CODE(DeviceType, Function, Method, Access) \
  (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0
#define FILE_READ_ACCESS 1
#define FILE_WRITE_ACCESS 2

/* ---------------------------------------------------------------- remove lock */
typedef struct _IO_REMOVE_LOCK_TRACKING_BLOCK *PIO_REMOVE_LOCK_TRACKING_BLOCK;

typedef struct _IO_REMOVE_LOCK_COMMON_BLOCK {
  BOOLEAN Removed;
  BOOLEAN Reserved[3];
  volatile LONG IoCount;
  KEVENT RemoveEvent;
} IO_REMOVE_LOCK_COMMON_BLOCK;

typedef struct _IO_REMOVE_LOCK_DBG_BLOCK {
  LONG Signature;
  LONG HighWatermark;
  LONGLONG MaxLockedTicks;
  LONG AllocateTag;
  LIST_ENTRY LockList;
  KSPIN_LOCK Spin;
  volatile LONG LowMemoryCount;
  ULONG Reserved1[4];
  PVOID Reserved2;
  PIO_REMOVE_LOCK_TRACKING_BLOCK Blocks;
} IO_REMOVE_LOCK_DBG_BLOCK;

typedef struct _IO_REMOVE_LOCK {
  IO_REMOVE_LOCK_COMMON_BLOCK Common;
  IO_REMOVE_LOCK_DBG_BLOCK Dbg;
} IO_REMOVE_LOCK, *PIO_REMOVE_LOCK;

/* ---------------------------------------------------------------- error log */
typedef struct _IO_ERROR_LOG_PACKET {
  UCHAR MajorFunctionCode;
  UCHAR RetryCount;
  USHORT DumpDataSize;
  USHORT NumberOfStrings;
  USHORT StringOffset;
  USHORT EventCategory;
  NTSTATUS ErrorCode;
  ULONG UniqueErrorValue;
  NTSTATUS FinalStatus;
  ULONG SequenceNumber;
  ULONG IoControlCode;
  LARGE_INTEGER DeviceOffset;
  ULONG DumpData[1];
} IO_ERROR_LOG_PACKET, *PIO_ERROR_LOG_PACKET;
#define ERROR_LOG_MAXIMUM_SIZE 240

/* ---------------------------------------------------------------- device properties */
typedef enum _DEVICE_REGISTRY_PROPERTY {
  DevicePropertyDeviceDescription = 0,
  DevicePropertyHardwareID = 1,
  DevicePropertyCompatibleIDs = 2,
  DevicePropertyBootConfiguration = 3,
  DevicePropertyBootConfigurationTranslated = 4,
  DevicePropertyClassName = 5,
  DevicePropertyClassGuid = 6,
  DevicePropertyDriverKeyName = 7,
  DevicePropertyManufacturer = 8,
  DevicePropertyFriendlyName = 9,
  DevicePropertyLocationInformation = 10,
  DevicePropertyPhysicalDeviceObjectName = 11,
  DevicePropertyBusTypeGuid = 12,
  DevicePropertyLegacyBusType = 13,
  DevicePropertyBusNumber = 14,
  DevicePropertyEnumeratorName = 15,
  DevicePropertyAddress = 16,
  DevicePropertyUINumber = 17,
  DevicePropertyInstallState = 18,
  DevicePropertyRemovalPolicy = 19,
  DevicePropertyResourceRequirements = 20,
  DevicePropertyAllocatedResources = 21,
  DevicePropertyContainerID = 22
} DEVICE_REGISTRY_PROPERTY;

#define PLUGPLAY_REGKEY_DEVICE 1
#define PLUGPLAY_REGKEY_DRIVER 2
#define PLUGPLAY_REGKEY_CURRENT_HWPROFILE 4

/* ---------------------------------------------------------------- registry */
#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_CREATE_SUB_KEY 0x0004
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_NOTIFY 0x0010
#define KEY_CREATE_LINK 0x0020
#define KEY_READ ((STANDARD_RIGHTS_READ | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY) & (~SYNCHRONIZE))
#define KEY_WRITE ((STANDARD_RIGHTS_WRITE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY) & (~SYNCHRONIZE))
#define KEY_EXECUTE ((KEY_READ) & (~SYNCHRONIZE))
#define KEY_ALL_ACCESS ((STANDARD_RIGHTS_ALL | KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY | \
                         KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY | KEY_CREATE_LINK) & (~SYNCHRONIZE))

#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_DWORD_LITTLE_ENDIAN 4
#define REG_DWORD_BIG_ENDIAN 5
#define REG_LINK 6
#define REG_MULTI_SZ 7
#define REG_QWORD 11

#define REG_OPTION_NON_VOLATILE 0x00000000L
#define REG_OPTION_VOLATILE 0x00000001L
#define REG_CREATED_NEW_KEY 0x00000001L
#define REG_OPENED_EXISTING_KEY 0x00000002L

#define RTL_REGISTRY_ABSOLUTE 0
#define RTL_REGISTRY_SERVICES 1
#define RTL_REGISTRY_CONTROL 2
#define RTL_REGISTRY_WINDOWS_NT 3
#define RTL_REGISTRY_DEVICEMAP 4
#define RTL_REGISTRY_USER 5
#define RTL_REGISTRY_MAXIMUM 6
#define RTL_REGISTRY_HANDLE 0x40000000
#define RTL_REGISTRY_OPTIONAL 0x80000000

#define RTL_QUERY_REGISTRY_SUBKEY 0x00000001
#define RTL_QUERY_REGISTRY_TOPKEY 0x00000002
#define RTL_QUERY_REGISTRY_REQUIRED 0x00000004
#define RTL_QUERY_REGISTRY_NOVALUE 0x00000008
#define RTL_QUERY_REGISTRY_NOEXPAND 0x00000010
#define RTL_QUERY_REGISTRY_DIRECT 0x00000020
#define RTL_QUERY_REGISTRY_DELETE 0x00000040
#define RTL_QUERY_REGISTRY_TYPECHECK 0x00000100
#define RTL_QUERY_REGISTRY_TYPECHECK_SHIFT 24

typedef NTSTATUS (NTAPI RTL_QUERY_REGISTRY_ROUTINE)(PWSTR ValueName, ULONG ValueType, PVOID ValueData,
                                                    ULONG ValueLength, PVOID Context, PVOID EntryContext);
typedef RTL_QUERY_REGISTRY_ROUTINE *PRTL_QUERY_REGISTRY_ROUTINE;

typedef struct _RTL_QUERY_REGISTRY_TABLE {
  PRTL_QUERY_REGISTRY_ROUTINE QueryRoutine;
  ULONG Flags;
  PWSTR Name;
  PVOID EntryContext;
  ULONG DefaultType;
  PVOID DefaultData;
  ULONG DefaultLength;
} RTL_QUERY_REGISTRY_TABLE, *PRTL_QUERY_REGISTRY_TABLE;

typedef enum _KEY_VALUE_INFORMATION_CLASS {
  KeyValueBasicInformation,
  KeyValueFullInformation,
  KeyValuePartialInformation
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
  ULONG TitleIndex;
  ULONG Type;
  ULONG DataLength;
  UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION, *PKEY_VALUE_PARTIAL_INFORMATION;

typedef struct _KEY_VALUE_BASIC_INFORMATION {
  ULONG TitleIndex;
  ULONG Type;
  ULONG NameLength;
  WCHAR Name[1];
} KEY_VALUE_BASIC_INFORMATION, *PKEY_VALUE_BASIC_INFORMATION;

typedef struct _KEY_VALUE_FULL_INFORMATION {
  ULONG TitleIndex;
  ULONG Type;
  ULONG DataOffset;
  ULONG DataLength;
  ULONG NameLength;
  WCHAR Name[1];
} KEY_VALUE_FULL_INFORMATION, *PKEY_VALUE_FULL_INFORMATION;

WDMSIM_BEGIN_C
NTSYSAPI NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes);
NTSYSAPI NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                    ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition);
NTSYSAPI NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type,
                                      PVOID Data, ULONG DataSize);
NTSYSAPI NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                        KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                        PVOID KeyValueInformation, ULONG Length, PULONG ResultLength);
NTSYSAPI NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName);
NTSYSAPI NTSTATUS NTAPI RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable,
                                               PVOID Context, PVOID Environment);
WDMSIM_END_C

/* ---------------------------------------------------------------- I/O manager services */
WDMSIM_BEGIN_C
NTKERNELAPI NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                                    DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                    PDEVICE_OBJECT *DeviceObject);
NTKERNELAPI void IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
NTKERNELAPI PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice);
NTKERNELAPI void IoDetachDevice(PDEVICE_OBJECT TargetDevice);
NTKERNELAPI PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject);

NTKERNELAPI PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
NTKERNELAPI void IoFreeIrp(PIRP Irp);
NTKERNELAPI void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus);
NTKERNELAPI void IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize);
NTKERNELAPI PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                              ULONG Length, PLARGE_INTEGER StartingOffset, PKEVENT Event,
                                              PIO_STATUS_BLOCK IoStatusBlock);
NTKERNELAPI PIRP IoBuildAsynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                               ULONG Length, PLARGE_INTEGER StartingOffset,
                                               PIO_STATUS_BLOCK IoStatusBlock);
NTKERNELAPI PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                               ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                               BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                               PIO_STATUS_BLOCK IoStatusBlock);
NTKERNELAPI NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTKERNELAPI void FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
#define IoCallDriver IofCallDriver
#define IoCompleteRequest IofCompleteRequest
NTKERNELAPI BOOLEAN IoCancelIrp(PIRP Irp);
NTKERNELAPI void IoAcquireCancelSpinLock(PKIRQL Irql);
NTKERNELAPI void IoReleaseCancelSpinLock(KIRQL Irql);

NTKERNELAPI void NTAPI IoInitializeRemoveLockEx(PIO_REMOVE_LOCK Lock, ULONG AllocateTag, ULONG MaxLockedMinutes,
                                                ULONG HighWatermark, ULONG RemlockSize);
NTKERNELAPI NTSTATUS NTAPI IoAcquireRemoveLockEx(PIO_REMOVE_LOCK RemoveLock, PVOID Tag, PCSTR File, ULONG Line,
                                                 ULONG RemlockSize);
NTKERNELAPI void NTAPI IoReleaseRemoveLockEx(PIO_REMOVE_LOCK RemoveLock, PVOID Tag, ULONG RemlockSize);
NTKERNELAPI void NTAPI IoReleaseRemoveLockAndWaitEx(PIO_REMOVE_LOCK RemoveLock, PVOID Tag, ULONG RemlockSize);
#define IoInitializeRemoveLock(Lock, Tag, Maxmin, HighWater) \
  IoInitializeRemoveLockEx(Lock, Tag, Maxmin, HighWater, sizeof(IO_REMOVE_LOCK))
#define IoAcquireRemoveLock(RemoveLock, Tag) \
  IoAcquireRemoveLockEx(RemoveLock, Tag, __FILE__, __LINE__, sizeof(IO_REMOVE_LOCK))
#define IoReleaseRemoveLock(RemoveLock, Tag) IoReleaseRemoveLockEx(RemoveLock, Tag, sizeof(IO_REMOVE_LOCK))
#define IoReleaseRemoveLockAndWait(RemoveLock, Tag) \
  IoReleaseRemoveLockAndWaitEx(RemoveLock, Tag, sizeof(IO_REMOVE_LOCK))

NTKERNELAPI PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
NTKERNELAPI void IoFreeWorkItem(PIO_WORKITEM IoWorkItem);
NTKERNELAPI void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine,
                                 WORK_QUEUE_TYPE QueueType, PVOID Context);

NTKERNELAPI PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize);
NTKERNELAPI void IoWriteErrorLogEntry(PVOID ElEntry);
NTKERNELAPI void IoFreeErrorLogEntry(PVOID ElEntry);

NTKERNELAPI BOOLEAN IoIsWdmVersionAvailable(UCHAR MajorVersion, UCHAR MinorVersion);

NTKERNELAPI NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty,
                                         ULONG BufferLength, PVOID PropertyBuffer, PULONG ResultLength);
NTKERNELAPI NTSTATUS IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                             ACCESS_MASK DesiredAccess, PHANDLE DevInstRegKey);
NTKERNELAPI void IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type);
NTKERNELAPI void IoInvalidateDeviceState(PDEVICE_OBJECT PhysicalDeviceObject);
NTKERNELAPI NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, CONST GUID *InterfaceClassGuid,
                                               PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName);
NTKERNELAPI NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable);
NTKERNELAPI PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                               PIRP Irp);
NTKERNELAPI void IoFreeMdl(PMDL Mdl);
NTKERNELAPI void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
NTKERNELAPI PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, ULONG Priority);
WDMSIM_END_C
#define NormalPagePriority 16

/* ---------------------------------------------------------------- power manager services */
typedef void (NTAPI REQUEST_POWER_COMPLETE)(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                           PVOID Context, PIO_STATUS_BLOCK IoStatus);
typedef REQUEST_POWER_COMPLETE *PREQUEST_POWER_COMPLETE;

WDMSIM_BEGIN_C
NTKERNELAPI NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTKERNELAPI void PoStartNextPowerIrp(PIRP Irp);
NTKERNELAPI POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State);
NTKERNELAPI NTSTATUS PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                       PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP *Irp);
NTKERNELAPI void PoSetSystemWake(PIRP Irp);
WDMSIM_END_C

/* ---------------------------------------------------------------- inline I/O helpers */
FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) {
  ASSERT(Irp->CurrentLocation <= Irp->StackCount + 1);
  return Irp->Tail.Overlay.CurrentStackLocation;
}
FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) {
  ASSERT(Irp->CurrentLocation > 0);
  return Irp->Tail.Overlay.CurrentStackLocation - 1;
}
FORCEINLINE void IoSkipCurrentIrpStackLocation(PIRP Irp) {
  ASSERT(Irp->CurrentLocation <= Irp->StackCount);
  Irp->CurrentLocation++;
  Irp->Tail.Overlay.CurrentStackLocation++;
}
FORCEINLINE void IoSetNextIrpStackLocation(PIRP Irp) {
  ASSERT(Irp->CurrentLocation > 0);
  Irp->CurrentLocation--;
  Irp->Tail.Overlay.CurrentStackLocation--;
}
FORCEINLINE void IoCopyCurrentIrpStackLocationToNext(PIRP Irp) {
  PIO_STACK_LOCATION irpSp = IoGetCurrentIrpStackLocation(Irp);
  PIO_STACK_LOCATION nextIrpSp = IoGetNextIrpStackLocation(Irp);
  memcpy(nextIrpSp, irpSp, FIELD_OFFSET(IO_STACK_LOCATION, CompletionRoutine));
  nextIrpSp->Control = 0;
}
FORCEINLINE void IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine, PVOID Context,
                                        BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel) {
  ASSERT((InvokeOnSuccess || InvokeOnError || InvokeOnCancel) ? (CompletionRoutine != NULL) : TRUE);
  PIO_STACK_LOCATION irpSp = IoGetNextIrpStackLocation(Irp);
  irpSp->CompletionRoutine = CompletionRoutine;
  irpSp->Context = Context;
  irpSp->Control = 0;
  if (InvokeOnSuccess) irpSp->Control = SL_INVOKE_ON_SUCCESS;
  if (InvokeOnError) irpSp->Control |= SL_INVOKE_ON_ERROR;
  if (InvokeOnCancel) irpSp->Control |= SL_INVOKE_ON_CANCEL;
}
FORCEINLINE void IoMarkIrpPending(PIRP Irp) { IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED; }
FORCEINLINE PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL CancelRoutine) {
  return (PDRIVER_CANCEL)InterlockedExchangePointer((PVOID volatile *)&Irp->CancelRoutine, (PVOID)CancelRoutine);
}
FORCEINLINE void IoInitializeDpcRequest(PDEVICE_OBJECT DeviceObject, PVOID DpcRoutine) {
  KeInitializeDpc(&DeviceObject->Dpc, (PKDEFERRED_ROUTINE)DpcRoutine, DeviceObject);
}
#define IoSizeOfIrp(StackSize) ((USHORT)(sizeof(IRP) + ((StackSize) * (sizeof(IO_STACK_LOCATION)))))

#endif /* WDMSIM_WDM_H */
