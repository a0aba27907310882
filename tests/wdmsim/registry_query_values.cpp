// RtlQueryRegistryValues: what each query routine receives for present, missing and
// defaulted values, REG_EXPAND_SZ expansion and REG_MULTI_SZ splitting with and without
// RTL_QUERY_REGISTRY_NOEXPAND, routine failures, direct storage, and where the key is.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdm.h>
#include <wdmsim/kernel.h>
#include <wdmsim/pool.h>
#include <wdmsim/registry.h>

#include "expect_violation.h"

namespace {

const std::u16string kKey = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\usbmi";
const wchar_t kKeyPath[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\usbmi";

struct Call {
  std::u16string name;
  ULONG type;
  std::vector<uint8_t> data;
  PVOID entryContext = nullptr;
  bool operator==(const Call& o) const {
    return name == o.name && type == o.type && data == o.data && entryContext == o.entryContext;
  }
};

void PrintTo(const Call& c, std::ostream* os) {
  *os << "{" << std::string(c.name.begin(), c.name.end()) << " type " << c.type << " " << c.data.size() << " bytes:";
  for (uint8_t b : c.data) *os << " " << int(b);
  *os << " context " << c.entryContext << "}";
}
using Calls = std::vector<Call>;

struct Recorder {
  std::vector<Call> calls;
  std::vector<NTSTATUS> answers;  // what the routine returns, call by call (then success)
};

NTSTATUS NTAPI Record(PWSTR name, ULONG type, PVOID data, ULONG length, PVOID context, PVOID entryContext) {
  Recorder* recorder = static_cast<Recorder*>(context);
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  recorder->calls.push_back(Call{name ? std::u16string(reinterpret_cast<const char16_t*>(name)) : u"<null>", type,
                                 std::vector<uint8_t>(bytes, bytes + (bytes ? length : 0)), entryContext});
  size_t index = recorder->calls.size() - 1;
  return index < recorder->answers.size() ? recorder->answers[index] : STATUS_SUCCESS;
}

std::vector<uint8_t> Utf16(const std::u16string& text, bool terminated = true) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(text.c_str());
  return std::vector<uint8_t>(p, p + (text.size() + (terminated ? 1 : 0)) * 2);
}

RTL_QUERY_REGISTRY_TABLE Entry(const wchar_t* name, ULONG flags, PVOID entryContext = nullptr) {
  RTL_QUERY_REGISTRY_TABLE entry = {};
  entry.QueryRoutine = Record;
  entry.Flags = flags;
  entry.Name = const_cast<PWSTR>(name);
  entry.EntryContext = entryContext;
  return entry;
}

NTSTATUS QueryOne(const RTL_QUERY_REGISTRY_TABLE& entry, Recorder* recorder, PVOID environment = nullptr) {
  RTL_QUERY_REGISTRY_TABLE table[2] = {entry, {}};
  return RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, table, recorder, environment);
}

class QueryValues : public testing::Test {
 protected:
  QueryValues() { wdmsim::RegistryCreateKey(kKey); }
  wdmsim::Kernel mKernel;
};

