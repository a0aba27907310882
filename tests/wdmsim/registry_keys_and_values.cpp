// Registry keys and values through the Zw services: opening and creating keys by absolute
// and relative paths, typed values and their sizes, access rights of handles, the IRQL
// rule, and handles left open at the end of a run.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <wdm.h>
#include <wdmsim/kernel.h>
#include <wdmsim/registry.h>

#include "expect_violation.h"

namespace {

const std::u16string kServiceKey = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\usbmi";
const wchar_t kServicePath[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\usbmi";

NTSTATUS OpenKey(HANDLE* handle, const wchar_t* path, ACCESS_MASK access, HANDLE root = nullptr) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
  return ZwOpenKey(handle, access, &attributes);
}

NTSTATUS CreateKey(HANDLE* handle, const wchar_t* path, ACCESS_MASK access, ULONG* disposition,
                   HANDLE root = nullptr) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
  return ZwCreateKey(handle, access, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, disposition);
}

NTSTATUS SetValue(HANDLE key, const wchar_t* name, ULONG type, const void* data, ULONG size) {
  UNICODE_STRING valueName;
  RtlInitUnicodeString(&valueName, name);
  return ZwSetValueKey(key, &valueName, 0, type, const_cast<void*>(data), size);
}

NTSTATUS QueryPartial(HANDLE key, const wchar_t* name, std::vector<uint8_t>* buffer, ULONG length, ULONG* result) {
  UNICODE_STRING valueName;
  RtlInitUnicodeString(&valueName, name);
  buffer->assign(length + 8, 0xEE);  // sentinel bytes show what was written
  return ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer->data(), length, result);
}

std::vector<uint8_t> Bytes(const void* data, size_t size) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  return std::vector<uint8_t>(p, p + size);
}

class Registry : public testing::Test {
 protected:
  void TearDown() override {
    for (HANDLE h : mOpen) EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
  }
  HANDLE Keep(HANDLE h) {
    mOpen.push_back(h);
    return h;
  }
  // The service key opened with access; closed at the end of the test.
  HANDLE Open(ACCESS_MASK access) {
    HANDLE h = nullptr;
    EXPECT_EQ(OpenKey(&h, kServicePath, access), STATUS_SUCCESS);
    return Keep(h);
  }

  wdmsim::Kernel mKernel;
  std::vector<HANDLE> mOpen;
};

