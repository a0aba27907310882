// Removal of a bus child: one the bus still reports survives its remove request and can
// start again; one that a relations answer left out unlinks itself, completes the request
// and is destroyed with everything it stored.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/io.h>
#include <wdmsim/pool.h>

#include "kntrace.h"
#include "support_pnp_devices.h"

namespace {

using kntest::TestChildPdo;

class ChildRemovalTest : public kntest::BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    AddPresentChildren(mChildren, 2, &mDestructions);
    for (TestChildPdo* child : mChildren) {
      child->AddStrHardwareId(L"KN\\CHILD", NonPagedPool);
      child->SetStrDeviceDescription(L"Child", PagedPool);
    }
    gKnTraceMask = 0x7;
    KnTraceSetPrefix("fw");
    TakeTrace();
  }
  IO_STATUS_BLOCK Send(TestChildPdo* child, UCHAR minor) { return wdmsim::SendPnpIrp(child->GetDeviceObject(), minor); }
  std::vector<KnBusChildPdo*> Listed() const {
    std::vector<KnBusChildPdo*> listed;
    for (KnBusChildPdo* child = mBus->GetFirstChild(); child != NULL; child = mBus->GetNextChild(child)) {
      listed.push_back(child);
    }
    return listed;
  }

  TestChildPdo* mChildren[2] = {};
  int mDestructions = 0;
};

TEST_F(ChildRemovalTest, ChildStillReportedSurvivesRemovalAndStartsAgain) {
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_START_DEVICE).Status);
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_EQ(0, mDestructions);
  EXPECT_TRUE(wdmsim::IsLiveDeviceObject(mChildren[0]->GetDeviceObject()));
  EXPECT_EQ(KnPnPState_Removed, mChildren[0]->GetPnPState());
  EXPECT_EQ((std::vector<KnBusChildPdo*>{mChildren[0], mChildren[1]}), Listed());
  // Its remove lock still lets requests in.
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_START_DEVICE).Status);
  EXPECT_EQ(KnPnPState_Started, mChildren[0]->GetPnPState());
  EXPECT_EQ(std::string::npos, TakeTrace().find("deleting KnBusChildPdo"));
}

TEST_F(ChildRemovalTest, ChildReportedMissingIsUnlinkedAndDestroyedOnItsRemoval) {
  size_t objects = wdmsim::LivePoolBlockCount(gKnDefaultPoolTag);
  size_t strings = wdmsim::LivePoolBlockCount(KN_CHILD_STRING_TAG);
  mChildren[0]->SetPresence(KnChildPresence_Absent);
  // Absent alone is not enough: only a relations answer that left it out makes it go.
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_EQ(0, mDestructions);
  IO_STATUS_BLOCK relations = QueryRelations(BusRelations);
  EXPECT_EQ(std::vector<PDEVICE_OBJECT>{mChildren[1]->GetDeviceObject()}, kntest::TakeRelations(relations.Information));
  ASSERT_EQ(KnChildPresence_ReportedMissing, mChildren[0]->GetPresence());
  TakeTrace();

  PDEVICE_OBJECT gone = mChildren[0]->GetDeviceObject();
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[0], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_EQ(1, mDestructions);
  EXPECT_FALSE(wdmsim::IsLiveDeviceObject(gone));
  EXPECT_EQ(std::vector<KnBusChildPdo*>{mChildren[1]}, Listed());
  EXPECT_EQ(objects - 1, wdmsim::LivePoolBlockCount(gKnDefaultPoolTag));
  EXPECT_EQ(strings - 2, wdmsim::LivePoolBlockCount(KN_CHILD_STRING_TAG));
  EXPECT_EQ(0, mJournal.lockDepth);
  // The hook ran under the lock; the exit trace comes after the object is gone.
  std::string trace = TakeTrace();
  size_t deleting = trace.find("fw:KN\\CHILD KnBusChildPdo::OnDispatchPnp: deleting KnBusChildPdo instance ");
  size_t destroyed = trace.find("fw:KnBusChildPdo::~KnBusChildPdo: instance ");
  size_t deviceGone = trace.find("fw:KnDeviceObject::DeleteDevice: deleting DeviceObject ");
  size_t exit = trace.find("fw]KnBusChildPdo::OnDispatchPnp 0x00000000 (STATUS_SUCCESS)\n", deleting);
  ASSERT_NE(std::string::npos, deleting) << trace;
  EXPECT_LT(deleting, destroyed);
  EXPECT_LT(destroyed, deviceGone);
  EXPECT_LT(deviceGone, exit);
  EXPECT_EQ(std::string::npos, trace.find("ASSERTION FAILED"));
  mChildren[0] = nullptr;
}

TEST_F(ChildRemovalTest, ChildAlreadyOutOfTheListIsDestroyedWithoutTouchingTheList) {
  mBus->RemoveChild(mChildren[1]);
  mChildren[1]->SetPresence(KnChildPresence_ReportedMissing);
  EXPECT_EQ(STATUS_SUCCESS, Send(mChildren[1], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_EQ(1, mDestructions);
  EXPECT_EQ(std::vector<KnBusChildPdo*>{mChildren[0]}, Listed());
}

}  // namespace
