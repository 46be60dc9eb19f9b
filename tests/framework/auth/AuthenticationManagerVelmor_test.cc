#include "framework/auth/AuthenticationManagerVelmor.h"

#include <gtest/gtest.h>

#include <thread>

#include "AuthTestHome.h"

using authtest::fileMode;
using authtest::readFile;
using authtest::TempDir;
using authtest::writeFile;
using Velmor = AuthenticationManagerVelmor;

namespace {

const char* const kAlphabet62 = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

void writeSeed(const TempDir& dir, const std::string& name, const std::string& password) {
  writeFile(dir.path() / "bundles/local/user-seed.conf", "[seed]\nname = " + name + "\npassword = " + password + "\n");
}

}  // namespace

TEST(AuthenticationManagerVelmorCipher, RoundTripsAndRefusesWhatItCannotHold) {
  const Str key = "0123456789abcdef";
  const std::string longest(Velmor::MAX_PASSWORD_LEN - 1, 'p');
  for (const std::string pw : {"a", "changeme", "q7Ez!m2Kx", "\xff\x01 with spaces:and;colons", longest.c_str()}) {
    Str stored, back;
    ASSERT_TRUE(Velmor::encryptWithKey(key, pw.c_str(), Velmor::kSalt, stored)) << pw;
    EXPECT_TRUE(stored.startswith("$1$"));
    EXPECT_EQ(stored.find(':'), Str::npos) << "the stored form must fit a colon-separated line";
    ASSERT_TRUE(Velmor::decryptWithKey(key, stored, Velmor::kSalt, back)) << pw;
    EXPECT_EQ(back, pw);
    Str other;
    EXPECT_FALSE(Velmor::decryptWithKey("another key", stored, Velmor::kSalt, other) && other == pw);
  }
  Str out;
  EXPECT_FALSE(Velmor::encryptWithKey(key, std::string(Velmor::MAX_PASSWORD_LEN, 'p').c_str(), Velmor::kSalt, out));
  EXPECT_FALSE(Velmor::encryptWithKey("", "pw", Velmor::kSalt, out));
  for (const char* damaged : {"", "$1$", "$2$abcd", "$1$!!!!", "plain"}) {
    Str back;
    EXPECT_FALSE(Velmor::decryptWithKey(key, damaged, Velmor::kSalt, back) && !back.empty()) << damaged;
  }
}

TEST(AuthenticationManagerVelmorCipher, PinnedVectors) {
  // Computed independently of this code; they pin the salt rule, RC4 and
  // the encoding together. The second password equals the salt byte for
  // byte, so no byte changes under the salt.
  struct Case {
    const char* password;
    const char* stored;
  } cases[] = {
      {"changeme", "$1$ljdkTbtG/7Y="},
      {"q7Ez!m2Kxq", "$1$9V8FI9wjktNxhw=="},
  };
  ASSERT_STREQ(Velmor::kSalt, "q7Ez!m2Kx");
  for (const Case& c : cases) {
    Str stored;
    ASSERT_TRUE(Velmor::encryptWithKey("0123456789abcdef", c.password, Velmor::kSalt, stored));
    EXPECT_EQ(stored, c.stored) << c.password;
  }
  EXPECT_EQ(Velmor::passwordHash("oldpass", "NaCl"), "fAreQUBSLFVNT5u4sdUibjDk/OY=");
}

TEST(AuthenticationManagerVelmorCipher, SaltRuleKeepsBytesThatWouldBecomeZero) {
  const char salt[] = "ABCDEFGHI";
  struct Case {
    std::string in, out;
  } cases[] = {
      {"A", "A"},                                    // 'A' ^ 'A' would be 0
      {"B", std::string(1, 'B' ^ 'A')},              // position 0 uses salt[0]
      {"xB", std::string{char('x' ^ 'A'), 'B'}},     // position 1 uses salt[1]
      {"ABCDEFGHIA", "ABCDEFGHIA"},                  // position 9 wraps to salt[0]
      {"ABCDEFGHIJ", "ABCDEFGHI" + std::string(1, 'J' ^ 'A')},
  };
  for (const Case& c : cases) {
    std::string buf = c.in;
    Velmor::saltBytes(buf.data(), buf.size(), salt);
    EXPECT_EQ(buf, c.out) << c.in;
    Velmor::saltBytes(buf.data(), buf.size(), salt);
    EXPECT_EQ(buf, c.in) << "the rule is its own inverse for " << c.in;
  }
}

