// What a bus child answers about itself: identifiers and texts as exact copies of what was
// stored (single strings and NUL-closed lists), from paged pool tagged "CPdo"; nothing for
// types without data; its own device object as target relation; and how the stored
// strings behave when the pool runs dry.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/io.h>
#include <wdmsim/pool.h>

#include "knmultistringbuffer.h"
#include "kntrace.h"
#include "support_pnp_devices.h"

namespace {

using kntest::Has;
using kntest::TestChildPdo;

const ULONG kAboveTag = 0x65766F41;  // "Abov": the answer of a driver above the child

// The UTF-16 bytes of text, in which '|' stands for a NUL.
std::vector<uint8_t> Utf16(const std::string& text) {
  std::vector<uint8_t> bytes;
  for (char c : text) {
    bytes.push_back(c == '|' ? 0 : uint8_t(c));
    bytes.push_back(0);
  }
  return bytes;
}

class ChildIdentityTest : public kntest::BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    mChild = kntest::AddPresentChild(mBus, &mJournal);
    ASSERT_NE(nullptr, mChild);
    gKnTraceMask = 0x7;
    TakeTrace();
  }
  IO_STATUS_BLOCK QueryId(BUS_QUERY_ID_TYPE type) {
    return wdmsim::SendPnpIrp(mChild->GetDeviceObject(), IRP_MN_QUERY_ID,
                              [type](IO_STACK_LOCATION& stack) { stack.Parameters.QueryId.IdType = type; });
  }
  IO_STATUS_BLOCK QueryText(DEVICE_TEXT_TYPE type) {
    return wdmsim::SendPnpIrp(mChild->GetDeviceObject(), IRP_MN_QUERY_DEVICE_TEXT, [type](IO_STACK_LOCATION& stack) {
      stack.Parameters.QueryDeviceText.DeviceTextType = type;
      stack.Parameters.QueryDeviceText.LocaleId = 0x409;
    });
  }
  IO_STATUS_BLOCK QueryRelation(DEVICE_RELATION_TYPE type, ULONG_PTR attached) {
    return wdmsim::SendIrpToStack(
        mChild->GetDeviceObject(), IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS,
        [type](IO_STACK_LOCATION& stack) { stack.Parameters.QueryDeviceRelations.Type = type; }, STATUS_NOT_SUPPORTED,
        attached);
  }
  // The answer's pool block must be paged and tagged "CPdo"; its bytes, freed afterwards.
  std::vector<uint8_t> Answer(const IO_STATUS_BLOCK& result) {
    EXPECT_EQ(STATUS_SUCCESS, result.Status);
    for (const wdmsim::PoolBlockInfo& block : wdmsim::LivePoolBlocks()) {
      if (reinterpret_cast<ULONG_PTR>(block.address) == result.Information) {
        EXPECT_EQ(KN_CHILD_ANSWER_TAG, block.tag);
        EXPECT_EQ(int(PagedPool), block.poolType);
      }
    }
    return kntest::TakeAnswerBytes(result.Information);
  }

  TestChildPdo* mChild = nullptr;
};

