#include "AuthSource.h"

#include "CivilTime.h"
#include "LineBuffer.h"
#include "Rng.h"
#include "Vocabulary.h"

void AuthSource::header(int64_t millis, LineBuffer& out, const char* program, uint64_t pid) {
  CivilTime(millis).appendSyslog(out);
  out.put(' ');
  out.put(_ctx.host);
  out.put(' ');
  out.put(program);
  if (pid) {
    out.put('[');
    out.putUint(pid);
    out.put(']');
  }
  out.put(": ");
}

void AuthSource::sshd(int64_t millis, LineBuffer& out, Rng& rng) {
  const uint64_t pid = _nextPid;
  const unsigned port = 30000 + rng.below(35000);
  // Guessing clients come from a small pool that is the same on every host,
  // so a search can find one address failing everywhere.
  const uint32_t attacker = rng.skewed(40);
  static const unsigned kKinds[] = {18, 34, 16, 12, 10, 10};
  const uint32_t kind = rng.weighted(kKinds);
  header(millis, out, "sshd", pid);
  switch (kind) {
    case 0: {  // a staff login
      const char* user = Vocabulary::kUsers[rng.below(12)];
      const bool key = rng.chance(0.75);
      out.put(key ? "Accepted publickey for " : "Accepted password for ");
      out.put(user);
      out.put(" from ");
      Vocabulary::appendIp(out, rng.below(30), _ctx.salt + 3, rng.chance(0.6));
      out.put(" port ");
      out.putUint(port);
      out.put(" ssh2");
      if (key) {
        out.put(": ED25519 SHA256:");
        for (int i = 0; i < 3; ++i) out.putHex(rng.next(), 8);
      }
      out.endLine();
      header(millis, out, "sshd", pid);
      out.put("pam_unix(sshd:session): session opened for user ");
      out.put(user);
      out.put("(uid=");
      out.putUint(1000 + (user[0] - 'a'));
      out.put(") by (uid=0)");
      out.endLine();
      break;
    }
    case 1:
    case 2: {  // password guessing
      const bool invalid = kind == 2 || rng.chance(0.3);
      out.put("Failed password for ");
      if (invalid) out.put("invalid user ");
      out.put(invalid ? rng.pick(Vocabulary::kGuessedUsers) : "root");
      out.put(" from ");
      Vocabulary::appendIp(out, attacker, _ctx.salt + 11);
      out.put(" port ");
      out.putUint(port);
      out.put(" ssh2");
      out.endLine();
      break;
    }
    case 3:
      out.put("Invalid user ");
      out.put(rng.pick(Vocabulary::kGuessedUsers));
      out.put(" from ");
      Vocabulary::appendIp(out, attacker, _ctx.salt + 11);
      out.put(" port ");
      out.putUint(port);
      out.endLine();
      break;
    case 4:
      out.put("Connection closed by authenticating user root ");
      Vocabulary::appendIp(out, attacker, _ctx.salt + 11);
      out.put(" port ");
      out.putUint(port);
      out.put(" [preauth]");
      out.endLine();
      break;
    default:
      out.put("Received disconnect from ");
      Vocabulary::appendIp(out, rng.below(30), _ctx.salt + 3, true);
      out.put(" port ");
      out.putUint(port);
      out.put(":11: disconnected by user");
      out.endLine();
      break;
  }
}

void AuthSource::emit(int64_t millis, LineBuffer& out, Rng& rng) {
  if (_nextPid == 0) _nextPid = 1000 + rng.below(30000);
  _nextPid += 1 + rng.below(25);
  if (_nextPid > 4194000) _nextPid = 300;

  static const unsigned kKinds[] = {70, 18, 4, 8};
  switch (rng.weighted(kKinds)) {
    case 0:
      sshd(millis, out, rng);
      break;
    case 1: {  // sudo command and its PAM session
      const char* user = Vocabulary::kUsers[rng.below(10)];
      header(millis, out, "sudo", 0);
      out.put("   ");
      out.put(user);
      out.put(" : TTY=pts/");
      out.putUint(rng.below(4));
      out.put(" ; PWD=/home/");
      out.put(user);
      out.put(" ; USER=root ; COMMAND=");
      out.put(rng.pick(Vocabulary::kSudoCommands));
      out.endLine();
      header(millis, out, "sudo", 0);
      out.put("pam_unix(sudo:session): session opened for user root(uid=0) by ");
      out.put(user);
      out.put("(uid=");
      out.putUint(1000 + (user[0] - 'a'));
      out.put(')');
      out.endLine();
      break;
    }
    case 2: {  // a refused sudo
      const char* user = Vocabulary::kUsers[10 + rng.below(8)];
      header(millis, out, "sudo", 0);
      out.put("   ");
      out.put(user);
      out.put(" : user NOT in sudoers ; TTY=pts/1 ; PWD=/home/");
      out.put(user);
      out.put(" ; USER=root ; COMMAND=");
      out.put(rng.pick(Vocabulary::kSudoCommands));
      out.endLine();
      break;
    }
    default:
      header(millis, out, "su", _nextPid);
      out.put("(to postgres) ");
      out.put(Vocabulary::kUsers[rng.below(6)]);
      out.put(" on pts/");
      out.putUint(rng.below(4));
      out.endLine();
      break;
  }
}
