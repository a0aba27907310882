// PnP test devices on the framework's classes: an FDO and a bus FDO attached to a raw PDO
// whose hook records what reached the bottom of the stack, and a bus child. Every hook
// and every request the PDO sees is written to one journal, so a test reads the order in
// which the two sides of the stack saw a request, and whether the PnP lock was held.
#pragma once

#include <ntddk.h>

#include <map>
#include <string>
#include <vector>

#include <wdmsim/io.h>

#include "support_test_driver.h"

#include "knbusfdo.h"
#include "knbuschildpdo.h"
#include "knfdo.h"
#include "knmutex.h"
#include "knpnplowerdevice.h"

namespace kntest {

struct PnpJournal {
  std::vector<std::string> events;  // "hook <name>" and "pdo <minor name>", in order
  int lockDepth = 0;
  bool downWhileLocked = false;  // a request reached the PDO while the PnP lock was held
  int lockCalls = 0;
  // Minor functions the PDO fails with the given status instead of answering.
  std::map<UCHAR, NTSTATUS> pdoFailures;

  void Hook(const char* name) { events.push_back(std::string("hook ") + name); }
  std::vector<std::string> Take() {
    std::vector<std::string> taken;
    taken.swap(events);
    return taken;
  }
};

// The PnP lock of the test devices: a recursive mutex whose holding the journal counts.
class JournalledLock {
 public:
  explicit JournalledLock(PnpJournal* journal) : mJournal(journal) {}
  void Lock();
  void Unlock();

 private:
  PnpJournal* mJournal;
  KnMutex mMutex;
};

// A raw PDO that journals every request that reaches it (and fails those listed).
PDEVICE_OBJECT CreateJournalledPdo(PnpJournal* journal);

// KnFdo with journalled hooks and settable results, attached through its own lower device.
class TestFdo : public KnFdo {
 public:
  explicit TestFdo(PnpJournal* journal, bool* destroyed = nullptr);
  ~TestFdo() override;
  NTSTATUS Attach(PDEVICE_OBJECT pdo) { return mLower.AttachToPnpDeviceStack(mDeviceObject, pdo); }

  void Lock() override { mLock.Lock(); }
  void Unlock() override { mLock.Unlock(); }
  void OnPnpQueryCapabilities(PDEVICE_CAPABILITIES capabilities) override;
  void OnPnpQueryCapabilitiesComplete(PDEVICE_CAPABILITIES capabilities) override;
  NTSTATUS OnPnPQueryDeviceRelations(PIRP irp) override;
  NTSTATUS OnPnpStartDevice(PIRP irp) override;
  NTSTATUS OnPnpQueryStopDevice() override;
  void OnPnpCancelStopDevice() override;
  void OnPnpStopDevice() override;
  NTSTATUS OnPnpQueryRemoveDevice() override;
  void OnPnpCancelRemoveDevice() override;
  void OnPnpRemoveDevice() override;
  void OnPnpSurpriseRemoval() override;

  const DEVICE_CAPABILITIES& RecordedCapabilities() const { return mDeviceCapabilities; }
  DEVICE_POWER_STATE PowerState() const { return mPowerState; }
  KnWorkItemEx& PowerWorkItem() { return mPowerWorkItem; }

  NTSTATUS startResult = STATUS_SUCCESS;
  NTSTATUS queryStopResult = STATUS_SUCCESS;
  NTSTATUS queryRemoveResult = STATUS_SUCCESS;
  ULONG uiNumberOnComplete = 0;  // written into the answer by OnPnpQueryCapabilitiesComplete

 protected:
  PnpJournal* mJournal;

 private:
  KnPnPLowerDevice mLower;
  JournalledLock mLock;
  bool* mDestroyed;
};

// KnBusFdo with a journalled lock, attached through its own lower device.
class TestBusFdo : public KnBusFdo {
 public:
  explicit TestBusFdo(PnpJournal* journal);
  ~TestBusFdo() override;
  NTSTATUS Attach(PDEVICE_OBJECT pdo) { return mLower.AttachToPnpDeviceStack(mDeviceObject, pdo); }

  void Lock() override { mLock.Lock(); }
  void Unlock() override { mLock.Unlock(); }

 private:
  KnPnPLowerDevice mLower;
  JournalledLock mLock;
};

// KnBusChildPdo whose lock is its bus's, with journalled state hooks and settable results.
class TestChildPdo : public KnBusChildPdo {
 public:
  TestChildPdo(TestBusFdo* bus, PnpJournal* journal);
  ~TestChildPdo() override;