TEST_F(ChildIdentityTest, IdentifiersAndTextsAreAnsweredByteForByte) {
  mChild->SetStrDeviceId(L"USB\\VID_1234&PID_0001&MI_00", PagedPool);
  mChild->AddStrHardwareId(L"USB\\VID_1234&PID_0001&REV_0100&MI_00", NonPagedPool);
  mChild->AddStrHardwareId(L"USB\\VID_1234&PID_0001&MI_00", NonPagedPool);
  mChild->AddStrCompatibleId(L"USB\\Class_02", PagedPool);
  mChild->SetStrInstanceId(L"6&1", PagedPool);
  mChild->SetStrDeviceDescription(L"Serial", PagedPool);
  mChild->SetStrLocationInformation(L"Port_#0001", PagedPool);
  // A replaced identifier keeps only the last string.
  mChild->SetStrInstanceId(L"6&2", PagedPool);

  EXPECT_EQ(Utf16("USB\\VID_1234&PID_0001&MI_00|"), Answer(QueryId(BusQueryDeviceID)));
  EXPECT_EQ(Utf16("USB\\VID_1234&PID_0001&REV_0100&MI_00|USB\\VID_1234&PID_0001&MI_00||"),
            Answer(QueryId(BusQueryHardwareIDs)));
  EXPECT_EQ(Utf16("USB\\Class_02||"), Answer(QueryId(BusQueryCompatibleIDs)));
  EXPECT_EQ(Utf16("6&2|"), Answer(QueryId(BusQueryInstanceID)));
  EXPECT_EQ(Utf16("Serial|"), Answer(QueryText(DeviceTextDescription)));
  EXPECT_EQ(Utf16("Port_#0001|"), Answer(QueryText(DeviceTextLocationInformation)));
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, ":USB\\VID_1234&PID_0001&REV_0100&MI_00 KnBusChildPdo::OnPnPQueryId: Type is 00000001 "
                         "(BusQueryHardwareIDs)\n"));
  EXPECT_TRUE(Has(trace, " KnBusChildPdo::OnPnPQueryDeviceText: Type is 00000000 (DeviceTextDescription)\n"));
}

TEST_F(ChildIdentityTest, TypesWithoutDataAreNotSupported) {
  struct Missing {
    IO_STATUS_BLOCK result;
    const char* trace;
  };
  mChild->AddStrHardwareId(L"HW", NonPagedPool);
  const Missing missing[] = {
      {QueryId(BusQueryDeviceID), "KnBusChildPdo::OnPnPQueryId: No string for type BusQueryDeviceID available\n"},
      {QueryId(BusQueryDeviceSerialNumber), "KnBusChildPdo::OnPnPQueryId: Type 00000004 not supported\n"},
      {QueryId(BUS_QUERY_ID_TYPE(5)), "KnBusChildPdo::OnPnPQueryId: No string for type unknown available\n"},
      {QueryText(DeviceTextLocationInformation),
       "KnBusChildPdo::OnPnPQueryDeviceText: No string for type DeviceTextLocationInformation available\n"},
      {QueryText(DEVICE_TEXT_TYPE(2)), "KnBusChildPdo::OnPnPQueryDeviceText: Type 00000002 not supported\n"},
  };
  std::string trace = TakeTrace();
  for (const Missing& m : missing) {
    SCOPED_TRACE(m.trace);
    EXPECT_EQ(STATUS_NOT_SUPPORTED, m.result.Status);
    EXPECT_EQ(0u, m.result.Information);
    EXPECT_TRUE(Has(trace, m.trace));
  }
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_CHILD_ANSWER_TAG));
}

TEST_F(ChildIdentityTest, PoolExhaustionFailsAnswersAndLeavesStoredStringsConsistent) {
  mChild->AddStrHardwareId(L"HW1", NonPagedPool);
  mChild->SetStrDeviceId(L"DEV", PagedPool);
  wdmsim::FailPoolAllocationsWithTag(KN_CHILD_ANSWER_TAG);
  IO_STATUS_BLOCK id = QueryId(BusQueryDeviceID);
  IO_STATUS_BLOCK target = QueryRelation(TargetDeviceRelation, 0);
  EXPECT_EQ(2, wdmsim::InjectedPoolFailures());
  wdmsim::ClearPoolFaults();
  for (const IO_STATUS_BLOCK& result : {id, target}) {
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, result.Status);
    EXPECT_EQ(0u, result.Information);
  }
  std::string trace = TakeTrace();
  EXPECT_TRUE(Has(trace, ":HW1 KnBusChildPdo::OnPnPQueryId: ExAllocatePoolWithTag failed\n"));
  EXPECT_TRUE(Has(trace, ":HW1 KnBusChildPdo::OnPnPQueryDeviceRelations: ExAllocatePoolWithTag failed\n"));

  // Storing fails: a list keeps what it had, a replaced string is gone.
  wdmsim::FailPoolAllocationsWithTag(KN_CHILD_STRING_TAG);
  mChild->AddStrHardwareId(L"HW2", NonPagedPool);
  mChild->SetStrDeviceId(L"DEV2", PagedPool);
  wdmsim::ClearPoolFaults();
  EXPECT_EQ(Utf16("HW1||"), Answer(QueryId(BusQueryHardwareIDs)));
  EXPECT_EQ(STATUS_NOT_SUPPORTED, QueryId(BusQueryDeviceID).Status);
  EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(KN_CHILD_STRING_TAG));
}