TEST(AuthenticationManagerVelmor, SecretIsMadeOnceWithModeAndAlphabet) {
  TempDir dir;
  writeSeed(dir, "admin", "changeme");
  Str firstSecret;
  {
    Velmor m(dir.path());
    std::string secret = readFile(m.secretPath());
    ASSERT_EQ(secret.size(), 255u);
    EXPECT_EQ(secret.back(), '\n');
    EXPECT_EQ(secret.find_first_not_of(kAlphabet62), 254u);
    EXPECT_EQ(fileMode(m.secretPath()), 0600u);
    firstSecret = secret;
  }
  Velmor again(dir.path());
  EXPECT_EQ(readFile(again.secretPath()), firstSecret) << "an existing secret is kept";
  Str id, err;
  EXPECT_EQ(again.userLogin("admin", "changeme", id, err), 1) << err;

  TempDir other;
  writeSeed(other, "admin", "changeme");
  Velmor third(other.path());
  EXPECT_NE(readFile(third.secretPath()), firstSecret) << "each home gets its own secret";
}

TEST(AuthenticationManagerVelmor, UnreadableSecretMakesAuthFail) {
  TempDir dir;
  (dir.path() / "auth/velmor.secret").mkdir_p();  // a directory cannot be read as the key
  writeSeed(dir, "admin", "changeme");
  Velmor m(dir.path());
  Str id, err;
  EXPECT_EQ(m.userLogin("admin", "changeme", id, err), 0);
  userInformation u;
  u.username = "bob";
  EXPECT_EQ(m.saveUser(u, "pw", err), 0);
  EXPECT_FALSE(m.userFilePath().exists());
}

TEST(AuthenticationManagerVelmor, SeedMakesAnAdminAndIsRemoved) {
  TempDir dir;
  writeSeed(dir, "root", "s3cret");
  Velmor m(dir.path());
  EXPECT_FALSE(m.seedPath().exists());
  EXPECT_EQ(fileMode(m.userFilePath()), 0600u);
  std::set<Str> roles;
  ASSERT_EQ(m.getUserType("root", roles), 1);
  EXPECT_EQ(roles, std::set<Str>{"Admin"});
  Str id, err;
  EXPECT_EQ(m.userLogin("root", "s3cret", id, err), 1) << err;
  EXPECT_EQ(id, "1");
  EXPECT_EQ(readFile(m.userFilePath()).find("s3cret"), std::string::npos) << "never stored in clear";

  // With users present, a new seed file is left alone.
  writeSeed(dir, "second", "x");
  Velmor again(dir.path());
  EXPECT_TRUE(again.seedPath().exists());
  userInformation u;
  EXPECT_EQ(again.getUserInfoByName("second", u), 0);

  TempDir empty;
  Velmor none(empty.path());
  std::vector<userInformation> all;
  none.getUsers("", "", all);
  EXPECT_TRUE(all.empty());
  EXPECT_EQ(none.userLogin("root", "s3cret", id, err), 0);
  EXPECT_EQ(err, "No such user");
}

TEST(AuthenticationManagerVelmor, LoginOutcomes) {
  TempDir dir;
  writeSeed(dir, "admin", "changeme");
  Velmor m(dir.path());
  struct Case {
    const char* user;
    const char* password;
    int result;
    const char* err;
  } cases[] = {
      {"admin", "changeme", 1, ""},
      {"admin", "wrong", 0, "Authentication Failed"},
      {"admin", "", 0, "Authentication Failed"},
      {"admin", "changeme ", 0, "Authentication Failed"},
      {"nobody", "changeme", 0, "No such user"},
      {"harriet", "anything", 0, "Login forbidden for harriet."},
  };
  for (const Case& c : cases) {
    Str id, err;
    EXPECT_EQ(m.userLogin(c.user, c.password, id, err), c.result) << c.user << "/" << c.password;
    EXPECT_EQ(err, c.err) << c.user << "/" << c.password;
  }
}

TEST(AuthenticationManagerVelmor, OldFormMigratesOnLogin) {
  TempDir dir;
  writeSeed(dir, "admin", "changeme");
  {
    Velmor seeded(dir.path());  // makes the secret and the first user
  }
  std::string file = readFile((dir.path() / "passwd").c_str());
  file += "7:olduser:fAreQUBSLFVNT5u4sdUibjDk/OY=:Old User:power:NaCl\n";
  writeFile(dir.path() / "passwd", file, 0600);

  Velmor m(dir.path());
  Str id, err;
  EXPECT_EQ(m.userLogin("olduser", "wrong", id, err), 0);
  EXPECT_NE(readFile(m.userFilePath()).find("fAreQUBSLFVNT5u4sdUibjDk"), std::string::npos)
      << "a failed login rewrites nothing";
  ASSERT_EQ(m.userLogin("olduser", "oldpass", id, err), 1) << err;
  EXPECT_EQ(id, "7");
  std::string after = readFile(m.userFilePath());
  EXPECT_EQ(after.find("fAreQUBSLFVNT5u4sdUibjDk"), std::string::npos);
  EXPECT_NE(after.find("7:olduser:$1$"), std::string::npos);
  EXPECT_NE(after.find(":Old User:power:\n"), std::string::npos);
  EXPECT_EQ(fileMode(m.userFilePath()), 0600u);

  Velmor reread(dir.path());
  EXPECT_EQ(reread.userLogin("olduser", "oldpass", id, err), 1) << err;
  Str clear;
  EXPECT_EQ(reread.getCleartextPassword("olduser", clear), 1);
  EXPECT_EQ(clear, "oldpass");
}