TEST_F(QueryValues, MissingValueRequiredOrDefaulted) {
  Recorder recorder;
  EXPECT_EQ(QueryOne(Entry(L"Missing", RTL_QUERY_REGISTRY_REQUIRED), &recorder), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(QueryOne(Entry(L"Missing", 0), &recorder), STATUS_SUCCESS);
  EXPECT_TRUE(recorder.calls.empty());

  ULONG fallback = 0x5EED;
  RTL_QUERY_REGISTRY_TABLE defaulted = Entry(L"Missing", RTL_QUERY_REGISTRY_REQUIRED, &fallback);
  defaulted.DefaultType = REG_DWORD;
  defaulted.DefaultData = &fallback;
  defaulted.DefaultLength = sizeof fallback;
  EXPECT_EQ(QueryOne(defaulted, &recorder), STATUS_SUCCESS);
  // A string default without a length is measured, terminator included.
  RTL_QUERY_REGISTRY_TABLE text = Entry(L"Missing", 0);
  text.DefaultType = REG_SZ;
  text.DefaultData = const_cast<wchar_t*>(L"Dflt");
  EXPECT_EQ(QueryOne(text, &recorder), STATUS_SUCCESS);
  // A present value wins over the default, and arrives under its stored name.
  wdmsim::RegistrySetDword(kKey, u"TraceMask", 3);
  EXPECT_EQ(QueryOne(Entry(L"TRACEMASK", RTL_QUERY_REGISTRY_REQUIRED), &recorder), STATUS_SUCCESS);
  EXPECT_EQ(recorder.calls, (Calls{{u"Missing", REG_DWORD, {0xED, 0x5E, 0, 0}, &fallback},
                                   {u"Missing", REG_SZ, Utf16(u"Dflt")},
                                   {u"TraceMask", REG_DWORD, {3, 0, 0, 0}}}));
}

TEST_F(QueryValues, ExpandStringIsExpandedUnlessNoExpand) {
  wdmsim::RegistrySetEnvironment(u"DriverName", u"usbmi");
  const std::u16string raw = u"%SystemRoot%\\system32\\%Undefined%\\%drivername%.sys";
  wdmsim::RegistrySetString(kKey, u"ImagePath", raw, REG_EXPAND_SZ);
  wdmsim::RegistrySetString(kKey, u"Plain", u"no references", REG_EXPAND_SZ);

  Recorder recorder;
  ASSERT_EQ(QueryOne(Entry(L"ImagePath", RTL_QUERY_REGISTRY_REQUIRED), &recorder), STATUS_SUCCESS);
  ASSERT_EQ(QueryOne(Entry(L"ImagePath", RTL_QUERY_REGISTRY_REQUIRED | RTL_QUERY_REGISTRY_NOEXPAND), &recorder),
            STATUS_SUCCESS);
  ASSERT_EQ(QueryOne(Entry(L"Plain", RTL_QUERY_REGISTRY_REQUIRED), &recorder), STATUS_SUCCESS);
  // An environment block given by the caller replaces the machine's environment.
  const wchar_t block[] = L"=C:=C:\\\0DRIVERNAME=other\0SystemRoot=D:\\NT\0";
  ASSERT_EQ(QueryOne(Entry(L"ImagePath", 0), &recorder, const_cast<wchar_t*>(block)), STATUS_SUCCESS);
  EXPECT_EQ(recorder.calls, (Calls{{u"ImagePath", REG_SZ, Utf16(u"C:\\Windows\\system32\\%Undefined%\\usbmi.sys")},
                                   {u"ImagePath", REG_EXPAND_SZ, Utf16(raw)},
                                   {u"Plain", REG_EXPAND_SZ, Utf16(u"no references")},  // nothing to expand
                                   {u"ImagePath", REG_SZ, Utf16(u"D:\\NT\\system32\\%Undefined%\\other.sys")}}));
}

TEST_F(QueryValues, MultiStringOneCallPerStringOrWholeWithNoExpand) {
  struct Case {
    std::u16string stored;  // raw characters, as many as the value holds
    std::vector<std::u16string> strings;
  } cases[] = {
      {std::u16string(), {}},
      {std::u16string(1, u'\0'), {}},
      {std::u16string(2, u'\0'), {u""}},
      {std::u16string(u"One\0", 4), {u"One"}},
      {std::u16string(u"One\0\0", 5), {u"One"}},
      {std::u16string(u"One\0Two\0", 8), {u"One", u"Two"}},
      {std::u16string(u"One\0Two\0\0", 9), {u"One", u"Two"}},
      {std::u16string(u"One\0\0Three\0", 11), {u"One", u"", u"Three"}},
      {std::u16string(u"One\0\0Three\0\0", 12), {u"One", u"", u"Three"}},
      {std::u16string(u"Unterminated", 12), {u"Unterminated"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case of " << c.stored.size() << " characters");
    wdmsim::RegistrySetValue(kKey, u"Ids", REG_MULTI_SZ, Utf16(c.stored, false));
    Recorder split, whole;
    ASSERT_EQ(QueryOne(Entry(L"Ids", 0), &split), STATUS_SUCCESS);
    Calls expected;
    for (const std::u16string& text : c.strings) expected.push_back({u"Ids", REG_SZ, Utf16(text)});
    EXPECT_EQ(split.calls, expected);
    // Whole: exactly the stored bytes.
    ASSERT_EQ(QueryOne(Entry(L"Ids", RTL_QUERY_REGISTRY_NOEXPAND), &whole), STATUS_SUCCESS);
    EXPECT_EQ(whole.calls, (Calls{{u"Ids", REG_MULTI_SZ, Utf16(c.stored, false)}}));
  }
}

TEST_F(QueryValues, RoutineFailureEndsTheQueryButBufferTooSmallDoesNot) {
  wdmsim::RegistrySetDword(kKey, u"A", 1);
  wdmsim::RegistrySetDword(kKey, u"B", 2);
  wdmsim::RegistrySetString(kKey, u"M", std::u16string(u"x\0y\0z", 5), REG_MULTI_SZ);
  RTL_QUERY_REGISTRY_TABLE table[] = {Entry(L"A", 0), Entry(L"M", 0), Entry(L"B", 0), {}};

  Recorder failing;
  failing.answers = {STATUS_SUCCESS, STATUS_INSUFFICIENT_RESOURCES};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, table, &failing, nullptr),
            STATUS_INSUFFICIENT_RESOURCES);
  ASSERT_EQ(failing.calls.size(), 2u);  // stopped inside the multi-string, "B" never asked
  EXPECT_EQ(failing.calls[1].data, Utf16(u"x"));

  Recorder tooSmall;
  tooSmall.answers = {STATUS_BUFFER_TOO_SMALL, STATUS_BUFFER_TOO_SMALL};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, table, &tooSmall, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(tooSmall.calls.size(), 5u);  // A, x, y, z, B

  Recorder warning;
  warning.answers = {STATUS_BUFFER_OVERFLOW};  // a warning is no success either
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, table, &warning, nullptr),
            STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(warning.calls.size(), 1u);
}

