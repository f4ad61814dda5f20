#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "vesk/variant/camerainfo.h"

using namespace vesk::variant;

TEST(CameraInfo, DetectedIdentityOverridesAndFailures) {
  CameraInfo detected;
  ASSERT_TRUE(detected.Init());
  const std::string hwaddr = detected.StrictString("hwaddr");
  EXPECT_EQ(12u, hwaddr.size());
  for (char c : hwaddr) EXPECT_TRUE(isdigit((unsigned char)c) || (c >= 'A' && c <= 'F')) << hwaddr;
  EXPECT_NE("000000000000", hwaddr);
  EXPECT_EQ(V_UINT32, detected.StrictNumeric("sysid").GetType());

  CameraInfo::OverrideHwaddr("aabbccddeeff");
  CameraInfo info;
  info["keep"] = "other keys stay";
  ASSERT_TRUE(info.Init());
  EXPECT_EQ("AABBCCDDEEFF", (std::string)info["hwaddr"]);
  EXPECT_EQ(0xCCDDEEFFu, (unsigned int)info["sysid"]);  // follows the address
  EXPECT_EQ("other keys stay", (std::string)info["keep"]);
  CameraInfo::OverrideSysid(42);
  ASSERT_TRUE(info.Init());
  EXPECT_EQ(42u, (unsigned int)info["sysid"]);
  EXPECT_EQ(V_UINT32, info["sysid"].GetType());
  CameraInfo::OverrideHwaddr("");
  ASSERT_TRUE(info.Init());
  EXPECT_EQ(detected["hwaddr"], info["hwaddr"]);
  EXPECT_EQ(42u, (unsigned int)info["sysid"]);
  CameraInfo::OverrideSysid(-1);
  ASSERT_TRUE(info.Init());
  info.RemoveValue("keep");
  EXPECT_EQ(detected, info);

  // A failing platform call or an override that is not a 12-digit hex address is refused.
  CameraInfo failed;
  CameraInfo::SetFailInit(true);
  EXPECT_FALSE(failed.Init());
  CameraInfo::SetFailInit(false);
  for (const char* bad : {"XYZ", "AABBCCDDEEFF00"}) {
    CameraInfo::OverrideHwaddr(bad);
    EXPECT_FALSE(failed.Init()) << bad;
  }
  EXPECT_FALSE(failed.HasKey("hwaddr"));
  CameraInfo::OverrideHwaddr("");
  EXPECT_TRUE(failed.Init());
}
