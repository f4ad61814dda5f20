#include <string>

#include <gtest/gtest.h>

#include "vesk/variant/uri.h"

using namespace vesk::variant;

TEST(Uri, FileUriWithQuery) {
  URI uri;
  ASSERT_TRUE(URI::FromString("file:///tmp/a.flv?continuous=1", true, uri));
  EXPECT_EQ("file", uri.schema());
  EXPECT_EQ("/tmp/a.flv", uri.fullDocumentPath());
  EXPECT_EQ("file:///tmp/a.flv?continuous=1", (std::string)uri["originalUri"]);
  EXPECT_EQ("file:///tmp/a.flv?continuous=1", (std::string)uri["fullUri"]);
  EXPECT_TRUE(uri.parameters().IsMap());
  EXPECT_EQ("1", (std::string)uri.parameters()["continuous"]);
  EXPECT_FALSE(uri.HasKey("ip"));
  EXPECT_FALSE(uri.HasKey("port"));

  ASSERT_TRUE(URI::FromString("  FILE:///var/rec/my%20clip.flv?continuous  ", false, uri));
  EXPECT_EQ("file", uri.schema());
  EXPECT_EQ("/var/rec/my clip.flv", uri.fullDocumentPath());
  EXPECT_TRUE(uri.parameters().HasKey("continuous"));
  EXPECT_EQ("", (std::string)uri.parameters()["continuous"]);
  EXPECT_EQ("  FILE:///var/rec/my%20clip.flv?continuous  ", (std::string)uri["originalUri"]);
  EXPECT_EQ("file:///var/rec/my%20clip.flv?continuous", (std::string)uri["fullUri"]);

  ASSERT_TRUE(URI::FromString("file:///dev/null", true, uri));
  EXPECT_EQ("/dev/null", uri.fullDocumentPath());
  EXPECT_TRUE(uri.parameters().IsMap());
  EXPECT_EQ(0u, uri.parameters().MapSize());
}

TEST(Uri, NetworkUrisWithLiteralAddressesAndLocalhost) {
  URI uri;
  ASSERT_TRUE(URI::FromString("tcp://127.0.0.1:1935/live/cam?a=1&b&c=%41+z&&encrypted=true", true,
                              uri));
  EXPECT_EQ("tcp", uri.schema());
  EXPECT_EQ("127.0.0.1", (std::string)uri["host"]);
  EXPECT_EQ("127.0.0.1", uri.ip());
  EXPECT_EQ(1935, uri.port());
  EXPECT_EQ(V_UINT16, uri["port"].GetType());
  EXPECT_EQ("/live/cam", uri.fullDocumentPath());
  const Variant& p = uri.parameters();
  EXPECT_EQ(4u, p.MapSize());
  EXPECT_EQ("1", (std::string)p["a"]);
  EXPECT_EQ("", (std::string)p["b"]);
  EXPECT_EQ("A z", (std::string)p["c"]);
  EXPECT_EQ("true", (std::string)p["encrypted"]);

  ASSERT_TRUE(URI::FromString("UDP://10.1.2.3:65535", false, uri));
  EXPECT_EQ("udp", uri.schema());
  EXPECT_EQ("10.1.2.3", uri.ip());
  EXPECT_EQ(65535, uri.port());
  EXPECT_EQ("/", uri.fullDocumentPath());
  EXPECT_EQ("udp://10.1.2.3:65535", (std::string)uri["fullUri"]);

  ASSERT_TRUE(URI::FromString("tcp://localhost:9000", true, uri));
  EXPECT_EQ("localhost", (std::string)uri["host"]);
  EXPECT_EQ("127.0.0.1", uri.ip());
  EXPECT_EQ(9000, uri.port());

  // Without resolving, a name is kept and the address left empty.
  ASSERT_TRUE(URI::FromString("tcp://localhost:9000", false, uri));
  EXPECT_EQ("", uri.ip());
}

TEST(Uri, BadInputIsRefused) {
  const char* bad[] = {
      "",
      "   ",
      "no schema here",
      "/tmp/a.flv",
      "http://127.0.0.1:80/",
      "://127.0.0.1:80",
      "1tcp://127.0.0.1:80",
      "tcp://127.0.0.1",
      "tcp://127.0.0.1:",
      "tcp://:80",
      "tcp://127.0.0.1:0",
      "tcp://127.0.0.1:65536",
      "tcp://127.0.0.1:99999999999",
      "tcp://127.0.0.1:8o",
      "udp://10.0.0.300:5000",
      "udp://bad host:5000",
      "tcp://[::1]:80",
      "file://relative/a.flv",
      "file://",
      "file:///tmp/a%zz.flv",
      "file:///tmp/a%4",
      "file:///tmp/a%00b",
      "file:///tmp/a.flv?x=%G0",
      "file:///tmp/a.flv?=value",
  };
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    URI uri;
    uri["leftover"] = 1;
    EXPECT_FALSE(URI::FromString(text, true, uri));
    EXPECT_TRUE(uri.IsMap());
    EXPECT_EQ(0u, uri.MapSize());
    EXPECT_EQ("", uri.schema());
    EXPECT_EQ(0, uri.port());
  }
}
