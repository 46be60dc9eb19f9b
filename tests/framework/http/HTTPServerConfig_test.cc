// The server's settings from server.conf: the shipped defaults, overrides
// from a local bundle, and values that are refused.
#include <gtest/gtest.h>

#include "../../libbundle/ConfTestUtil.h"
#include "framework/http/HTTPServerConfig.h"
#include "libbundle/PropertyPages.h"

namespace {

struct Loaded {
  bool ok;
  Str err;
  HTTPServerConfig cfg;
  std::string home;
};

// A fresh home with the shipped server.conf and `local` as the local
// bundle's server.conf.
Loaded load(const std::string& local) {
  conftest::TempHome home;
  home.write("default", "server.conf", conftest::readFile(VELMOR_SOURCE_DIR "/etc/bundles/default/server.conf"));
  if (!local.empty()) home.write("local", "server.conf", local);
  PropertyPages::instance("server").updateConfigs();
  Loaded l;
  l.home = home.path();
  l.ok = HTTPServerConfig::fromConf(l.cfg, l.err);
  return l;
}

TEST(HTTPServerConfigTest, ShippedDefaults) {
  Loaded l = load("");
  ASSERT_TRUE(l.ok) << l.err;
  ASSERT_EQ(l.cfg.ports.size(), 1u);
  EXPECT_EQ(l.cfg.ports[0].port, 8089);
  EXPECT_TRUE(l.cfg.ports[0].ssl);
  EXPECT_EQ(l.cfg.certFile, l.home + "/etc/auth/server.pem");
  EXPECT_EQ(l.cfg.cipherList, "HIGH:!aNULL:!MD5");
  EXPECT_EQ(l.cfg.password, "");
  EXPECT_EQ(l.cfg.maxHeaderBytes, 65536u);
  EXPECT_EQ(l.cfg.maxContentLength, 100UL << 20);
  EXPECT_EQ(l.cfg.requestTimeout, 30);
  EXPECT_EQ(l.cfg.maxThreads, 256);
}

TEST(HTTPServerConfigTest, LocalOverrides) {
  Loaded l = load(
      "[general]\nmgmtPort = 9000\n"
      "[sslConfig]\nenableSsl = false\nsslPort = 9443\nserverCert = /abs/c.pem\nsslPassword = pw\n"
      "[httpServer]\nmaxHeaderBytes = 1024\nmaxContentLength = 5\nrequestTimeout = 2\nmaxThreads = 3\n");
  ASSERT_TRUE(l.ok) << l.err;
  ASSERT_EQ(l.cfg.ports.size(), 2u);
  EXPECT_EQ(l.cfg.ports[0].port, 9000);
  EXPECT_FALSE(l.cfg.ports[0].ssl);
  EXPECT_EQ(l.cfg.ports[1].port, 9443);
  EXPECT_TRUE(l.cfg.ports[1].ssl);
  EXPECT_EQ(l.cfg.certFile, "/abs/c.pem");
  EXPECT_EQ(l.cfg.password, "pw");
  EXPECT_EQ(l.cfg.maxHeaderBytes, 1024u);
  EXPECT_EQ(l.cfg.maxContentLength, 5u);
  EXPECT_EQ(l.cfg.requestTimeout, 2);
  EXPECT_EQ(l.cfg.maxThreads, 3);
}

TEST(HTTPServerConfigTest, RefusedValues) {
  const struct {
    const char* conf;
    const char* errHas;
  } cases[] = {
      {"[general]\nmgmtPort = abc\n", "mgmtPort"},
      {"[general]\nmgmtPort = 70000\n", "mgmtPort"},
      {"[sslConfig]\nsslPort = 8089\n", "sslPort"},
      {"[sslConfig]\nserverCert =\n", "serverCert"},
      {"[httpServer]\nmaxThreads = 0\n", "maxThreads"},
      {"[httpServer]\nrequestTimeout = -1\n", "requestTimeout"},
      {"[httpServer]\nmaxHeaderBytes = 1k\n", "maxHeaderBytes"},
  };
  for (const auto& c : cases) {
    Loaded l = load(c.conf);
    EXPECT_FALSE(l.ok) << c.conf;
    EXPECT_NE(l.err.find(c.errHas), Str::npos) << c.conf << " -> " << l.err;
  }
}

}  // namespace