TEST_F(ChildIdentityTest, TargetRelationIsTheChildItselfAndOtherTypesKeepTheIrpAsItCame) {
  PDEVICE_OBJECT other = wdmsim::CreateRawPdo();
  PDEVICE_RELATIONS above = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), kAboveTag));
  above->Count = 1;
  above->Objects[0] = other;
  IO_STATUS_BLOCK target = QueryRelation(TargetDeviceRelation, reinterpret_cast<ULONG_PTR>(above));
  EXPECT_EQ(STATUS_SUCCESS, target.Status);
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(kAboveTag));  // the attached answer was freed
  EXPECT_EQ(1, wdmsim::DeviceObjectReferences(mChild->GetDeviceObject()));
  EXPECT_EQ(std::vector<PDEVICE_OBJECT>{mChild->GetDeviceObject()}, kntest::TakeRelations(target.Information));
  EXPECT_TRUE(Has(TakeTrace(), "KnBusChildPdo::OnPnPQueryDeviceRelations: DEVICE_RELATIONS structure ("));

  const ULONG_PTR sentinel = 0x5EB71E15;
  IO_STATUS_BLOCK bus = QueryRelation(BusRelations, sentinel);
  EXPECT_EQ(STATUS_NOT_SUPPORTED, bus.Status);
  EXPECT_EQ(sentinel, bus.Information);
  EXPECT_TRUE(Has(TakeTrace(), "KnBusChildPdo::OnPnPQueryDeviceRelations: Ignoring type 00000000 (BusRelations)\n"));
  wdmsim::DeleteRawPdo(other);
}

// The list form at its edges, on the buffer alone.
TEST_F(ChildIdentityTest, MultiStringBufferReplacesAndAppendsInListForm) {
  KnMultiStringBuffer buffer;
  EXPECT_EQ(nullptr, buffer.GetString());
  buffer.AppendString(L"", PagedPool, KN_CHILD_STRING_TAG);  // an empty string is still an entry
  EXPECT_EQ(4u, buffer.GetBufferSize());
  buffer.AppendString(L"A", PagedPool, KN_CHILD_STRING_TAG);
  const uint8_t* bytes = static_cast<const uint8_t*>(buffer.GetBuffer());
  EXPECT_EQ(Utf16("|A||"), std::vector<uint8_t>(bytes, bytes + buffer.GetBufferSize()));
  buffer.AppendString(L"BC", PagedPool, KN_CHILD_STRING_TAG);
  bytes = static_cast<const uint8_t*>(buffer.GetBuffer());
  EXPECT_EQ(Utf16("|A|BC||"), std::vector<uint8_t>(bytes, bytes + buffer.GetBufferSize()));
  // Replacing drops the whole list.
  buffer.SetString(L"D", PagedPool, KN_CHILD_STRING_TAG);
  bytes = static_cast<const uint8_t*>(buffer.GetBuffer());
  EXPECT_EQ(Utf16("D|"), std::vector<uint8_t>(bytes, bytes + buffer.GetBufferSize()));
  EXPECT_EQ(1u, wdmsim::LivePoolBlockCount(KN_CHILD_STRING_TAG));
  buffer.Free();
  EXPECT_EQ(0u, buffer.GetBufferSize());
  EXPECT_EQ(0u, wdmsim::LivePoolBlockCount(KN_CHILD_STRING_TAG));
}

}  // namespace
