// The bus FDO's relations answer: present children in list order behind whatever a driver
// above attached, referenced for the PnP manager, from paged pool tagged "BPdo"; children
// left out become reported-missing; pool exhaustion changes nothing; other relation types
// go down untouched without the lock; the bus's destruction takes its children along.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/io.h>
#include <wdmsim/pool.h>

#include "knnametables.h"
#include "kntrace.h"
#include "support_pnp_devices.h"
#include "support_test_driver.h"

namespace {

using kntest::TestChildPdo;

const ULONG kAboveTag = 0x65766F41;  // "Abov": the answer of a driver above us

class BusRelationsTest : public kntest::BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    AddPresentChildren(mChildren, 3, &mChildDestructions);
    gKnTraceMask = 0x7;
    TakeTrace();
  }
  void TearDown() override {
    BusTest::TearDown();
    EXPECT_EQ(3, mChildDestructions);  // the bus went with its children
  }
  IO_STATUS_BLOCK Query(DEVICE_RELATION_TYPE type, ULONG_PTR attached = 0) { return QueryRelations(type, attached); }
  std::vector<KnChildPresence> Presences() const {
    std::vector<KnChildPresence> presences;
    for (KnBusChildPdo* child = mBus->GetFirstChild(); child != NULL; child = mBus->GetNextChild(child)) {
      presences.push_back(child->GetPresence());
    }
    return presences;
  }
  PDEVICE_OBJECT Do(int i) const { return mChildren[i]->GetDeviceObject(); }
  // An answer as a filter driver above would have put it in, holding one object.
  ULONG_PTR AttachedAnswer(PDEVICE_OBJECT object) {
    PDEVICE_RELATIONS above = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), kAboveTag));
    above->Count = 1;
    above->Objects[0] = object;
    ObReferenceObject(object);
    return reinterpret_cast<ULONG_PTR>(above);
  }
  size_t AnswerBlockSize(ULONG_PTR information) const {
    for (const wdmsim::PoolBlockInfo& block : wdmsim::LivePoolBlocks()) {
      if (reinterpret_cast<ULONG_PTR>(block.address) == information) {
        EXPECT_EQ(KN_BUS_RELATIONS_TAG, block.tag);
        EXPECT_EQ(int(PagedPool), block.poolType);
        return block.size;
      }
    }
    ADD_FAILURE() << "the answer is not a live pool block";
    return 0;
  }

  TestChildPdo* mChildren[3] = {};
  int mChildDestructions = 0;
};

TEST_F(BusRelationsTest, PresentChildrenFollowTheAttachedObjectsInListOrder) {
  mChildren[1]->SetPresence(KnChildPresence_Absent);
  PDEVICE_OBJECT other = wdmsim::CreateRawPdo();
  ULONG_PTR above = AttachedAnswer(other);

  IO_STATUS_BLOCK result = Query(BusRelations, above);
  EXPECT_EQ(STATUS_SUCCESS, result.Status);
  EXPECT_NE(above, result.Information);
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(kAboveTag));
  EXPECT_EQ(8u + 8u * 3, AnswerBlockSize(result.Information));
  // Each object carries the reference the PnP manager drops.
  EXPECT_EQ(1, wdmsim::DeviceObjectReferences(Do(0)));
  EXPECT_EQ(0, wdmsim::DeviceObjectReferences(Do(1)));
  EXPECT_EQ((std::vector<PDEVICE_OBJECT>{other, Do(0), Do(2)}), kntest::TakeRelations(result.Information));
  EXPECT_EQ(0, wdmsim::DeviceObjectReferences(Do(0)));
  // The answer went down after the lock was given back.
  EXPECT_EQ(std::vector<std::string>{"pdo IRP_MN_QUERY_DEVICE_RELATIONS"}, mJournal.Take());
  EXPECT_FALSE(mJournal.downWhileLocked);
  EXPECT_EQ((std::vector<KnChildPresence>{KnChildPresence_Present, KnChildPresence_ReportedMissing,
                                          KnChildPresence_Present}),
            Presences());
  std::string trace = TakeTrace();
  EXPECT_NE(std::string::npos, trace.find("KnBusFdo::OnPnPQueryDeviceRelations: Type is 00000000 (BusRelations)\n"));
  EXPECT_NE(std::string::npos, trace.find("KnBusFdo::OnPnPQueryDeviceRelations: number of child objects to be reported: 2\n"));
  EXPECT_NE(std::string::npos, trace.find("already attached (1 objects)\n")) << trace;
  wdmsim::DeleteRawPdo(other);
}

