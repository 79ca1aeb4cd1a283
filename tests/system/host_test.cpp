#include "tests/support/locale_scope.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/system.h>
#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace vrxutil::test {
namespace {

// --- The kind of the machine ------------------------------------------------------------

#ifndef __APPLE__

constexpr char kDesktop[] = "3\n";
constexpr char kNotebook[] = "10\n";

/// The firmware's tables as the test has them.
class CEnclosureTypeTest : public testing::Test {
protected:
  CEnclosureTypeTest() : before_(zulSetFirmwareFolder(folder_.path().c_str())) {}

  ~CEnclosureTypeTest() override { zulSetFirmwareFolder(before_); }

  void haveModel(std::string const& productName, char const* chassisType = kDesktop) {
    makeFile(folder_ / "product_name", productName);
    makeFile(folder_ / "chassis_type", chassisType);
  }

  /// What is answered, whatever stood there before.
  static bool isPortable() {
    bool portable = true;
    EXPECT_EQ(CEnclosureType::iIsAPortableComputer(portable), 0);
    bool again = false;
    EXPECT_EQ(CEnclosureType::iIsAPortableComputer(again), 0);
    EXPECT_EQ(portable, again);
    return portable;
  }

private:
  TemporaryFolder folder_;
  char const* before_;
};

TEST_F(CEnclosureTypeTest, ModelWithTheWordIsPortable) {
  haveModel("MacBookPro5,1\n");
  EXPECT_TRUE(isPortable());
}

TEST_F(CEnclosureTypeTest, AnObjectMayBeAsked) {
  haveModel("MacBookPro5,1\n");
  CEnclosureType enclosure;
  bool portable = false;
  EXPECT_EQ(enclosure.iIsAPortableComputer(portable), 0);
  EXPECT_TRUE(portable);
}

TEST_F(CEnclosureTypeTest, CaseOfTheWordDoesNotMatter) {
  for (char const* const name : {"book\n", "POWERBOOK\n", "ThinBoOk 5\n", "a notebook"}) {
    haveModel(name);
    EXPECT_TRUE(isPortable()) << name;
  }
}

TEST_F(CEnclosureTypeTest, ModelWithoutTheWordIsNotPortable) {
  for (char const* const name : {"Xserve3,1\n", "boo k\n", "b.o.o.k\n", "bok\n", "\n", ""}) {
    haveModel(name);
    EXPECT_FALSE(isPortable()) << name;
  }
}

TEST_F(CEnclosureTypeTest, PortableChassisIsPortable) {
  haveModel("Latitude 7420\n", kNotebook);
  EXPECT_TRUE(isPortable());
}

TEST_F(CEnclosureTypeTest, FailingQueryIsNotPortable) { EXPECT_FALSE(isPortable()); }

TEST_F(CEnclosureTypeTest, TextEndsAtItsFirstNul) {
  haveModel(std::string("Desk\0book", 9));
  EXPECT_FALSE(isPortable());
}

TEST_F(CEnclosureTypeTest, BytesBeyondAsciiDoNoHarm) {
  haveModel("\xFF\x80\xC3\xA4 Book\xFE\n");
  EXPECT_TRUE(isPortable());
}

// The text and its NUL have 256 bytes of room; a longer one is a failing query.
TEST_F(CEnclosureTypeTest, ModelMayFillItsBuffer) {
  haveModel(std::string(251, 'x') + "book\n");
  EXPECT_TRUE(isPortable());
  haveModel(std::string(252, 'x') + "book\n");
  EXPECT_FALSE(isPortable());
  haveModel("book" + std::string(2'000, 'x') + "\n");
  EXPECT_FALSE(isPortable());
}

TEST_F(CEnclosureTypeTest, HoldsInOtherLocales) {
  haveModel("MACBOOK\n");
  for (char const* const name : {"C", "C.UTF-8"}) {
    LocaleScope const locale(name);
    EXPECT_TRUE(isPortable()) << name;
  }
}

#endif

// --- Names of hosts ---------------------------------------------------------------------

struct HostName {
  char const* label;
  wchar_t const* name;
  wchar_t const* left;
  bool isCut;
};

void PrintTo(HostName const& row, std::ostream* out) { *out << row.label; }

class ConvertFqdnToNetbiosTest : public testing::TestWithParam<HostName> {};

TEST_P(ConvertFqdnToNetbiosTest, LeavesTheFirstLabel) {
  for (char const* const locale : {"C", "C.UTF-8"}) {
    LocaleScope const scope(locale);
    std::wstring name = GetParam().name;
    EXPECT_EQ(convertFqdnToNetbios(name), GetParam().isCut) << locale;
    EXPECT_EQ(name, GetParam().left) << locale;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Names, ConvertFqdnToNetbiosTest,
    testing::Values(HostName{"FullName", L"host.example.org", L"host", true},
                    HostName{"Label", L"host", L"host", false}, HostName{"Empty", L"", L"", false},
                    HostName{"Address", L"10.1.2.3", L"10.1.2.3", false},
                    HostName{"AnyAddress", L"0.0.0.0", L"0.0.0.0", false},
                    HostName{"NextToLastAddress", L"255.255.255.254", L"255.255.255.254", false},
                    HostName{"LastAddressCountsAsName", L"255.255.255.255", L"255", true},
                    HostName{"AddressOfTwoNumbers", L"10.1", L"10.1", false},
                    HostName{"HexadecimalAddress", L"0x7f.1", L"0x7f.1", false},
                    HostName{"NumberTooGreatForAnAddress", L"256.1.1.1", L"256", true},
                    HostName{"FiveNumbers", L"1.2.3.4.5", L"1", true},
                    HostName{"NumberInFront", L"10.example.org", L"10", true},
                    HostName{"PointAtFirst", L".local", L"", true},
                    HostName{"PointAlone", L".", L"", true},
                    HostName{"PointAtLast", L"host.", L"host", true},
                    HostName{"TwoPoints", L"host..org", L"host", true},
                    HostName{"CaseStays", L"HoSt.Example.ORG", L"HoSt", true},
                    HostName{"LongLabel", L"a-label-of-more-than-fifteen-characters.org",
                             L"a-label-of-more-than-fifteen-characters", true},
                    HostName{"BlankStays", L" my host.org", L" my host", true},
                    HostName{"BeyondAscii", L"h\u00F6st\u3042.example", L"h\u00F6st\u3042", true},
                    HostName{"OtherPointsStay", L"host\u3002example", L"host\u3002example", false},
                    HostName{"Ipv6Address", L"fe80::1", L"fe80::1", false}),
    [](testing::TestParamInfo<HostName> const& test) { return test.param.label; });

TEST(ConvertFqdnToNetbiosTest, LabelMayHaveAnyLength) {
  std::wstring const label(100'000, L'x');
  std::wstring name = label + L".org";
  EXPECT_TRUE(convertFqdnToNetbios(name));
  EXPECT_EQ(name, label);
}

TEST(ConvertFqdnToNetbiosTest, AddressEndsAtItsFirstNul) {
  using namespace std::string_literals;
  std::wstring name = L"10.1.2.3\0.org"s;
  EXPECT_FALSE(convertFqdnToNetbios(name));
  EXPECT_EQ(name, L"10.1.2.3\0.org"s);
  name = L"ho\0st.org"s;
  EXPECT_TRUE(convertFqdnToNetbios(name));
  EXPECT_EQ(name, L"ho\0st"s);
}

// --- Blanks in paths --------------------------------------------------------------------

struct EncodedPath {
  char const* label;
  std::string path;
  std::string encoded;
};

void PrintTo(EncodedPath const& row, std::ostream* out) { *out << row.label; }

class PercentEncodeSpaceTest : public testing::TestWithParam<EncodedPath> {};

TEST_P(PercentEncodeSpaceTest, EncodesBlanksAlone) {
  std::string path = GetParam().path;
  percentEncodeSpaceInPath(path);
  EXPECT_EQ(path, GetParam().encoded);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, PercentEncodeSpaceTest,
    testing::Values(EncodedPath{"SomeBlanks", "/a b/c d", "/a%20b/c%20d"},
                    EncodedPath{"NoBlank", "/a/b-c.d", "/a/b-c.d"}, EncodedPath{"Empty", "", ""},
                    EncodedPath{"BlankAlone", " ", "%20"},
                    EncodedPath{"BlanksAround", "  a ", "%20%20a%20"},
                    EncodedPath{"PercentSignStays", "100%/a%20b c%", "100%/a%20b%20c%"},
                    EncodedPath{"OtherWhiteSpaceStays", "a\tb\nc\r\v\f", "a\tb\nc\r\v\f"},
                    EncodedPath{"BytesBeyondAsciiStay", "\xC2\xA0\xE3\x80\x80 \xFF",
                                "\xC2\xA0\xE3\x80\x80%20\xFF"},
                    EncodedPath{"NulStays", std::string("a\0 b", 4), std::string("a\0%20b", 6)}),
    [](testing::TestParamInfo<EncodedPath> const& test) { return test.param.label; });

TEST(PercentEncodeSpaceTest, ManyBlanks) {
  std::string path(100'000, ' ');
  percentEncodeSpaceInPath(path);
  ASSERT_EQ(path.size(), 300'000U);
  EXPECT_EQ(path.substr(299'994), "%20%20");
  EXPECT_EQ(path.find(' '), std::string::npos);
}

}  // namespace
}  // namespace vrxutil::test
