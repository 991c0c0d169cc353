#!/usr/bin/env bash
# Runs a command as on a machine booted about a minute ago: inside a time namespace whose monotonic
# and boot clocks are set back, so Windows programs started there under Wine (and the Wine server
# they start) see an uptime of about 60 s. The agent's start-up takes its boot branch below 10
# minutes of uptime; this shows that branch end to end whatever the host's own uptime.
# Needs root or password-less sudo (unshare --time); exits 3 without running anything when it
# cannot make the namespace.
# Usage: scripts/young-machine.sh <command> [args...]
set -euo pipefail
up=$(cut -d. -f1 /proc/uptime)
offset=$((60 - up))
namespace=(unshare --time --boottime "$offset" --monotonic "$offset" --fork)
if [ "$(id -u)" -ne 0 ]; then
  namespace=(sudo -n --preserve-env "${namespace[@]}" --setuid "$(id -u)" --setgid "$(id -g)")
fi
if ! "${namespace[@]}" true 2>/dev/null; then
  echo "young-machine.sh: cannot make a time namespace here (needs root or sudo, and Linux 5.6 or later)" >&2
  exit 3
fi
exec "${namespace[@]}" -- "$@"