TEST_F(BusRelationsTest, ChildrenLeftOutStayReportedMissingAndAnEmptyAnswerHasOneSlot) {
  // The device stopped: every child absent.
  for (TestChildPdo* child : mChildren) child->SetPresence(KnChildPresence_Absent);
  for (int round = 0; round < 2; round++) {
    IO_STATUS_BLOCK result = Query(BusRelations);
    EXPECT_EQ(STATUS_SUCCESS, result.Status);
    EXPECT_EQ(sizeof(DEVICE_RELATIONS), AnswerBlockSize(result.Information));
    EXPECT_TRUE(kntest::TakeRelations(result.Information).empty());
    EXPECT_EQ(std::vector<KnChildPresence>(3, KnChildPresence_ReportedMissing), Presences());
  }
  // One present child: the block has exactly its slot.
  mChildren[2]->SetPresence(KnChildPresence_Present);
  IO_STATUS_BLOCK result = Query(BusRelations);
  EXPECT_EQ(16u, AnswerBlockSize(result.Information));
  EXPECT_EQ(std::vector<PDEVICE_OBJECT>{Do(2)}, kntest::TakeRelations(result.Information));
}

TEST_F(BusRelationsTest, PoolExhaustionCompletesAtOnceAndChangesNothing) {
  mChildren[0]->SetPresence(KnChildPresence_Absent);
  PDEVICE_OBJECT other = wdmsim::CreateRawPdo();
  ULONG_PTR above = AttachedAnswer(other);
  wdmsim::FailPoolAllocationsWithTag(KN_BUS_RELATIONS_TAG);
  IO_STATUS_BLOCK result = Query(BusRelations, above);
  EXPECT_EQ(1, wdmsim::InjectedPoolFailures());
  wdmsim::ClearPoolFaults();
  EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, result.Status);
  EXPECT_TRUE(mJournal.Take().empty());  // not passed down
  EXPECT_EQ(0, mJournal.lockDepth);
  EXPECT_EQ(above, result.Information);  // neither freed nor replaced
  EXPECT_EQ(std::vector<PDEVICE_OBJECT>{other}, kntest::TakeRelations(result.Information));
  EXPECT_EQ((std::vector<KnChildPresence>{KnChildPresence_Absent, KnChildPresence_Present, KnChildPresence_Present}),
            Presences());
  EXPECT_EQ(0, wdmsim::DeviceObjectReferences(Do(1)));
  wdmsim::DeleteRawPdo(other);
}

TEST_F(BusRelationsTest, OtherRelationTypesGoDownUntouchedAndUnlocked) {
  const ULONG_PTR sentinel = 0x5EB71E15;
  for (DEVICE_RELATION_TYPE type : {EjectionRelations, PowerRelations, RemovalRelations}) {
    SCOPED_TRACE(KnDeviceRelationTypeName(type));
    int locks = mJournal.lockCalls;
    IO_STATUS_BLOCK result = Query(type, sentinel);
    EXPECT_EQ(STATUS_NOT_SUPPORTED, result.Status);
    EXPECT_EQ(sentinel, result.Information);
    EXPECT_EQ(std::vector<std::string>{"pdo IRP_MN_QUERY_DEVICE_RELATIONS"}, mJournal.Take());
    EXPECT_EQ(locks, mJournal.lockCalls);
  }
  // The target relation is the bus driver's answer: its own PDO.
  IO_STATUS_BLOCK target = Query(TargetDeviceRelation);
  EXPECT_EQ(STATUS_SUCCESS, target.Status);
  EXPECT_EQ(std::vector<PDEVICE_OBJECT>{mPdo}, kntest::TakeRelations(target.Information));
  EXPECT_EQ(std::vector<KnChildPresence>(3, KnChildPresence_Present), Presences());
}

}  // namespace