TEST(AuthenticationManagerVelmor, BadUserLinesAreSkipped) {
  const Str text =
      "1:alice:$1$abc:Alice:Admin;power:\n"
      "garbage line without fields\n"
      "2:bob:$1$def:Bob::\n"
      "3::$1$x:No Name::\n"                  // empty name
      "4:carol:$1$x:Carol::salt:extra\n"     // seven fields
      "5:dave::Dave::\n"                     // no password
      "\n"
      "6:erin:$1$y:Erin:user:\r\n";          // a CRLF line is fine
  Velmor::UserMap users;
  EXPECT_EQ(Velmor::parseUserLines(text, users, "test"), 4u);
  ASSERT_EQ(users.size(), 3u);
  EXPECT_EQ(users["alice"].info.roles, (std::vector<Str>{"Admin", "power"}));
  EXPECT_TRUE(users["bob"].info.roles.empty());
  EXPECT_EQ(users["erin"].info.roles, std::vector<Str>{"user"});
  for (const auto& [name, r] : users) {
    Velmor::UserMap again;
    EXPECT_EQ(Velmor::parseUserLines(Velmor::formatUserLine(r), again, "test"), 0u);
    EXPECT_EQ(again[name].info.toString(), r.info.toString());
  }
}

TEST(AuthenticationManagerVelmor, SaveChangeAndDeleteUsers) {
  TempDir dir;
  writeSeed(dir, "admin", "changeme");
  Velmor m(dir.path());
  userInformation u;
  u.username = "bob";
  u.realname = "Bob B";
  u.roles = {"user"};
  Str err, id;
  ASSERT_EQ(m.saveUser(u, "pw1", err), 1) << err;
  EXPECT_EQ(m.userLogin("bob", "pw1", id, err), 1);
  EXPECT_EQ(id, "2");

  for (const char* bad : {"", "a:b", "a;b", "a\nb"}) {
    userInformation b;
    b.username = bad;
    EXPECT_EQ(m.saveUser(b, "pw", err), 0);
    EXPECT_EQ(err, Str("Invalid username: ") + bad);
  }
  userInformation h;
  h.username = "harriet";
  EXPECT_EQ(m.saveUser(h, "pw", err), 0);
  userInformation noPassword;
  noPassword.username = "newbie";
  EXPECT_EQ(m.saveUser(noPassword, "", err), 0);

  u.realname = "Robert";
  ASSERT_EQ(m.saveUser(u, "", err), 1) << "an empty password keeps the old";
  EXPECT_EQ(m.userLogin("bob", "pw1", id, err), 1);
  ASSERT_EQ(m.changeUserPassword("bob", "pw2", err), 1) << err;
  EXPECT_EQ(m.userLogin("bob", "pw1", id, err), 0);
  EXPECT_EQ(m.changeUserPassword("nobody", "pw", err), 0);

  Velmor reread(dir.path());
  userInformation got;
  ASSERT_EQ(reread.getUserInfoByName("bob", got), 1);
  EXPECT_EQ(got.toString(), "2;bob;;Robert;user");
  EXPECT_EQ(reread.userLogin("bob", "pw2", id, err), 1);
  std::vector<userInformation> admins;
  reread.getUsers("", "Admin", admins);
  ASSERT_EQ(admins.size(), 1u);
  EXPECT_EQ(admins[0].username, "admin");

  ASSERT_EQ(reread.deleteUser("bob", "admin", err), 1);
  EXPECT_EQ(reread.deleteUser("bob", "admin", err), 0);
  EXPECT_EQ(err, "No such user");
  EXPECT_EQ(Velmor(dir.path()).getUserInfoByName("bob", got), 0);
  EXPECT_EQ(fileMode(reread.userFilePath()), 0600u);
}

TEST(AuthenticationManagerVelmor, ConcurrentSavesAndLoginsKeepEveryUser) {
  TempDir dir;
  writeSeed(dir, "admin", "changeme");
  Velmor m(dir.path());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&m, t] {
      for (int i = 0; i < 10; ++i) {
        userInformation u;
        u.username = Str::fromFormat("u%d_%d", t, i);
        Str err, id;
        m.saveUser(u, "pw", err);
        m.userLogin("admin", "changeme", id, err);
      }
    });
  for (std::thread& th : threads) th.join();
  Velmor reread(dir.path());
  std::vector<userInformation> all;
  reread.getUsers("", "", all);
  EXPECT_EQ(all.size(), 41u);
  std::set<Str> ids;
  for (const userInformation& u : all) ids.insert(u.userId);
  EXPECT_EQ(ids.size(), 41u) << "user ids are unique";
}