TEST_F(Registry, CreateKeyNeedsItsParentAndTellsNewFromExisting) {
  HANDLE h = nullptr;
  ULONG disposition = 0;
  EXPECT_EQ(CreateKey(&h, L"\\Registry\\Machine\\Missing\\Child", KEY_ALL_ACCESS, &disposition),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(h, nullptr);
  EXPECT_FALSE(wdmsim::RegistryKeyExists(u"\\Registry\\Machine\\Missing"));

  ASSERT_EQ(CreateKey(&h, kServicePath, KEY_ALL_ACCESS, &disposition), STATUS_SUCCESS);
  Keep(h);
  EXPECT_EQ(disposition, static_cast<ULONG>(REG_CREATED_NEW_KEY));
  EXPECT_TRUE(wdmsim::RegistryKeyExists(kServiceKey));

  HANDLE again = nullptr;
  ASSERT_EQ(CreateKey(&again, L"\\REGISTRY\\machine\\SYSTEM\\currentcontrolset\\services\\USBMI", KEY_READ,
                      &disposition),
            STATUS_SUCCESS);
  Keep(again);
  EXPECT_EQ(disposition, static_cast<ULONG>(REG_OPENED_EXISTING_KEY));
  EXPECT_NE(again, h);  // a second handle to the same key

  HANDLE child = nullptr;
  ASSERT_EQ(CreateKey(&child, L"Parameters", KEY_ALL_ACCESS, &disposition, h), STATUS_SUCCESS);
  Keep(child);
  EXPECT_EQ(disposition, static_cast<ULONG>(REG_CREATED_NEW_KEY));
  EXPECT_TRUE(wdmsim::RegistryKeyExists(kServiceKey + u"\\parameters"));
}

TEST_F(Registry, OpenKeyFindsKeysByAbsoluteAndRelativePaths) {
  wdmsim::RegistryCreateKey(kServiceKey + u"\\Enum");
  HANDLE services = nullptr, usbmi = nullptr, missing = reinterpret_cast<HANDLE>(0x1234);
  ASSERT_EQ(OpenKey(&services, L"\\Registry\\Machine\\System\\CurrentControlSet\\Services", KEY_READ),
            STATUS_SUCCESS);
  Keep(services);
  ASSERT_EQ(OpenKey(&usbmi, L"USBMI\\enum", KEY_READ, services), STATUS_SUCCESS);
  Keep(usbmi);
  EXPECT_EQ(OpenKey(&missing, L"usbmi\\Nothing", KEY_READ, services), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(missing, nullptr);

  HANDLE bad = nullptr;
  EXPECT_EQ(OpenKey(&bad, L"Registry\\Machine", KEY_READ), STATUS_OBJECT_PATH_SYNTAX_BAD);  // absolute without '\'
  EXPECT_EQ(OpenKey(&bad, L"\\usbmi", KEY_READ, services), STATUS_OBJECT_PATH_SYNTAX_BAD);  // relative with '\'
  EXPECT_EQ(OpenKey(&bad, L"\\Registry\\\\Machine", KEY_READ), STATUS_OBJECT_NAME_INVALID);
  EXPECT_EQ(OpenKey(&bad, L"usbmi", KEY_READ, reinterpret_cast<HANDLE>(0x4444)), STATUS_INVALID_HANDLE);
}

TEST_F(Registry, ValuesKeepTheirTypeAndBytes) {
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(&key, kServicePath, KEY_ALL_ACCESS, nullptr), STATUS_SUCCESS);
  Keep(key);
  const ULONG dword = 0xA1B2C3D4;
  const ULONGLONG qword = 0x1122334455667788ull;
  const char16_t text[] = u"Veldoran";                       // 9 characters with the terminator
  const char16_t multi[] = u"one\0two\0";                    // 9 characters: "one", "two", end of list
  const uint8_t binary[] = {0x00, 0xFF, 0x10, 0x00, 0x7F};
  struct Case {
    const wchar_t* name;
    ULONG type;
    std::vector<uint8_t> data;
  } cases[] = {
      {L"TraceMask", REG_DWORD, Bytes(&dword, 4)},
      {L"Big", REG_QWORD, Bytes(&qword, 8)},
      {L"FamilyName", REG_SZ, Bytes(text, 18)},
      {L"Ids", REG_MULTI_SZ, Bytes(multi, 18)},
      {L"Blob", REG_BINARY, Bytes(binary, sizeof binary)},
      {L"Empty", REG_BINARY, {}},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(SetValue(key, c.name, c.type, c.data.data(), static_cast<ULONG>(c.data.size())), STATUS_SUCCESS);
  }
  for (const Case& c : cases) {
    std::vector<uint8_t> buffer;
    ULONG result = 0;
    ULONG whole = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) + static_cast<ULONG>(c.data.size());
    ASSERT_EQ(QueryPartial(key, c.name, &buffer, whole, &result), STATUS_SUCCESS);
    auto* info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer.data());
    EXPECT_EQ(result, whole);
    EXPECT_EQ(info->Type, c.type);
    EXPECT_EQ(info->DataLength, c.data.size());
    EXPECT_EQ(std::vector<uint8_t>(info->Data, info->Data + c.data.size()), c.data);
    EXPECT_EQ(buffer[whole], 0xEE);  // nothing written past the record
  }
  // The host sees the same bytes, under any case of the name.
  auto seen = wdmsim::RegistryGetValue(kServiceKey, u"familyNAME");
  ASSERT_TRUE(seen.has_value());
  EXPECT_EQ(seen->type, static_cast<uint32_t>(REG_SZ));
  EXPECT_EQ(seen->data, Bytes(text, 18));

  // Writing again replaces type and data.
  ASSERT_EQ(SetValue(key, L"tracemask", REG_BINARY, binary, 2), STATUS_SUCCESS);
  seen = wdmsim::RegistryGetValue(kServiceKey, u"TraceMask");
  ASSERT_TRUE(seen.has_value());
  EXPECT_EQ(seen->type, static_cast<uint32_t>(REG_BINARY));
  EXPECT_EQ(seen->data, std::vector<uint8_t>(binary, binary + 2));
}

