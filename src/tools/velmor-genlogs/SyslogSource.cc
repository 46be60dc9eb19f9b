#include "SyslogSource.h"

#include "CivilTime.h"
#include "LineBuffer.h"
#include "Rng.h"
#include "Vocabulary.h"

void SyslogSource::header(int64_t millis, LineBuffer& out, const char* program, uint64_t pid) {
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

void SyslogSource::kernel(int64_t millis, LineBuffer& out, Rng& rng) {
  header(millis, out, "kernel", 0);
  // Uptime as the kernel prints it: "[ 12345.678901]".
  const uint64_t micros = static_cast<uint64_t>(millis - _bootMillis) * 1000 + rng.below(1000);
  out.put('[');
  const uint64_t secs = micros / 1000000;
  for (uint64_t w = 10000; w > 1 && secs < w; w /= 10) out.put(' ');
  out.putUint(secs);
  out.put('.');
  out.putPadded(micros % 1000000, 6);
  out.put("] ");
  static const unsigned kKinds[] = {50, 12, 6, 3, 2};
  switch (rng.weighted(kKinds)) {
    case 0:  // firewall drop
      out.put("[UFW BLOCK] IN=eth0 OUT= MAC=52:54:00:");
      out.putHex(rng.next(), 2);
      out.put(':');
      out.putHex(rng.next(), 2);
      out.put(":9a:0c:fe:54:00:12:35:02:08:00 SRC=");
      Vocabulary::appendIp(out, rng.skewed(5000), _ctx.salt + 7);
      out.put(" DST=");
      Vocabulary::appendIp(out, _ctx.hostIndex, _ctx.salt, true);
      out.put(" LEN=");
      out.putUint(40 + rng.below(60));
      out.put(" TOS=0x00 PREC=0x00 TTL=");
      out.putUint(40 + rng.below(200));
      out.put(" ID=");
      out.putUint(rng.below(65536));
      out.put(" PROTO=TCP SPT=");
      out.putUint(1024 + rng.below(64000));
      out.put(" DPT=");
      {
        static const unsigned kPorts[] = {23, 445, 3389, 8080, 1433, 5900, 6379, 2222, 9200, 3306};
        out.putUint(rng.pick(kPorts));
      }
      out.put(" WINDOW=1024 RES=0x00 SYN URGP=0");
      break;
    case 1:
      out.put("e1000e: eth0 NIC Link is ");
      out.put(rng.chance(0.5) ? "Up 1000 Mbps Full Duplex, Flow Control: Rx/Tx" : "Down");
      break;
    case 2:
      out.put("EXT4-fs (sda1): mounted filesystem with ordered data mode. Quota mode: none.");
      break;
    case 3:
      out.put("TCP: request_sock_TCP: Possible SYN flooding on port 443. Sending cookies.  Check SNMP counters.");
      break;
    default:
      out.put("Out of memory: Killed process ");
      out.putUint(1000 + rng.below(60000));
      out.put(" (java) total-vm:");
      out.putUint(4000000 + rng.below(4000000));
      out.put("kB, anon-rss:");
      out.putUint(2000000 + rng.below(2000000));
      out.put("kB, file-rss:0kB, shmem-rss:0kB, UID:1001 pgtables:");
      out.putUint(4000 + rng.below(4000));
      out.put("kB oom_score_adj:0");
      break;
  }
  out.endLine();
}

void SyslogSource::emit(int64_t millis, LineBuffer& out, Rng& rng) {
  if (_bootMillis < 0) {
    _bootMillis = millis - static_cast<int64_t>(rng.range(3600, 40 * 86400)) * 1000;
    _nextPid = 800 + rng.below(20000);
  }
  _nextPid += 1 + rng.below(40);
  if (_nextPid > 4194000) _nextPid = 300;

  static const unsigned kKinds[] = {30, 10, 25, 8, 12, 6, 4};
  switch (rng.weighted(kKinds)) {
    case 0: {  // cron job run
      header(millis, out, "CRON", _nextPid);
      out.put(rng.chance(0.7) ? "(root) CMD (" : "(www-data) CMD (");
      out.put(rng.pick(Vocabulary::kCronJobs));
      out.put(')');
      out.endLine();
      break;
    }
    case 1:  // cron session
      header(millis, out, "CRON", _nextPid);
      out.put(rng.chance(0.5) ? "pam_unix(cron:session): session opened for user root(uid=0) by (uid=0)"
                              : "pam_unix(cron:session): session closed for user root");
      out.endLine();
      break;
    case 2:
      kernel(millis, out, rng);
      break;
    case 3: {  // systemd unit run
      const uint32_t u = rng.below(sizeof Vocabulary::kSystemdUnits / sizeof Vocabulary::kSystemdUnits[0]);
      header(millis, out, "systemd", 1);
      static const char* const kVerbs[] = {"Starting ", "Finished ", "Started "};
      const uint32_t verb = rng.below(3);
      out.put(kVerbs[verb]);
      out.put(Vocabulary::kSystemdUnitTexts[u]);
      out.put(verb == 0 ? "..." : ".");
      out.endLine();
      if (rng.chance(0.4)) {
        header(millis, out, "systemd", 1);
        out.put(Vocabulary::kSystemdUnits[u]);
        out.put(": Deactivated successfully.");
        out.endLine();
      }
      break;
    }
    case 4:  // user sessions
      header(millis, out, "systemd-logind", 600 + _ctx.hostIndex);
      if (rng.chance(0.5)) {
        out.put("New session ");
        out.putUint(rng.below(9000) + 1);
        out.put(" of user ");
        out.put(rng.pick(Vocabulary::kUsers));
        out.put('.');
      } else {
        out.put("Removed session ");
        out.putUint(rng.below(9000) + 1);
        out.put('.');
      }
      out.endLine();
      break;
    case 5:
      header(millis, out, "systemd-timesyncd", 480 + _ctx.hostIndex);
      out.put("Initial synchronization to time server 10.0.0.2:123 (ntp.internal).");
      out.endLine();
      break;
    default:
      header(millis, out, "rsyslogd", 700 + _ctx.hostIndex);
      out.put("[origin software=\"rsyslogd\" swVersion=\"8.2302.0\" x-pid=\"");
      out.putUint(700 + _ctx.hostIndex);
      out.put("\" x-info=\"https://www.rsyslog.com\"] rsyslogd was HUPed");
      out.endLine();
      break;
  }
}
