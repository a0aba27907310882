// KnBusChildPdo: a child physical device object of a KnBusFdo. It stores the child's
// identifiers and texts and answers the PnP manager's queries for them, runs the child's
// PnP states through one hook per minor function, completes power requests at once, and
// deletes itself when it is removed after its bus stopped reporting it.
#pragma once

#include <ntddk.h>

#include "knlist.h"
#include "knmultistringbuffer.h"
#include "knpnpdeviceobject.h"

class KnBusFdo;

// Whether the bus reports the child in its relations.
enum KnChildPresence {
  KnChildPresence_Absent = 0,           // not reported (constructed, or the bus stopped)
  KnChildPresence_Present = 1,          // reported
  KnChildPresence_ReportedMissing = 2,  // left out of an answer: deleted on its next removal
};

// Tag of the stored identifier strings and texts: "StrB".
#define KN_CHILD_STRING_TAG 0x42727453
// Tag of the answers a child hands to the PnP manager: "CPdo".
#define KN_CHILD_ANSWER_TAG 0x6F645043

class KnBusChildPdo : public KnPnPDeviceObject {
 public:
  explicit KnBusChildPdo(KnBusFdo* ParentFdo);
  // PASSIVE_LEVEL. The child must be out of its bus's list (the remove path and the bus's
  // destructor take it out first).
  ~KnBusChildPdo() override;

  // PASSIVE_LEVEL, with the remove lock that the routing took for this IRP; both release
  // it and complete the IRP.
  NTSTATUS OnDispatchPnp(KnPrivateDeviceExtension* Extension, PIRP Irp) override;    // 1
  NTSTATUS OnDispatchPower(KnPrivateDeviceExtension* Extension, PIRP Irp) override;  // 2

  // One hook per PnP minor function, called by OnDispatchPnp. Slots 13 to 21 run with
  // Lock held and leave the IRP to the dispatch; slots 22 to 30 take Lock themselves as
  // needed and complete the IRP.
  virtual NTSTATUS OnPnpStartDevice(PIRP Irp);                     // 13
  virtual NTSTATUS OnPnpQueryStopDevice(PIRP Irp);                 // 14
  virtual void OnPnpCancelStopDevice(PIRP Irp);                    // 15
  virtual void OnPnpStopDevice(PIRP Irp);                          // 16
  virtual NTSTATUS OnPnpQueryRemoveDevice(PIRP Irp);               // 17
  virtual void OnPnpCancelRemoveDevice(PIRP Irp);                  // 18
  virtual void OnPnpRemoveDevice(PIRP Irp);                        // 19
  virtual void OnPnpSurpriseRemoval(PIRP Irp);                     // 20
  // Fills the answer; the default copies mDeviceCapabilities.
  virtual void OnPnpQueryCapabilities(PDEVICE_CAPABILITIES Capabilities);  // 21
  // TargetDeviceRelation: this child; other types keep what the IRP carries.
  virtual NTSTATUS OnPnPQueryDeviceRelations(PIRP Irp);            // 22
  // Slots 23, 24 and 27 to 30 complete with the status the IRP carries.
  virtual NTSTATUS OnPnPQueryResources(PIRP Irp);                  // 23
  virtual NTSTATUS OnPnPQueryResourceRequirements(PIRP Irp);       // 24
  // A copy of the stored identifier (paged pool, "CPdo"), or STATUS_NOT_SUPPORTED.
  virtual NTSTATUS OnPnPQueryId(PIRP Irp);                         // 25
  // A copy of the stored text (paged pool, "CPdo"), or STATUS_NOT_SUPPORTED.
  virtual NTSTATUS OnPnPQueryDeviceText(PIRP Irp);                 // 26
  virtual NTSTATUS OnPnPQueryBusInformation(PIRP Irp);             // 27
  virtual NTSTATUS OnPnPQueryInterface(PIRP Irp);                  // 28
  virtual NTSTATUS OnPnPReadConfig(PIRP Irp);                      // 29
  virtual NTSTATUS OnPnPWriteConfig(PIRP Irp);                     // 30

  // The identifiers and texts, copied from NUL-terminated strings into PoolType with tag
  // "StrB". The Set... ones replace (empty when no memory), the Add... ones append to a
  // list (which keeps its strings when no memory).
  void SetStrDeviceId(PCWSTR String, POOL_TYPE PoolType);
  void SetStrInstanceId(PCWSTR String, POOL_TYPE PoolType);
  void AddStrHardwareId(PCWSTR String, POOL_TYPE PoolType);
  void AddStrCompatibleId(PCWSTR String, POOL_TYPE PoolType);
  void SetStrDeviceDescription(PCWSTR String, POOL_TYPE PoolType);
  void SetStrLocationInformation(PCWSTR String, POOL_TYPE PoolType);

  void SetPresence(KnChildPresence Presence) { mPresence = Presence; }
  KnChildPresence GetPresence() const { return (KnChildPresence)mPresence; }
  KnBusFdo* GetParentFdo() const { return mParentFdo; }
  // Whether the child is in its bus's list.
  bool IsLinked() const { return KnList<KnBusChildPdo>::IsLinked(&mChildListEntry); }
  // The child's name in traces: its first hardware identifier, NULL until one is set.
  PCWSTR GetName() const { return mStrHardwareIds.GetString(); }

 protected:
  LIST_ENTRY mChildListEntry;  // link in the bus's mChildPdoList
  KnBusFdo* mParentFdo;        // cleared when the child leaves the list
  ULONG mPresence;             // KnChildPresence
  KnMultiStringBuffer mStrDeviceId;
  KnMultiStringBuffer mStrInstanceId;
  KnMultiStringBuffer mStrHardwareIds;
  KnMultiStringBuffer mStrCompatibleIds;
  KnMultiStringBuffer mStrDeviceDescription;
  KnMultiStringBuffer mStrLocationInformation;

 private:
  friend class KnBusFdo;  // the bus links its children through mChildListEntry

  NTSTATUS OnPnpCapabilities(PIRP Irp);
  // Deletes this object when the bus no longer reports it.
  NTSTATUS OnPnpRemove(KnPrivateDeviceExtension* Extension, PIRP Irp, bool* Deleted);
  // Puts a paged copy of Source (NULL: nothing stored for the type) into the IRP's
  // status block; Method and TypeName name the query in traces.
  void AnswerWithCopy(PIRP Irp, const KnMultiStringBuffer* Source, const char* Method, const char* TypeName);
};
