#include <gtest/gtest.h>

#include "framework/auth/Rc4Cipher.h"
#include "framework/auth/userInformation.h"

TEST(UserInformation, WireForm) {
  struct Case {
    const char* text;
    bool ok;
    const char* id;
    const char* name;
    const char* real;
    std::vector<Str> roles;
  } cases[] = {
      {"1;admin;;Administrator;Admin", true, "1", "admin", "Administrator", {"Admin"}},
      {"2;bob;;;Admin:power", true, "2", "bob", "", {"Admin", "power"}},
      {"3;carol;;Carol;", true, "3", "carol", "Carol", {}},
      {"1;admin;Administrator;Admin", false, "", "", "", {}},
      {"1;admin;;Administrator;Admin;extra", false, "", "", "", {}},
      {"", false, "", "", "", {}},
  };
  for (const Case& c : cases) {
    userInformation u;
    Str err;
    ASSERT_EQ(userInformation::fromString(c.text, u, err), c.ok) << c.text;
    if (!c.ok) {
      EXPECT_EQ(err,
                "Incorrect user string must be in the form userId;username;;realname;userType, there must be 5 "
                "elements.");
      continue;
    }
    EXPECT_EQ(u.userId, c.id);
    EXPECT_EQ(u.username, c.name);
    EXPECT_EQ(u.realname, c.real);
    EXPECT_EQ(u.roles, c.roles);
    EXPECT_EQ(u.toString(), c.text) << "the text comes back byte for byte";
  }
}

TEST(Rc4Cipher, KnownVectorsFromBothImplementations) {
  struct Case {
    const char* key;
    const char* plain;
    const char* cipherHex;
  } cases[] = {
      {"Key", "Plaintext", "bbf316e8d940af0ad3"},
      {"Wiki", "pedia", "1021bf0420"},
      {"Secret", "Attack at dawn", "45a01f645fc35b383552544b9bf5"},
  };
  auto hex = [](const Str& s) {
    Str out;
    for (unsigned char c : s) out.appendFormat("%02x", c);
    return out;
  };
  for (const Case& c : cases) {
    EXPECT_EQ(hex(Rc4Cipher::applyOwn(c.key, c.plain)), c.cipherHex) << c.key;
    EXPECT_EQ(hex(Rc4Cipher::apply(c.key, c.plain)), c.cipherHex) << c.key;
    Str lib;
    if (Rc4Cipher::applyLibrary(c.key, c.plain, lib)) {
      EXPECT_EQ(hex(lib), c.cipherHex) << c.key;
    }
  }
  if (!Rc4Cipher::libraryAvailable()) GTEST_SKIP() << "the library's RC4 is not available here";
  // Long keys (the key file gives 254 bytes) and long texts agree too.
  Str key(254, 'k'), text;
  for (int i = 0; i < 254; ++i) key[static_cast<size_t>(i)] = static_cast<char>('a' + i % 26);
  for (int i = 0; i < 1000; ++i) text += static_cast<char>(i * 7);
  Str lib;
  ASSERT_TRUE(Rc4Cipher::applyLibrary(key, text, lib));
  EXPECT_EQ(lib, Rc4Cipher::applyOwn(key, text));
}
