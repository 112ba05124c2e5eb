#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# `make install` and the Debian packages have the same files: each that is installed is in exactly one package, and no package
# asks for one that is not. The version in debian/changelog is that of the tree.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/install.bash"
DEBIAN=$HERE/../debian

# The lists with where debhelper looks: the library's folder is the architecture's there.
python3 - "$DEBIAN" "$ROOT" "$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$BUILD/CMakeCache.txt")" <<'COMPARE'
import collections, glob, os, sys
debian, root, libdir = sys.argv[1:]
files = {os.path.join(folder, name)[len(root) + 1:] for folder, _, names in os.walk(root) for name in names}
owners = collections.defaultdict(list)
faults = []
for path in sorted(glob.glob(debian + "/*.install")):
    package = os.path.basename(path).removesuffix(".install")
    for line in open(path):
        pattern = line.split()[0]
        here = pattern.replace("usr/lib/*/", "usr/%s/" % libdir)
        matched = [m[len(root) + 1:] for m in glob.glob(os.path.join(root, here))]
        if not matched:
            faults.append("%s asks for %s, which is not installed" % (package, pattern))
        for one in matched:
            for file in files:
                if file == one or file.startswith(one + "/"):
                    owners[file].append(package)
for file in sorted(files):
    if len(owners[file]) != 1:
        faults.append("%s is in %s" % (file, " and ".join(owners[file]) or "no package"))
packages = {l.split()[1] for l in open(debian + "/control") if l.startswith("Package: ")}
lists = {os.path.basename(p).removesuffix(".install") for p in glob.glob(debian + "/*.install")}
if packages != lists:
    faults.append("packages and lists differ: %s" % (packages ^ lists))
if len(files) < 50:
    faults.append("only %d files are installed" % len(files))
sys.exit("\n".join(faults) or 0)
COMPARE

# What is installed of the module is all of module/ and kmod/, which is all that its build reads but for the kernel's headers
# and one that is made, and it needs no file's execute permission. With a 2.6.18 tree at hand it is built.
module=$(echo "$ROOT"/usr/src/tarn-module-*)
diff <(cd "$HERE/.." && find module kmod -type f ! -name CMakeLists.txt ! -path '*/build/*' ! -path '*/__pycache__/*' | LC_ALL=C sort) \
  <(cd "$module" && find module kmod -type f | LC_ALL=C sort) >&2 || fail "the module's source is not installed as it is"
python3 - "$module" <<'COMPLETE'
import glob, os, re, sys
top = sys.argv[1]
faults = []
names = open(top + "/module/FILES").read().split()
faults += ["module/FILES lists %s, which is not installed" % n for n in names if not os.path.isfile(top + "/module/" + n)]
count = 0
for path in glob.glob(top + "/**/*.*", recursive=True):
    if not path.endswith((".cc", ".c", ".h", ".def")):
        continue
    folders = [os.path.dirname(path)] + [top + f for f in ("", "/module", "/module/include", "/module/os_public/Include")]
    for kind, name in re.findall(r'^[ \t]*#[ \t]*include[ \t]*(["<])([^">]*)', open(path).read(), re.M):
        count += 1
        if kind == "<" and re.match("(linux|asm|net)/", name) or name == "layout_figures.h":
            continue
        if not any(os.path.isfile(os.path.join(folder, name)) for folder in folders):
            faults.append("%s includes %s, which is not installed" % (path[len(top) + 1:], name))
if len(names) < 20 or count < 100:
    faults.append("only %d sources and %d includes are installed" % (len(names), count))
sys.exit("\n".join(faults) or 0)
COMPLETE
find "$module" -type f -exec chmod a-x {} +
if [ -n "${TARN_GUEST_KDIR:-}" ]; then
  make -s -C "$module/kmod" KDIR="$TARN_GUEST_KDIR" out="$T/kmod" check >"$T/kmod.log" 2>&1 || fail "it does not build: $(tail -n 20 "$T/kmod.log")"
else
  echo "the installed module is not built: TARN_GUEST_KDIR names no Linux 2.6.18"
fi

version=$(sed -n 's/^project(tarn VERSION \([^ ]*\) .*/\1/p' "$HERE/../CMakeLists.txt")
[ "$(sed -n '1s/^tarn (\([^)]*\)) .*/\1/p' "$DEBIAN/changelog")" = "$version" ] || fail "debian/changelog has another version"

# Where packages were built from this tree (`make deb`), they hold these files and no others, but for what Debian adds.
packages=$HERE/../build/packages
if ls "$packages"/*.deb >/dev/null 2>&1 && command -v dpkg-deb >/dev/null; then
  for package in "$packages"/*.deb; do
    case $package in *-dbgsym_*) continue ;; esac
    dpkg-deb --fsys-tarfile "$package" | tar -t | grep -v '/$' | sed 's|^\./||'
  done | grep -Ev '^usr/share/doc/[^/]*/(changelog.*|copyright|NEWS.*)$|^usr/share/lintian/' |
    sed -E 's|^usr/lib/[^/]*-linux-gnu/|usr/lib/|; s|^usr/share/doc/tarn-doc/|usr/share/doc/tarn/|; s|^lib/systemd|usr/lib/systemd|; s|(/man/.*)\.gz$|\1|' |
    LC_ALL=C sort -u >"$T/packaged"
  (cd "$ROOT" && find usr ! -type d) | sed -E 's|^usr/lib/[^/]*-linux-gnu/|usr/lib/|' | cat - <(
    awk '{ print $2 }' "$DEBIAN"/*.links) | LC_ALL=C sort -u >"$T/installed"
  [ "$packages" -ot "$HERE/../packaging/CMakeLists.txt" ] || diff "$T/installed" "$T/packaged" >&2 || fail "packages have other files"
fi