TEST_F(QueryValues, KeyByHandleNeedsQueryValueRight) {
  wdmsim::RegistrySetDword(kKey, u"TraceMask", 9);
  UNICODE_STRING path;
  RtlInitUnicodeString(&path, kKeyPath);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
  HANDLE reader = nullptr, writer = nullptr;
  ASSERT_EQ(ZwOpenKey(&reader, KEY_READ, &attributes), STATUS_SUCCESS);
  ASSERT_EQ(ZwOpenKey(&writer, KEY_SET_VALUE, &attributes), STATUS_SUCCESS);

  RTL_QUERY_REGISTRY_TABLE table[] = {Entry(L"TraceMask", RTL_QUERY_REGISTRY_REQUIRED), {}};
  Recorder recorder;
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_HANDLE, static_cast<PCWSTR>(reader), table, &recorder, nullptr),
            STATUS_SUCCESS);
  EXPECT_EQ(recorder.calls.size(), 1u);
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_HANDLE, static_cast<PCWSTR>(writer), table, &recorder, nullptr),
            STATUS_ACCESS_DENIED);
  EXPECT_EQ(recorder.calls.size(), 1u);
  // The caller's handle stays open and usable.
  EXPECT_EQ(ZwClose(reader), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(writer), STATUS_SUCCESS);
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_HANDLE, static_cast<PCWSTR>(reader), table, &recorder, nullptr),
            STATUS_INVALID_HANDLE);
}

TEST_F(QueryValues, RelativeLocations) {
  wdmsim::RegistrySetDword(kKey, u"TraceMask", 5);
  RTL_QUERY_REGISTRY_TABLE table[] = {Entry(L"TraceMask", RTL_QUERY_REGISTRY_REQUIRED), {}};
  Recorder recorder;
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, L"usbmi", table, &recorder, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_CONTROL, L"..\\Services\\usbmi", table, &recorder, nullptr),
            STATUS_OBJECT_NAME_NOT_FOUND);  // ".." is an ordinary name
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_SERVICES | RTL_REGISTRY_OPTIONAL, L"nothing", table, &recorder,
                                   nullptr),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_MAXIMUM, L"usbmi", table, &recorder, nullptr),
            STATUS_INVALID_PARAMETER);
  EXPECT_EQ(recorder.calls.size(), 1u);
}

