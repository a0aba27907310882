// KnList: an intrusive doubly linked list of T objects. Each object carries its own
// LIST_ENTRY (the member named to the constructor) and the list hands out objects, not
// links. A link points to itself while its object is in no list, so an object can tell
// whether it is linked. No operation locks: the owner of the list serialises them.
#pragma once

#include <ntddk.h>

template <class T>
class KnList {
 public:
  explicit KnList(LIST_ENTRY T::*Link) : mLink(Link), mLinkOffset(0) { InitializeListHead(&mHead); }

  // For the objects' constructors: their link starts out unlinked.
  static void InitializeLink(PLIST_ENTRY Link) { InitializeListHead(Link); }
  static bool IsLinked(const LIST_ENTRY* Link) { return Link->Flink != Link; }

  bool IsEmpty() const { return IsListEmpty(&mHead); }
  void InsertTail(T* Item) {
    PLIST_ENTRY link = &(Item->*mLink);
    // Where the link sits inside every T, taken from a real object.
    mLinkOffset = (ULONG_PTR)link - (ULONG_PTR)Item;
    InsertTailList(&mHead, link);
  }
  // NULL at the end of the list.
  T* First() const { return Owner(mHead.Flink); }
  T* Next(T* Item) const { return Owner((Item->*mLink).Flink); }
  // Item must be in this list; its link is unlinked afterwards.
  void Remove(T* Item) {
    PLIST_ENTRY link = &(Item->*mLink);
    RemoveEntryList(link);
    InitializeListHead(link);
  }
  // NULL when empty.
  T* RemoveHead() {
    T* item = First();
    if (item != NULL) {
      Remove(item);
    }
    return item;
  }

 private:
  KnList(const KnList&);
  KnList& operator=(const KnList&);

  T* Owner(PLIST_ENTRY Link) const { return Link == &mHead ? NULL : (T*)((ULONG_PTR)Link - mLinkOffset); }

  LIST_ENTRY mHead;
  LIST_ENTRY T::*mLink;
  ULONG_PTR mLinkOffset;
};
