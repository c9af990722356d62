#!/bin/bash
# The style check: formatting, words that may not be committed, layering, shell scripts.
# Prints every finding as file:line and exits 1 if there is one.
cd "$(dirname "$0")/.." || exit 1
shopt -s lastpipe  # a finding at the end of a pipe must count here, not in a subshell
failed=0
complain() { echo "style: $1"; sed 's/^/  /'; failed=1; }
found() { local hits; hits=$(cat); [ -z "$hits" ] || complain "$1" <<<"$hits"; }

sources() { git ls-files -co --exclude-standard -- '*.cpp' '*.h' '*.c' | while read -r f; do [ -f "$f" ] && echo "$f"; done; }
texts() { git ls-files -co --exclude-standard -z -- . ':!tests/data/*' ':!fuzz/corpus/*' ':!*.png' ':!*.svg'; }

# Formatting. C89 headers for C callers are formatted like everything else.
sources | xargs -r clang-format --dry-run -Werror 2>&1 | grep -E 'error:' | cut -d: -f1,2 | sort -u | found 'clang-format'

# Words: requirement documents, machine paths, package hosts and tools are no one's business here.
# The patterns are written so that this file does not match them.
words='\b[p]arts? [0-9]+\.[0-9]+|\b[t]he spec\b|[s]pec\.md|\b[s]pecification,? (says|requires|part)|[a]s specified|[p]er spec\b|[/]work/|\.[l]ibrary/'
words+='|[d]eb\.debian\.org|[r]egistry\.npmjs|\b[c]hatgpt\b|\b[c]laude\b|\b[l]anguage model\b|\b[h]elper agent|/tmp/[b]-'
texts | xargs -0 -r grep -nIiE "$words" -- 2>/dev/null | found 'forbidden words'
if git rev-parse HEAD >/dev/null 2>&1; then
  git log --format='%h %s%n%b' | grep -nEi "$words|[s]pecification" | found 'forbidden words in commit messages'
fi

# Layers: the platform knows nothing above it; only the platform talks to the bus, the store, the
# journal and libgcrypt; the client half never sees the server half.
grep -rnE '#include "vigila' platform | found 'platform/ includes applications/'
grep -rnE '\b(sd_bus_|sqlite3_|sd_journal_|gcry_)[a-z]' --include='*.cpp' --include='*.h' applications | found 'applications/ calls what only platform/ may call'
grep -rnE '#include "vigila/(server|model)/' applications/vigila/client applications/vigilactl applications/vigila-gateway | found 'the client half includes the server half'
grep -rnE '#include "' applications/vigila/contract | grep -v '#include "vigila/contract/' | found 'contract/ includes another layer'
grep -rnE '#include "vigila/(server|client|check)/' applications/vigila/model | found 'model/ includes a layer above it'
grep -rnE '#include "vigila/(server|client|model)/' applications/vigila/check | found 'check/ includes another layer'
grep -rnE '#include "vigila/client/' applications/vigila/server | found 'the server half includes the client half'

# Nothing sleeps for a guessed time; below, the bus may pause for a peer in the middle of a header.
grep -rnE '\b(sleep|usleep|nanosleep|sleep_for|sleep_until)\(' --include='*.cpp' --include='*.h' tests applications | found 'sleeping (wait for the event instead)'

# "nobody" is an account here.
grep -rnE '//.*\b[Nn]obody\b' --include='*.cpp' --include='*.h' applications platform | grep -vE '"nobody|(record|account|user) nobody|nobody.s? (record|account|user|entry|permission)' |
  found 'the pronoun is "no one"'

# Shell scripts.
git ls-files -co --exclude-standard | while read -r f; do
  [ -f "$f" ] && head -c 64 "$f" 2>/dev/null | grep -qaE '^#!/bin/(ba)?sh' && echo "$f"
done | xargs -r shellcheck -S warning -f gcc | found 'shellcheck'

[ "$failed" = 0 ] && echo "style: clean"
exit "$failed"
