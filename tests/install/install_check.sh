#!/usr/bin/env bash
# Installs the build into a fresh staging directory, as a firmware or
# package build does, and checks that the tree is usable: the programs where
# they belong and running, the manual pages where man finds them and free of
# formatting complaints.
#
#   install_check.sh BUILD_DIR [EMULATOR...]
#
# EMULATOR runs the installed programs of a cross build (qemu-s390x).
# KESTR_INSTALL_XMLDB=OFF in the environment: the database stand-ins must
# be left out.
set -uo pipefail
build=${1:?usage: install_check.sh BUILD_DIR [EMULATOR...]}
shift
run=("$@")

fail() { echo "FAIL: $*"; exit 1; }
stage=$(mktemp -d /tmp/kestr-stage.XXXXXX) || fail "no scratch directory"
trap 'rm -rf "$stage"' EXIT

DESTDIR=$stage cmake --install "$build" --prefix /usr >"$stage.log" 2>&1 ||
    { cat "$stage.log"; rm -f "$stage.log"; fail "cmake --install"; }
rm -f "$stage.log"

programs=(usr/sbin/kestrd)
pages=(usr/share/man/man8/kestrd.8)
with_xmldb=1
case "${KESTR_INSTALL_XMLDB:-ON}" in OFF | off | 0 | NO | no | FALSE | false) with_xmldb=0 ;; esac
if [ $with_xmldb -eq 1 ]; then
    programs+=(usr/bin/xmldbd usr/bin/xmldbc)
    pages+=(usr/share/man/man8/xmldbd.8 usr/share/man/man1/xmldbc.1)
else
    [ ! -e "$stage/usr/bin" ] || fail "the database stand-ins were installed: $(ls "$stage/usr/bin")"
fi
for f in "${programs[@]}"; do
    [ -x "$stage/$f" ] || fail "$f is not installed as a program"
done
for f in "${pages[@]}"; do
    [ -f "$stage/$f" ] || fail "$f is not installed"
    if command -v groff >/dev/null; then
        complaints=$(groff -ww -z -man "$stage/$f" 2>&1)
        [ -z "$complaints" ] || fail "$f: $complaints"
    fi
done
unexpected=$(cd "$stage" && find . -type f | grep -v -e '^./usr/sbin/kestrd$' -e '^./usr/bin/xmldb[dc]$' \
    -e '^./usr/share/man/man[18]/' -e '^./etc/init.d/kestrd-registrar$' \
    -e '^./usr/lib/systemd/system/kestrd-registrar.service$')
[ -z "$unexpected" ] || fail "unexpected files installed: $unexpected"

# The installed programs run from the staging tree: nothing points back
# into the build directory.
usage=$("${run[@]}" "$stage/usr/sbin/kestrd" help)
[ $? -eq 0 ] || fail "kestrd help did not exit with 0"
[ "$usage" == $'Usage: kestrd {cmd} \n    kestrd apclone_24G\n    kestrd apclone_5G\n    kestrd apclone_deamon' ] ||
    fail "kestrd help printed: $usage"
if [ $with_xmldb -eq 1 ]; then
    "${run[@]}" "$stage/usr/bin/xmldbc" -h | grep -q '^usage: xmldbc' || fail "xmldbc -h"
    "${run[@]}" "$stage/usr/bin/xmldbd" -h | grep -q '^usage: xmldbd' || fail "xmldbd -h"
fi
echo "PASS"
