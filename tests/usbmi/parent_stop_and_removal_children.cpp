// What a stop, a removal and a surprise removal of the parent do to the device and to the
// children: a stop unconfigures the device, the others leave it alone; every child is marked
// absent and the bus relations are invalidated, so the next answer leaves the children out and
// each is deleted on its removal; a child removed while still reported stays; a restart
// creates the children anew.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <algorithm>

#include <wdmsim/io.h>
#include <wdmsim/pnp.h>

#include "parent_on_usb_bus.h"

namespace usbmitest {
namespace {

class StopAndRemovalTest : public ParentOnUsbBus {
 protected:
  // The demo device started: RNDIS, ACM and the vendor function.
  std::vector<PDEVICE_OBJECT> StartDemo() {
    Plug(wdmsim::MakeDemoCompositeFirmware());
    EXPECT_EQ(STATUS_SUCCESS, AddAndStart());
    std::vector<PDEVICE_OBJECT> children = QueryBusRelations();
    EXPECT_EQ(3u, children.size());
    wdmsim::TakeRelationInvalidations();
    return children;
  }

  // Exactly one invalidation, of the parent's bus relations, since the last look.
  void ExpectOneBusRelationsInvalidation() {
    std::vector<wdmsim::RelationInvalidation> invalidations = wdmsim::TakeRelationInvalidations();
    ASSERT_EQ(1u, invalidations.size());
    EXPECT_EQ(mPdo, invalidations[0].pdo);
    EXPECT_EQ(BusRelations, invalidations[0].type);
  }

  void RemoveChildren(const std::vector<PDEVICE_OBJECT>& children) {
    for (PDEVICE_OBJECT child : children) {
      EXPECT_EQ(STATUS_SUCCESS, wdmsim::SendPnpIrp(child, IRP_MN_REMOVE_DEVICE).Status);
    }
  }
};

TEST_F(StopAndRemovalTest, StopUnconfiguresAndRestartCreatesTheChildrenAnew) {
  std::vector<PDEVICE_OBJECT> first = StartDemo();
  EXPECT_EQ(1, mFirmware->Configuration());

  // A child removed while the bus still reports it stays alive and reported.
  EXPECT_EQ(STATUS_SUCCESS, wdmsim::SendPnpIrp(first[1], IRP_MN_REMOVE_DEVICE).Status);
  EXPECT_TRUE(wdmsim::IsLiveDeviceObject(first[1]));
  EXPECT_EQ(first, QueryBusRelations());

  ASSERT_EQ(STATUS_SUCCESS, SendToParent(IRP_MN_QUERY_STOP_DEVICE));
  TakeSetConfigurations();
  ASSERT_EQ(STATUS_SUCCESS, SendToParent(IRP_MN_STOP_DEVICE));
  EXPECT_EQ(std::vector<uint16_t>{0}, TakeSetConfigurations());
  EXPECT_EQ(0, mFirmware->Configuration());
  ExpectOneBusRelationsInvalidation();
  std::string trace = TakeTrace();
  EXPECT_TRUE(Contains(trace, "usbmi:[Device::OnPnpStopDevice\n")) << trace;
  EXPECT_TRUE(Contains(trace, "usbmi:]Device::OnPnpStopDevice\n")) << trace;

  // The children are left out from now on, and each goes with its removal.
  EXPECT_TRUE(QueryBusRelations().empty());
  EXPECT_TRUE(QueryBusRelations().empty());
  for (PDEVICE_OBJECT child : first) {
    EXPECT_TRUE(wdmsim::IsLiveDeviceObject(child));
  }
  RemoveChildren(first);
  for (PDEVICE_OBJECT child : first) {
    EXPECT_FALSE(wdmsim::IsLiveDeviceObject(child));
  }

  ASSERT_EQ(STATUS_SUCCESS, Start());
  EXPECT_EQ(1, mFirmware->Configuration());
  std::vector<PDEVICE_OBJECT> second = QueryBusRelations();
  ASSERT_EQ(3u, second.size());
  std::vector<ChildView> views;
  for (PDEVICE_OBJECT child : second) {
    views.push_back(QueryChild(child));
  }
  EXPECT_EQ(u"USB\\VID_4A9B&PID_0042&MI_00", views[0].deviceId.value_or(u"?"));
  EXPECT_EQ(u"USB\\VID_4A9B&PID_0042&MI_02", views[1].deviceId.value_or(u"?"));
  EXPECT_EQ(u"USB\\VID_4A9B&PID_0042&MI_04", views[2].deviceId.value_or(u"?"));
}

TEST_F(StopAndRemovalTest, RemovalAndSurpriseRemovalLeaveTheDeviceConfigured) {
  for (UCHAR first : {UCHAR(IRP_MN_QUERY_REMOVE_DEVICE), UCHAR(IRP_MN_SURPRISE_REMOVAL)}) {
    SCOPED_TRACE(first == IRP_MN_SURPRISE_REMOVAL ? "surprise removal" : "removal");
    std::vector<PDEVICE_OBJECT> children = StartDemo();
    ASSERT_EQ(STATUS_SUCCESS, SendToParent(first));
    if (first == IRP_MN_SURPRISE_REMOVAL) {
      ExpectOneBusRelationsInvalidation();
      EXPECT_TRUE(QueryBusRelations().empty());
      EXPECT_TRUE(Contains(TakeTrace(), "usbmi:]Device::OnPnpSurpriseRemoval\n"));
      RemoveChildren(children);  // reported missing: deleted now
      for (PDEVICE_OBJECT child : children) {
        EXPECT_FALSE(wdmsim::IsLiveDeviceObject(child));
      }
    } else {
      // The PnP manager removes the children first; still reported, they stay until the
      // parent goes, which takes them with it.
      RemoveChildren(children);
    }
    TakeSetConfigurations();
    RemoveParent();
    // The hub driver resets a removed device itself; the parent sent nothing.
    EXPECT_TRUE(TakeSetConfigurations().empty());
    for (PDEVICE_OBJECT child : children) {
      EXPECT_FALSE(wdmsim::IsLiveDeviceObject(child));
    }
    EXPECT_TRUE(Contains(TakeTrace(), "usbmi:]Device::OnPnpRemoveDevice\n"));
    Unplug();
  }
}

}  // namespace
}  // namespace usbmitest
