#!/bin/sh
# Installs a configured and built tree into a scratch prefix and runs the
# installed program from there; then makes the Debian package with cpack and
# checks what it holds. Everything it writes goes to one scratch directory,
# removed at the end.
#
#   tests/install_check.sh [BUILD_DIR]     (default: the release build)
set -eu

fail() {
    echo "install check: $*" >&2
    exit 1
}

here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build/release}
[ -d "$build" ] || fail "no build directory $build"
build=$(cd "$build" && pwd)

[ -x "$build/quenby" ] || fail "no quenby in $build (build it first)"

scratch=$(mktemp -d "${TMPDIR:-/tmp}/quenby-install.XXXXXX")
# cmake --install writes its list of installed files into the build tree.
manifest=$build/install_manifest.txt
had_manifest=no
[ -e "$manifest" ] && had_manifest=yes
cleanup() {
    rm -rf "$scratch"
    [ "$had_manifest" = yes ] || rm -f "$manifest"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM

# 1. cmake --install into a scratch prefix.
prefix=$scratch/prefix
cmake --install "$build" --prefix "$prefix" > "$scratch/install.log" 2>&1 \
    || { cat "$scratch/install.log" >&2; fail "cmake --install failed"; }

[ -x "$prefix/bin/quenby" ] || fail "$prefix/bin/quenby is not installed"
out=$(cd "$scratch" && "$prefix/bin/quenby" version) \
    || fail "the installed quenby version exited with $?"
[ "$out" = "quenby version:3" ] || fail "the installed quenby version printed [$out]"

# The manual page is compressed when the build found gzip.
man=$prefix/share/man/man1/quenby.1
{ [ -f "$man.gz" ] && gzip -dc "$man.gz" || cat "$man"; } | cmp -s - "$here/docs/quenby.1" \
    || fail "the installed manual page differs from docs/quenby.1"
for file in share/doc/quenby/formats.md share/doc/quenby/copyright share/bash-completion/completions/quenby; do
    [ -f "$prefix/$file" ] || fail "$file is not installed"
done
# Completion: a keyword first, file names after it (the scratch directory holds "prefix").
complete=$(cd "$scratch" && bash -c '. "$0"; for w in ver "verifyshadow pre"; do COMP_WORDS=(quenby $w)
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _quenby; echo "${COMPREPLY[*]}"; done' \
    "$prefix/share/bash-completion/completions/quenby")
[ "$complete" = "$(printf 'version verifyshadow\nprefix')" ] || fail "completion gave [$complete]"
echo "install check: cmake --install: the program, manual page, formats guide, copyright and completion ok"

# 2. cpack -G DEB into a scratch output directory.
if ! command -v dpkg-deb > /dev/null 2>&1; then
    echo "install check: dpkg-deb is not installed: Debian package check skipped"
    exit 0
fi
(cd "$build" && cpack -G DEB -B "$scratch/package") > "$scratch/cpack.log" 2>&1 \
    || { cat "$scratch/cpack.log" >&2; fail "cpack -G DEB failed"; }
set -- "$scratch"/package/*.deb
[ $# -eq 1 ] && [ -f "$1" ] || fail "cpack made no single .deb: $*"
deb=$1

dpkg-deb -c "$deb" > "$scratch/contents" || fail "dpkg-deb -c $deb failed"
for path in ./usr/bin/quenby ./usr/share/man/man1/quenby.1.gz ./usr/share/doc/quenby/copyright; do
    grep -q " $path\$" "$scratch/contents" \
        || { cat "$scratch/contents" >&2; fail "the package lacks $path"; }
done
[ "$(dpkg-deb -f "$deb" Package)" = quenby ] || fail "the package is not named quenby"
[ "$(dpkg-deb -f "$deb" Version)" = 3 ] || fail "the package version is not 3"
echo "install check: cpack: $(basename "$deb") holds the program, its manual page and copyright"

# 3. lintian, when installed: not one error or warning.
command -v lintian > /dev/null 2>&1 || { echo "install check: no lintian: package lint skipped"; exit 0; }
lintian --fail-on error,warning "$deb" > "$scratch/lintian.log" 2>&1 \
    || { cat "$scratch/lintian.log" >&2; fail "lintian found errors or warnings"; }
echo "install check: lintian: no error or warning"
