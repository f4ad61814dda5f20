#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "vesk/variant/camerainfo.h"

using namespace vesk::variant;

namespace {

bool IsUpperHex12(const std::string& s) {
  if (s.size() != 12) return false;
  for (char c : s) {
    if (!isxdigit((unsigned char)c) || islower((unsigned char)c)) return false;
  }
  return true;
}

class CameraInfoTest : public testing::Test {
 protected:
  void TearDown() override {
    CameraInfo::OverrideHwaddr("");
    CameraInfo::OverrideSysid(-1);
    CameraInfo::SetFailInit(false);
  }
};

}  // namespace

TEST_F(CameraInfoTest, DetectedIdentityHasTheExpectedFormAndIsStable) {
  CameraInfo first;
  ASSERT_TRUE(first.Init());
  EXPECT_TRUE(first.IsMap());
  const std::string hwaddr = first.StrictString("hwaddr");
  EXPECT_TRUE(IsUpperHex12(hwaddr)) << hwaddr;
  EXPECT_NE("000000000000", hwaddr);
  EXPECT_EQ(V_UINT32, first.StrictNumeric("sysid").GetType());

  CameraInfo second;
  ASSERT_TRUE(second.Init());
  EXPECT_EQ(first, second);
}

TEST_F(CameraInfoTest, OverridesWinAndClear) {
  CameraInfo detected;
  ASSERT_TRUE(detected.Init());

  CameraInfo::OverrideHwaddr("aabbccddeeff");
  CameraInfo info;
  info["keep"] = "other keys stay";
  ASSERT_TRUE(info.Init());
  EXPECT_EQ("AABBCCDDEEFF", (std::string)info["hwaddr"]);
  EXPECT_EQ(0xCCDDEEFFu, (unsigned int)info["sysid"]);  // follows the address
  EXPECT_EQ("other keys stay", (std::string)info["keep"]);

  CameraInfo::OverrideSysid(42);
  ASSERT_TRUE(info.Init());
  EXPECT_EQ("AABBCCDDEEFF", (std::string)info["hwaddr"]);
  EXPECT_EQ(42u, (unsigned int)info["sysid"]);
  EXPECT_EQ(V_UINT32, info["sysid"].GetType());

  CameraInfo::OverrideHwaddr("");
  ASSERT_TRUE(info.Init());
  EXPECT_EQ((std::string)detected["hwaddr"], (std::string)info["hwaddr"]);
  EXPECT_EQ(42u, (unsigned int)info["sysid"]);

  CameraInfo::OverrideSysid(-1);
  ASSERT_TRUE(info.Init());
  EXPECT_EQ(detected["sysid"], info["sysid"]);
}

TEST_F(CameraInfoTest, InitFailures) {
  CameraInfo info;
  CameraInfo::SetFailInit(true);
  EXPECT_FALSE(info.Init());
  EXPECT_FALSE(info.HasKey("hwaddr"));
  CameraInfo::SetFailInit(false);

  // An override that is not a 12-digit hex address is refused.
  CameraInfo::OverrideHwaddr("XYZ");
  EXPECT_FALSE(info.Init());
  CameraInfo::OverrideHwaddr("AABBCCDDEEFF00");
  EXPECT_FALSE(info.Init());
  EXPECT_FALSE(info.HasKey("hwaddr"));

  CameraInfo::OverrideHwaddr("");
  EXPECT_TRUE(info.Init());
}
