// Device: the parent function device object of one composite USB device. A bus FDO on top
// of the device's PDO: at every start it reads its settings, selects one configuration,
// divides it into functions and creates one ChildPdo per function; a stop or removal undoes
// that and lets the PnP manager remove the children.
//
// The selective suspend engine (idle detection, sleep and wake, the notification pipe, the
// holding of requests while asleep) is not here yet: of its members only those that the
// start and stop sequence must create and release exist so far.
#pragma once

#include <ntddk.h>

#include <usb.h>
#include <usbioctl.h>

#include "knbusfdo.h"
#include "knevent.h"
#include "knirpqueue.h"
#include "knmutex.h"
#include "knpnplowerdeviceusb.h"
#include "knspinlock.h"
#include "knusbconfiguration.h"
#include "knusbconfigurationdesc.h"
#include "knworkitemex.h"
#include "devicesettings.h"

class ChildPdo;
class KnRegistryKey;
class KnUsbInterface;
class KnUsbPipe;
struct IadEntry;
struct InterfaceEntry;

class Device : public KnBusFdo {
 public:
  // How long the driver's own synchronous USB requests may take (descriptor reads, the
  // unconfiguration).
  static const ULONG kRequestTimeoutMs = 2500;

  Device();
  ~Device() override;

  // The PnP lock of the parent and of all its children. PASSIVE_LEVEL.
  void Lock() override;      // 11
  void Unlock() override;    // 12

  // PnP hooks, called by the framework with Lock held.
  void OnPnpQueryCapabilitiesComplete(PDEVICE_CAPABILITIES Capabilities) override;
  NTSTATUS OnPnpStartDevice(PIRP Irp) override;
  void OnPnpStopDevice() override;
  void OnPnpRemoveDevice() override;
  void OnPnpSurpriseRemoval() override;

  // Creates the device object and attaches it on top of the PDO's stack.
  virtual NTSTATUS OnAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);

  // PASSIVE_LEVEL, Lock held. Undoes what the start built: the device is unconfigured (on the
  // device itself only with Send) and every child is marked absent for the PnP manager.
  void StopDevice(BOOLEAN Send);

  // PASSIVE_LEVEL. Whether the parent hub is a root hub (mConnectedToRootHub) and the hub's
  // node information, 76 bytes of the caller's.
  NTSTATUS GetHubInfo(PUSB_NODE_INFORMATION NodeInformation);

  // PASSIVE_LEVEL, Lock held. One child per function of the selected configuration, with its
  // configuration set, texts and identifiers, in child-list order; then the PnP manager is
  // asked for the bus relations. STATUS_SUCCESS only when the last child made succeeded.
  NTSTATUS CreateChildren();
  // Whether every character is a digit, an ASCII letter or the underscore (empty is valid).
  static BOOLEAN IsSemanticString(PCWSTR String);

  // What the children take from their parent.
  KnPnPLowerDeviceUsb* GetLowerDeviceUsb() { return &mLowerDeviceUsb; }
  const DEVICE_CAPABILITIES* GetDeviceCapabilities() const { return &mDeviceCapabilities; }
  ULONG GetChildCount() const { return mChildCount; }

  // --- Interface enumeration: the division of the parent's set into functions ---
  // Empties both lists, then fills them from mConfigDesc, which must stay held while they exist.
  void CreateLists();
  // Deletes every entry of both lists.
  void FreeLists();
  // The first interface entry with that number, taken off the list (the caller deletes it), or NULL.
  InterfaceEntry* TakeInterface(UCHAR InterfaceNumber);
  // Takes the next function off the lists: its first interface (NULL when there is none),
  // its interface count and the bytes of descriptors from that interface on.
  PUSB_INTERFACE_DESCRIPTOR GetInterfaces(ULONG* InterfaceCount, ULONG* Size);
  // Takes the notification interface (FF/01/00) out, so that no child is made for it.
  void SSGetSelSuspendInterface();
  // A function's own configuration descriptor set: the parent's header with wTotalLength and
  // bNumInterfaces replaced, then Size bytes from FirstInterface on (never read past the
  // parent's ParentLength bytes). Pool tag "USBM"; NULL when no memory.
  static PUSB_CONFIGURATION_DESCRIPTOR BuildChildConfigurationDescriptor(const USB_CONFIGURATION_DESCRIPTOR* Parent,
                                                                         ULONG ParentLength,
                                                                         const USB_INTERFACE_DESCRIPTOR* FirstInterface,
                                                                         ULONG InterfaceCount, ULONG Size);

 protected:
  // The next interface association descriptor after Start in mConfigDesc, or NULL.
  PUCHAR NextIad(PVOID Start) const;
  // Reads the settings in their order from the open hardware key; the two configuration
  // choices are used by the start only.
  void ReadSettings(KnRegistryKey* Key, ULONG* HighPowerCfg, ULONG* LowPowerCfg);
  // The child's description and location: the function's interface string, else the
  // parent's texts that exist (NULL: missing).
  void SetChildTexts(ChildPdo* Child, UCHAR StringIndex, PCWSTR ParentDescription, PCWSTR ParentLocation);
  // The string of the first CDC data interface in the child's set, if it is an acceptable
  // semantic string; Semantic holds 32 characters.
  BOOLEAN ReadSemanticString(ChildPdo* Child, WCHAR* Semantic);
  // Marks every child absent and asks the PnP manager for the bus relations, which then
  // leave them out; each is deleted on its next removal.
  void ReportChildrenMissing();

  KnUsbConfiguration mUsbConfiguration;  // the configuration selected on the device
  KnUsbConfigurationDesc mConfigDesc;    // its descriptor set, held until the next start or the end
  KnSpinLock mSelSusLock;
  USB_DEVICE_DESCRIPTOR mDeviceDescriptor;
  UCHAR mEp0InUse;
  UCHAR mDeviceRemoved;
  ULONG mOSVersion;  // DeviceOSVersion
  UCHAR mConnectedToRootHub;
  UCHAR mCyclePortOnPowerOn;
  KnWorkItemEx mCyclePortWorker;
  KnPnPLowerDeviceUsb mLowerDeviceUsb;  // the stack below; the FDO's mLowerDevice points here
  KnMutex mDeviceMutex;                 // behind Lock and Unlock
  LIST_ENTRY mInterfaceList;            // InterfaceEntry, in descriptor order
  LIST_ENTRY mIadList;                  // IadEntry, in descriptor order
  KnIrpQueue mVendorIrpQueue;           // vendor requests waiting for the default pipe
  ULONG mConfigInPnpId;
  ULONG mUsbConfigurationValue;         // the number after "CF_" in identifiers
  ULONG mChildCount;                    // children put into the list by the last start
  KnUsbInterface* mSelSusInterface;     // the notification interface, if any
  KnUsbPipe* mSelSusPipe;
  WCHAR mFamilyName[kFamilyNameChars];  // empty: children identified by vendor, product, interface
  ULONG mIdlePeriod;                    // ms
  ULONG mSelSusOperation;
  LONG mSelSusMode;
  UCHAR mTrySsOnXpWithHub;
  PIRP mIdleNotificationIrp;            // allocated by the start, freed by the stop
  KnEvent mIdleNotificationComplete;    // notification; set while the IRP is not in the hub driver
  LONGLONG mNextSleepTime;              // ms; no selective suspend before
};
