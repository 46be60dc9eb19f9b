#include "framework/rest/InvokeAPIManager.h"

#include <gtest/gtest.h>

#include "framework/rest/MSoapManagementCallback.h"
#include "util/xml/XmlDocument.h"
#include "util/xml/XmlInit.h"
#include "util/xml/XmlNode.h"

namespace {

// Writes "run <name>" / "undo <name>" to a shared journal; fails on demand;
// may run the rest of the chain itself and wrap its result.
struct Step : MSoapManagementCallback {
  Str name;
  std::vector<Str>* journal;
  bool fail = false;
  bool wraps = false;
  Step(const Str& n, std::vector<Str>* j) : name(n), journal(j) {}
  bool handleSoapCall(const FdConnectionData* conn, CallbackList* list, const xml::node& args,
                      const Str& fn) override {
    journal->push_back("run " + name);
    if (fail) {
      list->setError(name + " refused " + fn);
      return false;
    }
    if (wraps) {
      if (!list->invokeNext(conn, args, fn)) return false;
      list->setResult("<" + name + ">" + list->result() + "</" + name + ">");
      return true;
    }
    list->setResult(list->result() + name + "(" + args.get_attribute("x") + ")");
    return true;
  }
  void getCallNames(std::vector<Str>& out) const override { out = {"alpha", "beta"}; }
  void rollbackSoapCall(const FdConnectionData*, const xml::node&, const Str&) override {
    journal->push_back("undo " + name);
  }
};

struct InvokeFixture : ::testing::Test {
  InvokeAPIManager mgr;
  std::vector<Str> journal;
  Step a{"a", &journal}, b{"b", &journal}, c{"c", &journal};
  xml::document doc{"call"};
  InvokeFixture() {
    xml::init::ensure();
    doc.get_root_node().set_attribute("x", "1");
  }
  int call(const Str& fn, Str& out) { return mgr.callInvokeAPIHandler(nullptr, doc.get_root_node(), fn, out); }
};

TEST_F(InvokeFixture, HandlersRunByPriorityAndFailuresRollBackNewestFirst) {
  mgr.registerInvokeAPIHandler("set", &c, 20);
  mgr.registerInvokeAPIHandler("set", &a, 10);
  mgr.registerInvokeAPIHandler("set", &b, 10);  // same priority as a: after it
  Str out;
  EXPECT_EQ(1, call("set", out));
  EXPECT_EQ("a(1)b(1)c(1)", out);
  EXPECT_EQ((std::vector<Str>{"run a", "run b", "run c"}), journal);

  journal.clear();
  c.fail = true;
  EXPECT_EQ(0, call("set", out));
  EXPECT_EQ("c refused set", out);
  EXPECT_EQ((std::vector<Str>{"run a", "run b", "run c", "undo b", "undo a"}), journal);

  EXPECT_EQ(-1, call("nothing", out));
  EXPECT_EQ("Unknown function 'nothing'", out);
  EXPECT_TRUE(mgr.unregisterInvokeAPIHandler("set", &c));
  EXPECT_FALSE(mgr.unregisterInvokeAPIHandler("set", &c));
  EXPECT_EQ(1, call("set", out));
}

TEST_F(InvokeFixture, AHandlerMayRunTheRestOfTheChainItself) {
  a.wraps = true;
  mgr.registerInvokeAPIHandler("get", &a, 0);
  mgr.registerInvokeAPIHandler("get", &b, 1);
  mgr.registerInvokeAPIHandler("get", &c, 2);
  Str out;
  EXPECT_EQ(1, call("get", out));
  EXPECT_EQ("<a>b(1)c(1)</a>", out);
  EXPECT_EQ((std::vector<Str>{"run a", "run b", "run c"}), journal);  // each once

  journal.clear();
  c.fail = true;
  EXPECT_EQ(0, call("get", out));
  EXPECT_EQ((std::vector<Str>{"run a", "run b", "run c", "undo b"}), journal);  // a never succeeded
}

TEST_F(InvokeFixture, RegisterAllUsesTheHandlersOwnNames) {
  mgr.registerAll(&a, 0);
  mgr.registerInvokeAPIHandler("zeta", &b, 0);
  std::vector<Str> calls;
  mgr.getCallList(calls);
  EXPECT_EQ((std::vector<Str>{"alpha", "beta", "zeta"}), calls);
  EXPECT_TRUE(mgr.unregisterInvokeAPIHandler("zeta", &b));
  mgr.getCallList(calls);
  EXPECT_EQ((std::vector<Str>{"alpha", "beta"}), calls);  // an emptied function goes away
}

}  // namespace
