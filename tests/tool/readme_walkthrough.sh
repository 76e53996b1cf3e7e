#!/usr/bin/env bash
# Runs the README's package-signing walkthrough ("With the demo hierarchy")
# exactly as written, from a scratch folder laid out like the source tree
# after a build: build/tools is the build's, tests/keys the committed keys,
# and build/tool/verify_tool the sandboxed tool, so that the run touches none
# of the host's logging files. Every command must succeed, verify_tool among
# them.
#
#   readme_walkthrough.sh SOURCE_DIR BUILD_DIR SANDBOXED_TOOL
set -euo pipefail

src=$1
build=$2
tool=$3

work=$(mktemp -d "${TMPDIR:-/tmp}/vt-readme.XXXXXX")
trap 'rm -rf "$work"' EXIT

# The first fenced block after the walkthrough's introduction.
awk '/With the demo hierarchy/ { found = 1; next }
     found && /^```/ { if (inside) exit; inside = 1; next }
     inside { print }' "$src/README.md" >"$work/walkthrough.sh"
if ! grep -q 'build/tool/verify_tool' "$work/walkthrough.sh"; then
    echo "README: no walkthrough block that runs verify_tool" >&2
    exit 1
fi

mkdir -p "$work/build/tool" "$work/tests"
ln -s "$build/tools" "$work/build/tools"
ln -s "$src/tests/keys" "$work/tests/keys"
cat >"$work/build/tool/verify_tool" <<WRAPPER
#!/bin/sh
touch "$work/verify_tool.ran"
mkdir -p "$work/sandbox"
VT_TEST_ROOT="$work/sandbox" VT_SYSLOG_FILE="$work/syslog" exec "$tool" "\$@"
WRAPPER
chmod +x "$work/build/tool/verify_tool"

cd "$work"
bash -euo pipefail walkthrough.sh
test -e verify_tool.ran
echo "README walkthrough: every command succeeded"
