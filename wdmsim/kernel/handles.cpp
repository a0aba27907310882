#include "kernel/handles.h"

#include <map>
#include <mutex>

#include "kernel/lifecycle.h"
#include <wdmsim/verifier.h>

namespace wdmsim {
namespace handles {
namespace {

struct Entry {
  Kind kind;
  void* object;
  ACCESS_MASK granted;
};

struct Table {
  std::mutex lock;
  std::map<uintptr_t, Entry> entries;
  uintptr_t next = 0x80000004;  // kernel handles have the top bit set, multiples of 4
  CloseFunction closers[2] = {nullptr, nullptr};
};

Table& table() {
  static Table* t = new Table;  // outlives every static destructor that might close a handle
  return *t;
}

}  // namespace

HANDLE Create(Kind kind, void* object, ACCESS_MASK grantedAccess) {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  uintptr_t value = t.next;
  t.next += 4;
  t.entries[value] = Entry{kind, object, grantedAccess};
  return reinterpret_cast<HANDLE>(value);
}

bool Lookup(HANDLE handle, Kind kind, void** object, ACCESS_MASK* grantedAccess) {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  auto it = t.entries.find(reinterpret_cast<uintptr_t>(handle));
  if (it == t.entries.end() || it->second.kind != kind) return false;
  if (object) *object = it->second.object;
  if (grantedAccess) *grantedAccess = it->second.granted;
  return true;
}

void RegisterCloser(Kind kind, CloseFunction closer) {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  t.closers[static_cast<int>(kind)] = closer;
}

NTSTATUS Close(HANDLE handle) {
  Table& t = table();
  Entry entry;
  CloseFunction closer;
  {
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.entries.find(reinterpret_cast<uintptr_t>(handle));
    if (it == t.entries.end()) return STATUS_INVALID_HANDLE;
    entry = it->second;
    t.entries.erase(it);
    closer = t.closers[static_cast<int>(entry.kind)];
  }
  return closer ? closer(entry.object) : STATUS_SUCCESS;
}

size_t OpenCount() {
  Table& t = table();
  std::lock_guard<std::mutex> guard(t.lock);
  return t.entries.size();
}

void EndOfRun() {
  Table& t = table();
  std::map<uintptr_t, Entry> left;
  {
    std::lock_guard<std::mutex> guard(t.lock);
    left.swap(t.entries);
    t.next = 0x80000004;
  }
  for (const auto& [value, entry] : left) {
    ReportViolation("HANDLE_LEAK", entry.object, "handle 0x%lx (%s) was never closed", (unsigned long)value,
                    entry.kind == Kind::Thread ? "thread" : "registry key");
  }
}

}  // namespace handles
}  // namespace wdmsim

extern "C" NTSTATUS NTAPI ZwClose(HANDLE Handle) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    wdmsim::ReportViolation("IRQL_NOT_LESS_OR_EQUAL", Handle, "ZwClose called at IRQL %d", KeGetCurrentIrql());
  }
  return wdmsim::handles::Close(Handle);
}