TEST_F(Registry, QueryValueBufferBoundaries) {
  wdmsim::RegistrySetDword(kServiceKey, u"TraceMask", 0x11223344);
  HANDLE key = Open(KEY_READ);
  const ULONG fixed = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);  // 12
  const ULONG whole = fixed + 4;
  std::vector<uint8_t> buffer;
  ULONG result = 0;

  EXPECT_EQ(QueryPartial(key, L"TraceMask", &buffer, fixed - 1, &result), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(result, whole);
  EXPECT_EQ(buffer[0], 0xEE);  // nothing written

  EXPECT_EQ(QueryPartial(key, L"TraceMask", &buffer, fixed, &result), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(result, whole);
  auto* info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer.data());
  EXPECT_EQ(info->Type, static_cast<ULONG>(REG_DWORD));
  EXPECT_EQ(info->DataLength, 4u);
  EXPECT_EQ(buffer[fixed], 0xEE);  // the fixed part only

  EXPECT_EQ(QueryPartial(key, L"TraceMask", &buffer, whole - 1, &result), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(QueryPartial(key, L"TraceMask", &buffer, whole, &result), STATUS_SUCCESS);
  info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer.data());
  ULONG value;
  memcpy(&value, info->Data, 4);
  EXPECT_EQ(value, 0x11223344u);

  EXPECT_EQ(QueryPartial(key, L"NoSuchValue", &buffer, 64, &result), STATUS_OBJECT_NAME_NOT_FOUND);

  // The full record carries the name and then the data, at DataOffset.
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"TraceMask");
  std::vector<uint8_t> full(128, 0xEE);
  ASSERT_EQ(ZwQueryValueKey(key, &name, KeyValueFullInformation, full.data(), 128, &result), STATUS_SUCCESS);
  auto* record = reinterpret_cast<PKEY_VALUE_FULL_INFORMATION>(full.data());
  EXPECT_EQ(record->NameLength, 18u);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(record->Name), 9), u"TraceMask");
  EXPECT_GE(record->DataOffset, FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name) + 18u);
  memcpy(&value, full.data() + record->DataOffset, 4);
  EXPECT_EQ(value, 0x11223344u);
  EXPECT_EQ(result, record->DataOffset + 4);
}

