// AuthenticationManagerVelmor: the back end of the local user file.
//
// The user file is <config>/passwd (config: $VELMOR_HOME/etc), mode 0600,
// one user a line, six fields separated by ":":
//   userId:username:password:realname:roles:salt
// - password: "$1$" + Base64 of the reversibly enciphered password (the
//   current form, see Locked_encrypt), or the old form: Base64 of the SHA-1
//   of the typed password followed by the salt field. A user of the old
//   form is rewritten in the current form at the first good login.
// - roles: the user's roles separated by ";" ("Admin;power").
// - salt: only used by the old form; empty for the current form.
// Lines that do not parse are logged (by line number, never their text) and
// skipped. The file is rewritten whole through a temporary file and rename.
//
// The key of the cipher is <config>/auth/velmor.secret, made on first use.
// With no user at all, <config>/bundles/local/user-seed.conf (stanza
// [seed], keys name and password) gives the first user, an Admin; the file
// is removed after use.
//
// Threads: every public member may be called from any thread; one mutex
// guards the user map, the file and the key. Members named Locked_* expect
// it held.
#pragma once

#include <map>

#include "framework/auth/MAuthenticationManager.h"
#include "util/Mutex.h"
#include "util/Pathname.h"

class AuthenticationManagerVelmor : public MAuthenticationManager {
 public:
  static constexpr size_t MAX_PASSWORD_LEN = 256;
  // The built-in nine-character salt of the current form.
  static const char* const kSalt;

  struct UserRecord {
    userInformation info;  // info.password is the stored form
    Str salt;              // the salt field of the line
  };
  using UserMap = std::map<Str, UserRecord>;

  // `configDir`: the common configuration directory (empty: that of
  // LoaderInfo, $VELMOR_HOME/etc). Reads the key, the user file and, when
  // there is no user, the seed file.
  explicit AuthenticationManagerVelmor(const Pathname& configDir = Pathname());

  int userLogin(const Str& user, const Str& password, Str& userId, Str& err) override;
  int getUserInfoByName(const Str& user, userInformation& out) override;
  int getUserType(const Str& user, std::set<Str>& roles) override;
  int getUsers(const Str& user, const Str& role, std::vector<userInformation>& out) override;
  int getSearchFilter(const Str& user, const Str& role, std::set<Str>& out) override;
  int saveUser(const userInformation& info, const Str& password, Str& err) override;
  int deleteUser(const Str& user, const Str& by, Str& err) override;
  int getCleartextPassword(const Str& user, Str& out) override;
  Str getAuthSystem() const override { return "Velmor"; }

  int changeUserPassword(const Str& user, const Str& password, Str& err);

  // "" when `name` may be a user name, else "Invalid username: <name>".
  static Str checkUserName(const Str& name);

  // The user lines of `text` into `out` (later lines of a name replace
  // earlier ones); returns the number of lines skipped as bad.
  static size_t parseUserLines(const Str& text, UserMap& out, const Str& sourceName);
  // One line of the file, "\n" included.
  static Str formatUserLine(const UserRecord& r);

  // The reversible form under `key`: "$1$" + Base64. False when the key is
  // empty or the password too long.
  static bool encryptWithKey(const Str& key, const char* password, const char* salt, Str& out);
  static bool decryptWithKey(const Str& key, const Str& stored, const char* salt, Str& out);
  // The salt rule on its own: every byte XOR the salt byte at its position
  // modulo 9, a byte that would become 0 keeping its value. Its own inverse.
  static void saltBytes(char* buf, size_t len, const char* salt);
  // The old form of a password: Base64(SHA-1(password + salt)).
  static Str passwordHash(const Str& password, const Str& salt);

  const Pathname& userFilePath() const { return _userFile; }
  const Pathname& secretPath() const { return _secretFile; }
  const Pathname& seedPath() const { return _seedFile; }

 private:
  bool Locked_encrypt(const char* password, const char* salt, Str& out) const;
  bool Locked_decrypt(const Str& stored, const char* salt, Str& out) const;
  void Locked_fillKey();
  void Locked_userMapFromFile(const Pathname& path);
  bool Locked_writeUserFile(Str& err);
  void Locked_seedUsersMap();
  Str Locked_nextUserId() const;

  Mutex _mutex;
  Pathname _configDir;
  Pathname _userFile;
  Pathname _secretFile;
  Pathname _seedFile;
  Str _key;
  UserMap _users;
};
