// KnBusFdo: a function device object for a bus. It owns the list of its child PDOs and
// reports the present ones when the PnP manager asks for the bus relations; a child left
// out of an answer is marked reported-missing and deletes itself on its next removal.
#pragma once

#include <ntddk.h>

#include "knbuschildpdo.h"
#include "knfdo.h"
#include "knlist.h"

// Tag of the bus relations answer: "BPdo".
#define KN_BUS_RELATIONS_TAG 0x6F645042

class KnBusFdo : public KnFdo {
 public:
  KnBusFdo();
  // Destroys every child still in the list.
  ~KnBusFdo() override;

  // PASSIVE_LEVEL. Answers BusRelations with the present children (after any objects a
  // driver above already put in the answer) and passes the request down; any other type
  // goes down untouched, unlocked.
  NTSTATUS OnPnPQueryDeviceRelations(PIRP Irp) override;  // 15
  // Marks the child reported-missing.
  void OnChildNotReported(KnBusChildPdo* Child) override;  // 29

  // The child list, in insertion order. None of these locks: the caller holds Lock where
  // a child's removal could run at the same time.
  void AppendChild(KnBusChildPdo* Child) { mChildPdoList.InsertTail(Child); }
  void RemoveChild(KnBusChildPdo* Child) { mChildPdoList.Remove(Child); }
  KnBusChildPdo* GetFirstChild() const { return mChildPdoList.First(); }
  // NULL after the last child.
  KnBusChildPdo* GetNextChild(KnBusChildPdo* Child) const { return mChildPdoList.Next(Child); }
  bool IsChildListEmpty() const { return mChildPdoList.IsEmpty(); }

 protected:
  KnList<KnBusChildPdo> mChildPdoList;  // owns the children
};
