// KnRegistryKey against the simulated registry: opening, the strict DWORD and string
// reads, the write-back of defaults and the traces of every failure.
#include <gtest/gtest.h>

#include <ntddk.h>

#include <string>
#include <vector>

#include <wdmsim/debugout.h>
#include <wdmsim/kernel.h>
#include <wdmsim/registry.h>

#include "knregistrykey.h"
#include "kntrace.h"

namespace {

const char16_t kKeyPathU[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kntest";
const WCHAR kKeyPath[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kntest";
const ULONG kKeyRead = 0x20019;  // KEY_READ as the driver passes it
const ULONG kSentinel = 0x5A5AA5A5;
const WCHAR kSentinelChar = 0x7E7E;

std::u16string Chars(const WCHAR* buffer, size_t count) {
  return std::u16string(reinterpret_cast<const char16_t*>(buffer), count);
}

std::string Narrow(const WCHAR* text) { return std::string(text, text + wcslen(text)); }

class RegistryKeyTest : public testing::Test {
 protected:
  void SetUp() override {
    wdmsim::SetDebugSink(wdmsim::DebugSink::Memory);
    KnTraceSetPrefix("kntest");
    gKnTraceMask = 3;
    wdmsim::RegistryCreateKey(kKeyPathU);
    wdmsim::TakeDebugOutput();
  }

  wdmsim::Kernel mKernel;
};

TEST_F(RegistryKeyTest, GetDwordValueOnReadOnlyKeyKeepsDefaultAndReportsTheFailedWriteBack) {
  KnRegistryKey key;
  ASSERT_EQ(STATUS_SUCCESS, key.OpenKey(kKeyPath, kKeyRead, false));
  ASSERT_TRUE(key.IsValid());
  wdmsim::TakeDebugOutput();

  ULONG value = 0;
  EXPECT_EQ(STATUS_ACCESS_DENIED, key.GetDwordValue(L"TraceMask", &value, kSentinel));
  EXPECT_EQ(kSentinel, value);
  EXPECT_EQ(
      "kntest:KnRegistryKey::QueryDword: RtlQueryRegistryValues(TraceMask) failed, stat=0xC0000034 "
      "(STATUS_OBJECT_NAME_NOT_FOUND)\n"
      "kntest:KnRegistryKey::SetDword: ZwSetValueKey(TraceMask) failed, stat=0xC0000022 (STATUS_ACCESS_DENIED)\n"
      "kntest:KnRegistryKey::GetDwordValue: SetDword(TraceMask) failed, stat=0xC0000022 (STATUS_ACCESS_DENIED)\n",
      wdmsim::TakeDebugOutput());
  EXPECT_FALSE(wdmsim::RegistryGetValue(kKeyPathU, u"TraceMask").has_value());
}

TEST_F(RegistryKeyTest, GetDwordValueWritesTheDefaultIntoAWritableKeyOnlyWhenTheValueIsMissing) {
  wdmsim::RegistrySetDword(kKeyPathU, u"Present", 0x11223344);
  KnRegistryKey key;
  ASSERT_EQ(STATUS_SUCCESS, key.OpenKey(kKeyPath, KEY_ALL_ACCESS, false));

  ULONG value = 0;
  EXPECT_EQ(STATUS_SUCCESS, key.GetDwordValue(L"Missing", &value, kSentinel));
  EXPECT_EQ(kSentinel, value);
  auto written = wdmsim::RegistryGetValue(kKeyPathU, u"Missing");
  ASSERT_TRUE(written.has_value());
  EXPECT_EQ(static_cast<uint32_t>(REG_DWORD), written->type);
  EXPECT_EQ((std::vector<uint8_t>{0xA5, 0xA5, 0x5A, 0x5A}), written->data);
  // Only the failed read is reported; the write-back succeeded.
  EXPECT_EQ(
      "kntest:KnRegistryKey::QueryDword: RtlQueryRegistryValues(Missing) failed, stat=0xC0000034 "
      "(STATUS_OBJECT_NAME_NOT_FOUND)\n",
      wdmsim::TakeDebugOutput());

  // A value that is there wins over the default and is left as it is.
  EXPECT_EQ(STATUS_SUCCESS, key.GetDwordValue(L"Present", &value, kSentinel));
  EXPECT_EQ(0x11223344u, value);
  EXPECT_EQ((std::vector<uint8_t>{0x44, 0x33, 0x22, 0x11}), wdmsim::RegistryGetValue(kKeyPathU, u"Present")->data);
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
}

TEST_F(RegistryKeyTest, QueryDwordAcceptsOnlyDwordsOfAtLeastFourBytes) {
  wdmsim::RegistrySetValue(kKeyPathU, u"Binary", REG_BINARY, {1, 2, 3, 4});
  wdmsim::RegistrySetValue(kKeyPathU, u"Short", REG_DWORD, {1, 2});
  wdmsim::RegistrySetValue(kKeyPathU, u"Long", REG_DWORD, {0x78, 0x56, 0x34, 0x12, 0xEE, 0xEE, 0xEE, 0xEE});
  wdmsim::RegistrySetString(kKeyPathU, u"Text", u"4");
  KnRegistryKey key;
  ASSERT_EQ(STATUS_SUCCESS, key.OpenKey(kKeyPath, kKeyRead, false));

  struct Case {
    const WCHAR* name;
    NTSTATUS status;
    ULONG value;
  } cases[] = {
      {L"Binary", STATUS_OBJECT_TYPE_MISMATCH, 0},
      {L"Text", STATUS_OBJECT_TYPE_MISMATCH, 0},
      {L"Short", STATUS_UNSUCCESSFUL, 0},
      {L"Long", STATUS_SUCCESS, 0x12345678},
      {L"Missing", STATUS_OBJECT_NAME_NOT_FOUND, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Narrow(c.name));
    ULONG value = kSentinel;
    EXPECT_EQ(c.status, key.QueryDword(c.name, &value));
    EXPECT_EQ(c.value, value);
  }
  // A value of the wrong kind is found and rejected without a platform failure:
  // only the missing value is traced.
  std::string out = wdmsim::TakeDebugOutput();
  EXPECT_EQ(std::string::npos, out.find("(Binary)"));
  EXPECT_EQ(std::string::npos, out.find("(Short)"));
  EXPECT_NE(std::string::npos, out.find("RtlQueryRegistryValues(Missing) failed"));
}

TEST_F(RegistryKeyTest, QueryStringTerminatesAndRejectsTooSmallBuffers) {
  struct Case {
    const char* what;
    uint32_t storedType;
    std::u16string stored;  // raw characters as stored, terminators included
    ULONG queryType;
    ULONG maxChars;
    NTSTATUS status;
    std::u16string expected;  // buffer contents, or untouched sentinels when too small
  } cases[] = {
      {"terminated, exact fit", REG_SZ, std::u16string(u"abc\0", 4), REG_SZ, 4, STATUS_SUCCESS,
       std::u16string(u"abc\0", 4)},
      {"terminated, one short", REG_SZ, std::u16string(u"abc\0", 4), REG_SZ, 3, STATUS_BUFFER_TOO_SMALL, u""},
      {"unterminated, exact fit needs the terminator", REG_SZ, u"abc", REG_SZ, 3, STATUS_BUFFER_TOO_SMALL, u""},
      {"unterminated, room for the terminator", REG_SZ, u"abc", REG_SZ, 4, STATUS_SUCCESS,
       std::u16string(u"abc\0", 4)},
      {"empty value", REG_SZ, u"", REG_SZ, 1, STATUS_SUCCESS, std::u16string(u"\0", 1)},
      {"either string type is accepted", REG_SZ, std::u16string(u"xy\0", 3), REG_EXPAND_SZ, 3, STATUS_SUCCESS,
       std::u16string(u"xy\0", 3)},
      {"environment strings are expanded", REG_EXPAND_SZ, u"%SystemRoot%\\x.sys", REG_EXPAND_SZ, 17, STATUS_SUCCESS,
       std::u16string(u"C:\\Windows\\x.sys\0", 17)},
      {"multi-string, exact fit", REG_MULTI_SZ, std::u16string(u"a\0b\0\0", 5), REG_MULTI_SZ, 5, STATUS_SUCCESS,
       std::u16string(u"a\0b\0\0", 5)},
      {"multi-string gets both terminators", REG_MULTI_SZ, std::u16string(u"a\0b", 3), REG_MULTI_SZ, 5, STATUS_SUCCESS,
       std::u16string(u"a\0b\0\0", 5)},
      {"multi-string, one short of the terminators", REG_MULTI_SZ, std::u16string(u"a\0b", 3), REG_MULTI_SZ, 4,
       STATUS_BUFFER_TOO_SMALL, u""},
      {"multi-string of one character reads as empty", REG_MULTI_SZ, u"z", REG_MULTI_SZ, 4, STATUS_SUCCESS,
       std::u16string(u"\0\0", 2)},
      {"multi-string below two characters of room", REG_MULTI_SZ, std::u16string(u"\0\0", 2), REG_MULTI_SZ, 1,
       STATUS_BUFFER_TOO_SMALL, u""},
      {"string asked for as multi-string", REG_SZ, std::u16string(u"a\0", 2), REG_MULTI_SZ, 8,
       STATUS_OBJECT_TYPE_MISMATCH, u""},
      {"dword asked for as string", REG_DWORD, std::u16string(u"\x0001\0", 2), REG_SZ, 8,
       STATUS_OBJECT_TYPE_MISMATCH, u""},
  };
  wdmsim::RegistrySetEnvironment(u"SystemRoot", u"C:\\Windows");
  KnRegistryKey key;
  ASSERT_EQ(STATUS_SUCCESS, key.OpenKey(kKeyPath, kKeyRead, false));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> data(c.stored.size() * 2);
    memcpy(data.data(), c.stored.data(), data.size());
    wdmsim::RegistrySetValue(kKeyPathU, u"Value", c.storedType, data);

    WCHAR buffer[24];
    for (WCHAR& ch : buffer) ch = kSentinelChar;
    EXPECT_EQ(c.status, key.QueryString(L"Value", buffer, c.maxChars, c.queryType));
    EXPECT_EQ(c.expected, Chars(buffer, c.expected.size()));
    // Nothing is written past what the result needs.
    EXPECT_EQ(kSentinelChar, buffer[c.expected.size()]);
  }
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
}

TEST_F(RegistryKeyTest, QueryStringRejectsBadArgumentsWithoutTouchingTheRegistry) {
  KnRegistryKey key;
  ASSERT_EQ(STATUS_SUCCESS, key.OpenKey(kKeyPath, kKeyRead, false));
  WCHAR buffer[4] = {kSentinelChar, kSentinelChar, kSentinelChar, kSentinelChar};

  // The value does not exist: a registry query would have traced its failure.
  EXPECT_EQ(STATUS_INVALID_PARAMETER, key.QueryString(L"Missing", buffer, 0, REG_SZ));
  EXPECT_EQ("kntest:KnRegistryKey::QueryString: MaxChars==0\n", wdmsim::TakeDebugOutput());
  EXPECT_EQ(STATUS_INVALID_PARAMETER, key.QueryString(L"Missing", buffer, 4, REG_DWORD));
  EXPECT_EQ(STATUS_INVALID_PARAMETER, key.QueryString(L"Missing", buffer, 4, REG_BINARY));
  EXPECT_EQ(
      "kntest:KnRegistryKey::QueryString: invalid type\n"
      "kntest:KnRegistryKey::QueryString: invalid type\n",
      wdmsim::TakeDebugOutput());
  EXPECT_EQ(kSentinelChar, buffer[0]);

  // A failed query leaves an empty string behind.
  EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, key.QueryString(L"Missing", buffer, 4, REG_SZ));
  EXPECT_EQ(0, buffer[0]);
  EXPECT_EQ(kSentinelChar, buffer[1]);
  EXPECT_EQ(
      "kntest:KnRegistryKey::QueryString: RtlQueryRegistryValues(Missing) failed, stat=0xC0000034 "
      "(STATUS_OBJECT_NAME_NOT_FOUND)\n",
      wdmsim::TakeDebugOutput());
}

TEST_F(RegistryKeyTest, OpenCreateAndCloseFollowTheKeyLifecycle) {
  KnRegistryKey key;
  // Closing a key that was never opened is silent.
  EXPECT_EQ(STATUS_SUCCESS, key.Close());
  EXPECT_FALSE(key.IsValid());

  const WCHAR subKey[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kntest\\Sub";
  EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, key.OpenKey(subKey, kKeyRead, false));
  EXPECT_FALSE(key.IsValid());
  EXPECT_EQ(
      "kntest:KnRegistryKey::OpenKey: ZwOpenKey(\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kntest\\Sub)"
      " failed, stat=0xC0000034 (STATUS_OBJECT_NAME_NOT_FOUND)\n",
      wdmsim::TakeDebugOutput());

  EXPECT_EQ(STATUS_SUCCESS, key.OpenKey(subKey, KEY_ALL_ACCESS, true));
  EXPECT_TRUE(key.IsValid());
  EXPECT_TRUE(wdmsim::RegistryKeyExists(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kntest\\Sub"));
  EXPECT_EQ(STATUS_SUCCESS, key.SetDword(L"Written", 7));
  EXPECT_EQ((std::vector<uint8_t>{7, 0, 0, 0}),
            wdmsim::RegistryGetValue(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kntest\\Sub",
                                     u"Written")
                ->data);

  // Opening again lets go of the first key (a leaked handle fails the run at shutdown).
  EXPECT_EQ(STATUS_SUCCESS, key.OpenKey(kKeyPath, kKeyRead, false));

  // A path relative to a root key.
  UNICODE_STRING rootPath;
  RtlInitUnicodeString(&rootPath, kKeyPath);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &rootPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
  HANDLE root = nullptr;
  ASSERT_EQ(STATUS_SUCCESS, ZwOpenKey(&root, kKeyRead, &attributes));
  KnRegistryKey relative;
  EXPECT_EQ(STATUS_SUCCESS, relative.OpenKey(root, L"Sub", kKeyRead, false));
  EXPECT_EQ(STATUS_SUCCESS, ZwClose(root));
  ULONG value = 0;
  EXPECT_EQ(STATUS_SUCCESS, relative.QueryDword(L"Written", &value));
  EXPECT_EQ(7u, value);

  EXPECT_EQ(STATUS_SUCCESS, key.Close());
  EXPECT_FALSE(key.IsValid());
  EXPECT_EQ(STATUS_SUCCESS, key.Close());
  EXPECT_EQ("", wdmsim::TakeDebugOutput());
  // `relative` is closed by its destructor.
}

}  // namespace