  void Lock() override { mBus->Lock(); }
  void Unlock() override { mBus->Unlock(); }
  NTSTATUS OnPnpStartDevice(PIRP irp) override;
  NTSTATUS OnPnpQueryStopDevice(PIRP irp) override;
  void OnPnpCancelStopDevice(PIRP irp) override;
  void OnPnpStopDevice(PIRP irp) override;
  NTSTATUS OnPnpQueryRemoveDevice(PIRP irp) override;
  void OnPnpCancelRemoveDevice(PIRP irp) override;
  void OnPnpRemoveDevice(PIRP irp) override;
  void OnPnpSurpriseRemoval(PIRP irp) override;

  DEVICE_CAPABILITIES& Capabilities() { return mDeviceCapabilities; }

  NTSTATUS startResult = STATUS_SUCCESS;
  NTSTATUS queryStopResult = STATUS_SUCCESS;
  NTSTATUS queryRemoveResult = STATUS_SUCCESS;
  int* destructions = nullptr;  // counted by the destructor when set

 private:
  TestBusFdo* mBus;
  PnpJournal* mJournal;
};

// A framework object with its platform object (DO_DEVICE_INITIALIZING cleared) in state
// Added; NULL when either could not be created.
template <class T, class... Args>
T* CreatePnpDevice(ULONG characteristics, Args... args) {
  T* object = new (NonPagedPool, gKnDefaultPoolTag) T(args...);
  if (object == NULL) return NULL;
  if (!NT_SUCCESS(object->CreateDevice(NULL, FILE_DEVICE_UNKNOWN, characteristics, FALSE, 0))) {
    delete object;
    return NULL;
  }
  object->GetDeviceObject()->Flags &= ~DO_DEVICE_INITIALIZING;
  object->SetPnPState(KnPnPState_Added);
  return object;
}

// A child created the way a bus driver creates one, appended to the bus as present.
TestChildPdo* AddPresentChild(TestBusFdo* bus, PnpJournal* journal);

// An FDO of class Fdo (constructed with the journal and a destroyed flag) attached to a
// journalled raw PDO, with the test driver loaded. The FDO is removed at the end unless a
// test removed it already.
template <class Fdo>
class FdoStackTest : public FrameworkTest {
 protected:
  void SetUp() override {
    mDriver = LoadTestDriver();
    ASSERT_NE(nullptr, mDriver);
    mPdo = CreateJournalledPdo(&mJournal);
    mFdo = CreatePnpDevice<Fdo>(FILE_DEVICE_SECURE_OPEN, &mJournal, &mDestroyed);
    ASSERT_NE(nullptr, mFdo);
    ASSERT_EQ(STATUS_SUCCESS, mFdo->Attach(mPdo));
  }
  void TearDown() override {
    if (!mDestroyed) wdmsim::SendPnpIrp(mPdo, IRP_MN_REMOVE_DEVICE);
    EXPECT_TRUE(mDestroyed);
    wdmsim::DeleteRawPdo(mPdo);
    ASSERT_TRUE(wdmsim::UnloadDriver(mDriver));
  }

  PDRIVER_OBJECT mDriver = nullptr;
  PDEVICE_OBJECT mPdo = nullptr;
  PnpJournal mJournal;
  Fdo* mFdo = nullptr;
  bool mDestroyed = false;
};

// The objects of a relations answer; releases their references and frees the answer.
std::vector<PDEVICE_OBJECT> TakeRelations(ULONG_PTR information);

// The bytes of a pool block handed out in an answer, and frees it.
std::vector<uint8_t> TakeAnswerBytes(ULONG_PTR information);

// A started bus FDO on a journalled raw PDO, with the test driver loaded. The bus is
// removed at the end, taking any child still in its list along.
class BusTest : public FrameworkTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  // An IRP_MN_QUERY_DEVICE_RELATIONS to the stack, with attached as the answer a driver
  // above already put in.
  IO_STATUS_BLOCK QueryRelations(DEVICE_RELATION_TYPE type, ULONG_PTR attached = 0);
  // Fills children with present children of the bus whose destructions are counted.
  void AddPresentChildren(TestChildPdo** children, int count, int* destructions);

  PDRIVER_OBJECT mDriver = nullptr;
  PDEVICE_OBJECT mPdo = nullptr;
  PnpJournal mJournal;
  TestBusFdo* mBus = nullptr;
};

}  // namespace kntest