TEST_F(Registry, HandlesGrantOnlyTheRightsAskedFor) {
  wdmsim::RegistrySetDword(kServiceKey, u"TraceMask", 3);
  HANDLE reader = Open(KEY_READ), writer = Open(KEY_SET_VALUE);
  const ULONG seven = 7;
  EXPECT_EQ(SetValue(reader, L"TraceMask", REG_DWORD, &seven, 4), STATUS_ACCESS_DENIED);
  EXPECT_EQ(SetValue(reader, L"NewValue", REG_DWORD, &seven, 4), STATUS_ACCESS_DENIED);
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"TraceMask");
  EXPECT_EQ(ZwDeleteValueKey(reader, &name), STATUS_ACCESS_DENIED);
  EXPECT_EQ(wdmsim::RegistryGetValue(kServiceKey, u"TraceMask")->data, (std::vector<uint8_t>{3, 0, 0, 0}));
  EXPECT_FALSE(wdmsim::RegistryGetValue(kServiceKey, u"NewValue").has_value());

  std::vector<uint8_t> buffer;
  ULONG result;
  EXPECT_EQ(QueryPartial(writer, L"TraceMask", &buffer, 64, &result), STATUS_ACCESS_DENIED);
  EXPECT_EQ(SetValue(writer, L"TraceMask", REG_DWORD, &seven, 4), STATUS_SUCCESS);
  EXPECT_EQ(wdmsim::RegistryGetValue(kServiceKey, u"TraceMask")->data, (std::vector<uint8_t>{7, 0, 0, 0}));

  HANDLE generic = Open(GENERIC_READ | GENERIC_WRITE);
  EXPECT_EQ(QueryPartial(generic, L"TraceMask", &buffer, 64, &result), STATUS_SUCCESS);
  EXPECT_EQ(ZwDeleteValueKey(generic, &name), STATUS_SUCCESS);
  EXPECT_EQ(ZwDeleteValueKey(generic, &name), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_FALSE(wdmsim::RegistryGetValue(kServiceKey, u"TraceMask").has_value());

  // A closed handle is invalid everywhere.
  HANDLE key = nullptr;
  ASSERT_EQ(OpenKey(&key, kServicePath, KEY_ALL_ACCESS), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(key), STATUS_INVALID_HANDLE);
  EXPECT_EQ(SetValue(key, L"TraceMask", REG_DWORD, &seven, 4), STATUS_INVALID_HANDLE);
  EXPECT_EQ(QueryPartial(key, L"TraceMask", &buffer, 64, &result), STATUS_INVALID_HANDLE);
  HANDLE child;
  EXPECT_EQ(OpenKey(&child, L"Sub", KEY_READ, key), STATUS_INVALID_HANDLE);
}

TEST_F(Registry, ServicesAboveDispatchAreReported) {
  wdmsim::RegistryCreateKey(kServiceKey);
  wdmsim_test::ExpectViolations expect;
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  HANDLE key = nullptr;
  NTSTATUS status = OpenKey(&key, kServicePath, KEY_READ);
  KeLowerIrql(old);
  EXPECT_EQ(status, STATUS_SUCCESS);  // reported, and the service carries on
  EXPECT_EQ(expect.Count("IRQL_NOT_LESS_OR_EQUAL"), 1);
  KeRaiseIrql(APC_LEVEL, &old);
  std::vector<uint8_t> buffer;
  ULONG result;
  QueryPartial(key, L"TraceMask", &buffer, 64, &result);
  KeLowerIrql(old);
  EXPECT_EQ(expect.Count("IRQL_NOT_LESS_OR_EQUAL"), 2);
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
  EXPECT_EQ(expect.Total(), 2);
}

TEST(RegistryEndOfRun, OpenKeyHandleIsReportedOnceAndTheTreeIsReset) {
  wdmsim_test::ExpectViolations expect;
  {
    wdmsim::Kernel kernel;
    wdmsim::RegistrySetDword(kServiceKey, u"TraceMask", 1);
    HANDLE key = nullptr;
    ASSERT_EQ(OpenKey(&key, kServicePath, KEY_READ), STATUS_SUCCESS);
  }
  EXPECT_EQ(expect.Count("HANDLE_LEAK"), 1);
  EXPECT_EQ(expect.Total(), 1);
  EXPECT_FALSE(wdmsim::RegistryKeyExists(kServiceKey));
  EXPECT_TRUE(wdmsim::RegistryKeyExists(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services"));
}

TEST(RegistryHostApi, RefusesPathsOutsideTheRegistry) {
  EXPECT_THROW(wdmsim::RegistryCreateKey(u"Machine\\System"), std::invalid_argument);
  EXPECT_THROW(wdmsim::RegistryCreateKey(u"\\Device\\Foo"), std::invalid_argument);
  EXPECT_THROW(wdmsim::RegistryKeyExists(u"\\Registry\\\\Machine"), std::invalid_argument);
}

}  // namespace
