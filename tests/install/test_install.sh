#!/usr/bin/env bash
# Install tests, no root needed.
#   prefix:   cmake --install into a temporary prefix; the demo program built against it with
#             pkg-config and with the CMake package runs under the installed vexlo-sim with the
#             library from that prefix, reads the adapter's board information and sends frames; the
#             installed vexlo finds the library by itself; the python interface goes where Debian's
#             python3 looks under /usr/local; the uninstall target leaves only the folders that
#             were there before.
#   packages: scripts/package.sh; each package holds its files, none from the tree's tests,
#             benchmarks, fuzz target or demo, and lintian reports no error or warning; no package
#             names a dependency twice; the python package byte-compiles and cleans up as Debian's
#             python packages do.
# usage: test_install.sh prefix|packages BUILD_DIR SOURCE_DIR WORK_DIR LIBDIR
set -euo pipefail
# Pipelines end in a grep that reads all its input (no -q): one that stopped at the first match
# would leave the writer to die of SIGPIPE, which pipefail takes for a failure.
mode=$1 build=$2 src=$3 work=$4 libdir=$5
fail() { echo "FAIL: $*" >&2; exit 1; }
mkdir -p "$work" && cd "$work"

if [ "$mode" = prefix ]; then
  # An empty folder there before the install, as Debian has /usr/local/share/man.
  p=$work/p && rm -rf "$p" cm* d && mkdir -p "$p/share/man" && cmake --install "$build" --prefix "$p" >/dev/null
  for f in $libdir/libvexlo.so.1.0.0 $libdir/libvexlo.so.1 $libdir/libvexlo.so include/vexlo.h include/vexlo_ext.h \
    $libdir/pkgconfig/vexlo.pc $libdir/cmake/vexlo/vexloConfigVersion.cmake bin/vexlo-sim \
    lib/udev/rules.d/70-vexlo.rules share/man/man1/vexlo-sim.1.gz share/man/man3/vexlo.3.gz \
    $libdir/wireshark/extcap/vexlo-extcap share/man/man1/vexlo-extcap.1.gz etc/default/vexlo-serve; do
    [ -e "$p/$f" ] || fail "not installed: $f"
  done
  grep -qx "EnvironmentFile=-$p/etc/default/vexlo-serve" "$p/lib/systemd/system/vexlo-serve@.service" || fail "unit: options not at $p"
  ! (cd "$p" && find . | grep -E 'test|bench|fuzz|demo') || fail "installed from tests, benchmarks or the demo"
  # shellcheck disable=SC2046
  cc -o demo-pc "$src/tools/vexlo-demo.c" $(PKG_CONFIG_PATH="$p/$libdir/pkgconfig" pkg-config --cflags --libs vexlo)
  cmake -S "$src/tests/install/consumer" -B cm -DCMAKE_PREFIX_PATH="$p" >/dev/null && cmake --build cm >/dev/null
  for want in 0.9 2; do  # SameMajorVersion: 1.x only
    ! cmake -S "$src/tests/install/consumer" -B "cm$want" -DCMAKE_PREFIX_PATH="$p" -DWANT=$want >/dev/null 2>&1 ||
      fail "find_package(vexlo $want) accepted $("$p/bin/vexlo-sim" --version)"
  done
  for app in demo-pc cm/demo; do
    # the soname, and the library found in the prefix
    LD_LIBRARY_PATH="$p/$libdir" ldd "$app" | grep "libvexlo.so.1 => $p/$libdir/libvexlo.so.1" >/dev/null || fail "$app: library not from $p"
    out=$("$p/bin/vexlo-sim" --serial INSTALL-7 -- env LD_LIBRARY_PATH="$p/$libdir" "./$app" -n 20 -q) || fail "$app: $out"
    grep -q "serial INSTALL-7, .*, 2 channels" <<<"$out" && grep -q "20 sent, 20 received" <<<"$out" || fail "$app: $out"
  done
  out=$("$p/bin/vexlo-sim" --serial INSTALL-8 -- "$p/bin/vexlo" list 2>&1) && grep -q INSTALL-8 <<<"$out" ||
    fail "installed vexlo without LD_LIBRARY_PATH: $out"
  DESTDIR=$work/d cmake --install "$build" --prefix /usr/local --component python >/dev/null
  site=$(/usr/bin/python3 -c 'import site; print(site.getsitepackages()[0])')
  [ -e "$work/d$site/vexlo_can/bus.py" ] || fail "python interface not in $site: $(cd d && find . -name bus.py)"
  cmake --build "$build" --target uninstall >/dev/null
  left=$(cd "$p" && find . | sort | tr '\n' ' ')
  [ "$left" = ". ./share ./share/man " ] || fail "left after the uninstall: $left"
else
  VEXLO_PKG_BUILD="$work/build" bash "$src/scripts/package.sh" "$work/debs" >/dev/null
  ma=usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
  declare -A want=(
    [libvexlo1]="$ma/libvexlo.so.1 $ma/libvexlo.so.1.0.0"
    [libvexlo-dev]="usr/include/vexlo.h usr/include/vexlo_ext.h $ma/libvexlo.so $ma/pkgconfig/vexlo.pc
                    $ma/cmake/vexlo/vexloConfig.cmake $ma/cmake/vexlo/vexloConfigVersion.cmake usr/share/man/man3/vexlo.3.gz"
    [vexlo-tools]="usr/bin/vexlo-sim usr/lib/udev/rules.d/70-vexlo.rules usr/share/man/man1/vexlo-sim.1.gz
                   usr/bin/vexlo usr/share/man/man1/vexlo.1.gz usr/share/bash-completion/completions/vexlo
                   $ma/wireshark/extcap/vexlo-extcap usr/share/man/man1/vexlo-extcap.1.gz etc/default/vexlo-serve")
  for pkg in "${!want[@]}"; do
    list=$(dpkg-deb -c debs/"$pkg"_*.deb | awk '{print substr($6, 3)}')
    for f in ${want[$pkg]} usr/share/doc/$pkg/copyright usr/share/doc/$pkg/changelog.Debian.gz; do
      grep -qx "$f" <<<"$list" || fail "$pkg lacks $f"
    done
  done
  dpkg-deb --ctrl-tarfile debs/vexlo-tools_*.deb | tar -xO ./conffiles | grep -x /etc/default/vexlo-serve >/dev/null ||
    fail "vexlo-tools: /etc/default/vexlo-serve is no conffile"
  for d in debs/*.deb; do
    twice=$(dpkg-deb -f "$d" Depends | tr ',' '\n' | sed 's/^ *//; s/ *(.*//' | sort | uniq -d)
    [ -z "$twice" ] || fail "$d depends twice on $twice"
  done
  for script in postinst:py3compile prerm:py3clean; do
    dpkg-deb -I debs/python3-vexlo-can_*.deb "${script%:*}" | grep "${script#*:} -p python3-vexlo-can" >/dev/null ||
      fail "python3-vexlo-can: no ${script#*:} in its ${script%:*}"
  done
  all=$(for d in debs/*.deb; do dpkg-deb -c "$d" | awk '$1 !~ /^d/ {print $6}'; done)
  ! grep -E 'test|bench|fuzz|demo' <<<"$all" || fail "packaged from tests, benchmarks or the demo"
  out=$(lintian --fail-on error,warning debs/*.deb 2>&1) || fail "lintian: $out"
fi
echo "install $mode: ok"
