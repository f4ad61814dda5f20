#include <string>

#include <gtest/gtest.h>

#include "vesk/variant/uri.h"

using namespace vesk::variant;

TEST(Uri, GoodUrisGiveEveryKey) {
  struct {
    const char* text;
    bool resolve;
    const char* expected;
  } cases[] = {
      {"file:///tmp/a.flv?continuous=1", true,
       R"({"fullDocumentPath":"/tmp/a.flv","fullUri":"file:///tmp/a.flv?continuous=1",)"
       R"("originalUri":"file:///tmp/a.flv?continuous=1","parameters":{"continuous":"1"},"schema":"file"})"},
      {"  FILE:///var/rec/my%20clip.flv?continuous  ", false,
       R"({"fullDocumentPath":"/var/rec/my clip.flv","fullUri":"file:///var/rec/my%20clip.flv?continuous",)"
       R"("originalUri":"  FILE:///var/rec/my%20clip.flv?continuous  ","parameters":{"continuous":""},"schema":"file"})"},
      {"tcp://127.0.0.1:1935/live/cam?a=1&b&c=%41+z&&encrypted=true", true,
       R"({"fullDocumentPath":"/live/cam","fullUri":"tcp://127.0.0.1:1935/live/cam?a=1&b&c=%41+z&&encrypted=true",)"
       R"("host":"127.0.0.1","ip":"127.0.0.1","originalUri":"tcp://127.0.0.1:1935/live/cam?a=1&b&c=%41+z&&encrypted=true",)"
       R"("parameters":{"a":"1","b":"","c":"A z","encrypted":"true"},"port":1935,"schema":"tcp"})"},
      {"UDP://10.1.2.3:65535", false,
       R"({"fullDocumentPath":"/","fullUri":"udp://10.1.2.3:65535","host":"10.1.2.3","ip":"10.1.2.3",)"
       R"("originalUri":"UDP://10.1.2.3:65535","parameters":{},"port":65535,"schema":"udp"})"},
      {"tcp://localhost:9000", true,
       R"({"fullDocumentPath":"/","fullUri":"tcp://localhost:9000","host":"localhost","ip":"127.0.0.1",)"
       R"("originalUri":"tcp://localhost:9000","parameters":{},"port":9000,"schema":"tcp"})"},
  };
  for (const auto& c : cases) {
    URI uri;
    ASSERT_TRUE(URI::FromString(c.text, c.resolve, uri)) << c.text;
    EXPECT_EQ(c.expected, uri.ToJson());
  }
  URI uri;
  ASSERT_TRUE(URI::FromString("tcp://localhost:9000", false, uri));
  EXPECT_EQ("", uri.ip()) << "without resolving, a name is kept and the address left empty";
  EXPECT_EQ(9000, uri.port());
  EXPECT_EQ(V_UINT16, uri["port"].GetType());
}

TEST(Uri, BadInputIsRefused) {
  for (const char* text : {"", "   ", "no schema here", "/tmp/a.flv", "http://127.0.0.1:80/", "://127.0.0.1:80",
                           "1tcp://127.0.0.1:80", "tcp://127.0.0.1", "tcp://127.0.0.1:", "tcp://:80",
                           "tcp://127.0.0.1:0", "tcp://127.0.0.1:65536", "tcp://127.0.0.1:99999999999",
                           "tcp://127.0.0.1:8o", "udp://10.0.0.300:5000", "udp://bad host:5000", "tcp://[::1]:80",
                           "file://relative/a.flv", "file://", "file:///tmp/a%zz.flv", "file:///tmp/a%4",
                           "file:///tmp/a%00b", "file:///tmp/a.flv?x=%G0", "file:///tmp/a.flv?=value"}) {
    URI uri;
    uri["leftover"] = 1;
    EXPECT_FALSE(URI::FromString(text, true, uri)) << text;
    EXPECT_TRUE(uri.IsMap()) << text;
    EXPECT_EQ(0u, uri.MapSize()) << text;
  }
}
