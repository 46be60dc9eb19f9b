// Vocabulary: the word lists the event sources draw from (user names,
// client agents, pages, Java classes ...) and the mapping from an index to a
// stable, plausible IP address.
//
// All data is constant; any thread.
#pragma once

#include <cstdint>
#include <string>

class LineBuffer;

struct Vocabulary {
  static constexpr const char* kUsers[] = {
      "alice", "bob", "carol", "dave", "erin", "frank", "grace", "heidi", "ivan", "judy",
      "mallory", "niaj", "olivia", "peggy", "rupert", "sybil", "trent", "victor", "walter", "deploy",
      "jenkins", "backup", "www-data", "postgres", "oracle", "ubuntu", "admin", "svc-batch"};

  // Names tried by password-guessing clients; most are not real accounts.
  static constexpr const char* kGuessedUsers[] = {
      "root", "admin", "test", "user", "oracle", "postgres", "ubuntu", "guest", "ftp", "pi",
      "git", "support", "mysql", "nagios", "tomcat", "minecraft", "hadoop", "deploy", "teamspeak"};

  static constexpr const char* kUserAgents[] = {
      "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/118.0.0.0 Safari/537.36",
      "Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.0 Safari/605.1.15",
      "Mozilla/5.0 (X11; Linux x86_64; rv:119.0) Gecko/20100101 Firefox/119.0",
      "Mozilla/5.0 (iPhone; CPU iPhone OS 17_1 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.1 Mobile/15E148 Safari/604.1",
      "Mozilla/5.0 (Linux; Android 14; Pixel 7) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/118.0.0.0 Mobile Safari/537.36",
      "Mozilla/5.0 (Windows NT 10.0; Win64; x64; rv:109.0) Gecko/20100101 Firefox/115.0",
      "Mozilla/5.0 (compatible; Googlebot/2.1; +http://www.google.com/bot.html)",
      "Mozilla/5.0 (compatible; bingbot/2.0; +http://www.bing.com/bingbot.htm)",
      "curl/7.88.1",
      "python-requests/2.31.0",
      "Go-http-client/1.1",
      "Wget/1.21.3"};
  // Relative frequency of each agent above.
  static constexpr unsigned kUserAgentWeights[] = {30, 14, 8, 14, 10, 4, 5, 3, 4, 3, 2, 1};

  static constexpr const char* kProducts[] = {
      "lamp", "desk", "chair", "monitor", "keyboard", "mouse", "headset", "cable", "dock", "webcam",
      "notebook", "backpack", "charger", "speaker", "tablet"};

  static constexpr const char* kComponents[] = {"orders", "payments", "inventory", "auth", "search",
                                                "shipping", "catalog", "notifications"};

  static constexpr const char* kThreads[] = {
      "main", "http-nio-8080-exec-1", "http-nio-8080-exec-2", "http-nio-8080-exec-3",
      "http-nio-8080-exec-7", "http-nio-8080-exec-12", "scheduler-1", "scheduler-2",
      "kafka-consumer-0", "pool-3-thread-1", "pool-3-thread-4", "async-worker-5"};

  static constexpr const char* kCronJobs[] = {
      "/usr/local/bin/backup.sh >/dev/null 2>&1",
      "test -x /usr/sbin/anacron || ( cd / && run-parts --report /etc/cron.daily )",
      "/usr/lib/php/sessionclean",
      "/opt/app/bin/rotate-reports --keep 14",
      "[ -x /usr/lib/sysstat/debian-sa1 ] && /usr/lib/sysstat/debian-sa1 1 1",
      "/usr/bin/certbot renew --quiet",
      "cd / && run-parts --report /etc/cron.hourly"};

  static constexpr const char* kSudoCommands[] = {
      "/usr/bin/systemctl restart nginx", "/usr/bin/apt-get update", "/usr/bin/journalctl -u app -n 200",
      "/usr/bin/tail -f /var/log/syslog", "/bin/cat /etc/shadow", "/usr/bin/docker ps",
      "/usr/sbin/reboot", "/usr/bin/vim /etc/hosts", "/usr/bin/systemctl status postgresql"};

  static constexpr const char* kSystemdUnits[] = {
      "apt-daily.service", "logrotate.service", "man-db.service", "fstrim.service",
      "systemd-tmpfiles-clean.service", "sysstat-collect.service", "certbot.service"};

  static constexpr const char* kSystemdUnitTexts[] = {
      "Daily apt download activities", "Rotate log files", "Daily man-db regeneration",
      "Discard unused blocks on filesystems from /etc/fstab", "Cleanup of Temporary Directories",
      "system activity accounting tool", "Certbot"};

  // Writes a dotted IPv4 address for an index. The same (index, salt) gives
  // the same address; distinct indices rarely collide. Internal addresses
  // come from 10.0.0.0/16, others from a spread of public-looking ranges.
  static void appendIp(LineBuffer& out, uint32_t index, uint64_t salt, bool internal = false);
  // The same address appended to a string.
  static void appendIp(std::string& out, uint32_t index, uint64_t salt, bool internal = false);
};