TEST_F(QueryValues, AllValuesSubkeysAndNoValueEntries) {
  wdmsim::RegistrySetDword(kKey, u"First", 1);
  wdmsim::RegistrySetDword(kKey, u"Second", 2);
  wdmsim::RegistrySetDword(kKey + u"\\Parameters", u"Inner", 3);
  wdmsim::RegistryCreateKey(kKey + u"\\Empty");
  RTL_QUERY_REGISTRY_TABLE table[] = {
      Entry(nullptr, 0),                                    // every value of the key
      Entry(L"Parameters", RTL_QUERY_REGISTRY_SUBKEY),      // every value of the subkey
      Entry(L"Inner", 0),                                   // still in the subkey
      Entry(L"Second", RTL_QUERY_REGISTRY_TOPKEY),          // back at the top
      Entry(nullptr, RTL_QUERY_REGISTRY_NOVALUE),           // just a call
      {},
  };
  Recorder recorder;
  ASSERT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, table, &recorder, nullptr), STATUS_SUCCESS);
  std::vector<std::u16string> names;
  for (const Call& call : recorder.calls) names.push_back(call.name);
  EXPECT_EQ(names, (std::vector<std::u16string>{u"First", u"Second", u"Inner", u"Inner", u"Second", u"<null>"}));
  EXPECT_EQ(recorder.calls.back().type, static_cast<ULONG>(REG_NONE));

  RTL_QUERY_REGISTRY_TABLE empty[] = {Entry(L"Empty", RTL_QUERY_REGISTRY_SUBKEY | RTL_QUERY_REGISTRY_REQUIRED), {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, empty, &recorder, nullptr),
            STATUS_OBJECT_NAME_NOT_FOUND);
  RTL_QUERY_REGISTRY_TABLE missing[] = {Entry(L"Nope", RTL_QUERY_REGISTRY_SUBKEY), {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, missing, &recorder, nullptr),
            STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(QueryValues, DirectEntriesStoreTheValue) {
  wdmsim::RegistrySetDword(kKey, u"TraceMask", 0xCAFE);
  wdmsim::RegistrySetString(kKey, u"FamilyName", u"Veldoran");
  ULONG mask = 0;
  WCHAR storage[9];
  UNICODE_STRING exact = {0, sizeof storage, storage};
  WCHAR small[8];
  UNICODE_STRING tooSmall = {0, sizeof small, small};
  UNICODE_STRING allocated = {0, 0, nullptr};
  auto direct = [](const wchar_t* name, PVOID target) {
    RTL_QUERY_REGISTRY_TABLE entry = {};
    entry.Flags = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_REQUIRED;
    entry.Name = const_cast<PWSTR>(name);
    entry.EntryContext = target;
    return entry;
  };
  RTL_QUERY_REGISTRY_TABLE table[] = {direct(L"TraceMask", &mask), direct(L"FamilyName", &exact),
                                      direct(L"FamilyName", &allocated), {}};
  ASSERT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, table, nullptr, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(mask, 0xCAFEu);
  EXPECT_EQ(exact.Length, 16);
  EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(storage)), u"Veldoran");
  ASSERT_NE(allocated.Buffer, nullptr);
  EXPECT_EQ(allocated.Length, 16);
  EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(allocated.Buffer), 8), u"Veldoran");
  RtlFreeUnicodeString(&allocated);  // the runtime's buffer; the end of the test checks it is gone

  RTL_QUERY_REGISTRY_TABLE small_table[] = {direct(L"FamilyName", &tooSmall), {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, small_table, nullptr, nullptr),
            STATUS_BUFFER_TOO_SMALL);

  RTL_QUERY_REGISTRY_TABLE invalid[] = {direct(nullptr, &mask), {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kKeyPath, invalid, nullptr, nullptr),
            STATUS_INVALID_PARAMETER);
}

TEST_F(QueryValues, TypeCheckAndDeleteAndTheIrqlRule) {
  wdmsim::RegistrySetValue(kKey, u"Blob", REG_BINARY, {1, 2, 3, 4});
  RTL_QUERY_REGISTRY_TABLE checked = Entry(L"Blob", RTL_QUERY_REGISTRY_TYPECHECK);
  checked.DefaultType = REG_DWORD << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
  Recorder recorder;
  EXPECT_EQ(QueryOne(checked, &recorder), STATUS_OBJECT_TYPE_MISMATCH);
  EXPECT_TRUE(recorder.calls.empty());

  EXPECT_EQ(QueryOne(Entry(L"Blob", RTL_QUERY_REGISTRY_DELETE), &recorder), STATUS_SUCCESS);
  EXPECT_EQ(recorder.calls.size(), 1u);
  EXPECT_FALSE(wdmsim::RegistryGetValue(kKey, u"Blob").has_value());

  wdmsim_test::ExpectViolations expect;
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  QueryOne(Entry(L"Missing", 0), &recorder);
  KeLowerIrql(old);
  EXPECT_EQ(expect.Count("IRQL_NOT_LESS_OR_EQUAL"), 1);
}

}  // namespace
